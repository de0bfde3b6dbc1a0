// SPDX-License-Identifier: Apache-2.0
#include "nuvra/tiny/internal/exception_contract.h"

#include <new>
#include <stdexcept>

#include "gtest/gtest.h"

namespace nuvra::tiny::internal {
namespace {

// A function whose contract lets only std::invalid_argument and std::bad_alloc leave.
int guarded(int (*body)()) {
    return withExceptionContract<std::invalid_argument, std::bad_alloc>(body);
}

TEST(ExceptionContractDeathTest, ListedExceptionsPassAndOthersEndTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EQ(guarded([] { return 42; }), 42);
    EXPECT_THROW(guarded([]() -> int { throw std::bad_alloc(); }), std::bad_alloc);
    EXPECT_DEATH(guarded([]() -> int { throw std::runtime_error("unlisted"); }), "");
}

}  // namespace
}  // namespace nuvra::tiny::internal
