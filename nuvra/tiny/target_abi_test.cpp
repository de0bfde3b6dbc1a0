// The build really targets the machine it is meant for: the record sizes and call numbers that
// nuvra's thread, process and interface code depends on differ between i386 and x86-64, and a
// cross build that quietly fell back to the host's ABI would pass every other test.

#include <net/if.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "gtest/gtest.h"
#include "nuvra/tiny/tls.h"

namespace nuvra::tiny {
namespace {

struct TargetAbi {
    long gettidCall;
    size_t longSize;
    size_t pointerSize;
    size_t pthreadAttrSize;
    size_t ifreqSize;
};

#if defined(__i386__)
constexpr TargetAbi kExpected = {224, 4, 4, 36, 32};
#elif defined(__x86_64__)
constexpr TargetAbi kExpected = {186, 8, 8, 56, 40};
#else
#error "nuvra is built for i386 and x86-64 Linux"
#endif

TEST(TargetAbi, RecordSizesAndCallNumbersAreTheTargets) {
    EXPECT_EQ(long{SYS_gettid}, kExpected.gettidCall);
    EXPECT_EQ(sizeof(long), kExpected.longSize);
    EXPECT_EQ(sizeof(void*), kExpected.pointerSize);
    EXPECT_EQ(sizeof(pthread_attr_t), kExpected.pthreadAttrSize);
    EXPECT_EQ(sizeof(ifreq), kExpected.ifreqSize);
    // 64-bit quantities stay 64 bits wide on both.
    EXPECT_EQ(sizeof(off64_t), 8u);
    EXPECT_EQ(sizeof(int64_t), 8u);
}

TEST(TargetAbi, ThreadIdIsTheKernelsForThisTarget) {
    EXPECT_EQ(currentThreadId(), static_cast<int32_t>(syscall(kExpected.gettidCall)));
    EXPECT_EQ(currentProcessId(), static_cast<int32_t>(getpid()));
}

}  // namespace
}  // namespace nuvra::tiny
