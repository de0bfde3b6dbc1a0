// SPDX-License-Identifier: Apache-2.0
#include "nuvra/tiny/mutex.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <thread>

#include "gtest/gtest.h"
#include "nuvra/tiny/internal/mutex_init.h"

namespace nuvra::tiny {
namespace {

bool freeForOthers(NMutex& mutex) {
    bool taken = false;
    std::thread([&] {
        taken = mutex.tryAcquire();
        if (taken) {
            mutex.release();
        }
    }).join();
    return taken;
}

TEST(NMutex, IsRecursiveAndNeedsOneUnlockPerLockWhicheverWayItWasTaken) {
    NMutex mutex;
    mutex.acquire();
    mutex.enter();
    EXPECT_TRUE(mutex.tryEnter());  // the holder may take it again
    {
        NMutexLock guard(mutex);
        guard.release();
        guard.release();  // only once
    }
    mutex.relock();
    for (int held = 4; held > 0; --held) {
        EXPECT_FALSE(freeForOthers(mutex));
        mutex.unlock();
    }
    EXPECT_TRUE(freeForOthers(mutex));
}

// What NMutex's constructor throws for a pthread_mutex_init result; empty for nothing.
std::string thrownFor(int result) {
    try {
        internal::throwIfMutexInitFailed(result);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

TEST(NMutex, KnownInitFailuresThrowTheirTextsAndOthersAreIgnored) {
    EXPECT_EQ(thrownFor(ENOMEM), "Insufficient memory exists to initialize the mutex.");
    EXPECT_EQ(thrownFor(EINVAL), "Wrong attributes for mutex.");
    EXPECT_EQ(thrownFor(EAGAIN), "System resources (other than memory) are unavailable.");
    EXPECT_EQ(thrownFor(EBUSY), "");
}

}  // namespace
}  // namespace nuvra::tiny
