#include "nuvra/tiny/internal/exception_contract.h"

#include <new>
#include <stdexcept>

#include "gtest/gtest.h"
#include "nuvra/utils/exception.h"

namespace nuvra::utils::internal {
namespace {

// A function whose contract lets only Exception and std::bad_alloc leave.
template <typename Body>
int guarded(Body body) {
    return tiny::internal::withExceptionContract<Exception, std::bad_alloc>(body);
}

class DerivedFromException : public Exception {
  public:
    DerivedFromException() : Exception("derived") {}
};

TEST(ExceptionContract, ResultsAndListedExceptionsPassThrough) {
    EXPECT_EQ(guarded([] { return 42; }), 42);
    EXPECT_THROW(guarded([]() -> int { throw DerivedFromException(); }), DerivedFromException);
    EXPECT_THROW(guarded([]() -> int { throw std::bad_alloc(); }), std::bad_alloc);
    try {
        guarded([]() -> int { throw Exception("exact text"); });
        ADD_FAILURE() << "nothing thrown";
    } catch (const Exception& caught) {
        EXPECT_STREQ(caught.what(), "exact text");
    }
}

TEST(ExceptionContractDeathTest, UnlistedExceptionsEndTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(guarded([]() -> int { throw std::runtime_error("unlisted"); }), "");
    EXPECT_DEATH(guarded([]() -> int { throw 7; }), "");
}

}  // namespace
}  // namespace nuvra::utils::internal
