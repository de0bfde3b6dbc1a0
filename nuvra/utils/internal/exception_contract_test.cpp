#include "nuvra/utils/internal/exception_contract.h"

#include <new>
#include <stdexcept>

#include "gtest/gtest.h"
#include "nuvra/utils/exception.h"

namespace nuvra::utils::internal {
namespace {

// A function whose contract lets only Exception and std::bad_alloc leave.
int guarded(int (*body)()) { return withExceptionContract<Exception, std::bad_alloc>(body); }

TEST(ExceptionContractDeathTest, ListedExceptionsPassAndOthersEndTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EQ(guarded([] { return 42; }), 42);
    EXPECT_THROW(guarded([]() -> int { throw std::bad_alloc(); }), std::bad_alloc);
    EXPECT_DEATH(guarded([]() -> int { throw std::runtime_error("unlisted"); }), "");
}

}  // namespace
}  // namespace nuvra::utils::internal
