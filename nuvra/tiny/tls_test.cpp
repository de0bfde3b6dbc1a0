// SPDX-License-Identifier: Apache-2.0
#include "nuvra/tiny/tls.h"

#include <unistd.h>

#include <future>

#include "gtest/gtest.h"

namespace nuvra::tiny {
namespace {

TEST(TlsSlot, ValuesArePerThread) {
    void* const mark = reinterpret_cast<void*>(1);  // NOLINT: as the library's own slots mark
    TLS<void> slot;
    EXPECT_TRUE(slot.set(mark));
    EXPECT_EQ(std::async(std::launch::async, [&slot] { return slot.get(); }).get(), nullptr);
    EXPECT_EQ(slot.get(), mark);
}

TEST(ThreadIdentity, KernelThreadIdIsTheProcessIdOnlyInTheMainThread) {
    EXPECT_EQ(getProcessId(), static_cast<int32_t>(getpid()));
    EXPECT_EQ(getThreadId(), currentProcessId());  // gtest runs tests on the main thread
    EXPECT_NE(std::async(std::launch::async, currentThreadId).get(), currentProcessId());
    pthread_t handle{};
    EXPECT_TRUE(pthread_equal(currentThreadHandle(handle), pthread_self()) &&
                pthread_equal(handle, pthread_self()));
}

}  // namespace
}  // namespace nuvra::tiny
