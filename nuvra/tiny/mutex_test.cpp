#include "nuvra/tiny/mutex.h"

#include <cerrno>
#include <future>
#include <stdexcept>
#include <string>

#include "gtest/gtest.h"
#include "nuvra/tiny/internal/mutex_init.h"

namespace nuvra::tiny {
namespace {

// Asks from a second thread, so that a recursive mutex cannot answer "yes, you hold it".
// Calls the base primitives directly, so that a recording subclass records nothing.
bool tryLockFromAnotherThread(NMutex& mutex) {
    return std::async(std::launch::async,
                      [&mutex] {
                          const bool taken = mutex.NMutex::tryLock();
                          if (taken) {
                              mutex.NMutex::unlock();
                          }
                          return taken;
                      })
        .get();
}

TEST(NMutex, IsRecursiveAndNeedsOneUnlockPerLock) {
    NMutex mutex;
    mutex.lock();
    mutex.lock();
    EXPECT_TRUE(mutex.tryLock());  // the holder may take it a third time
    mutex.unlock();
    EXPECT_FALSE(tryLockFromAnotherThread(mutex));
    mutex.unlock();
    EXPECT_FALSE(tryLockFromAnotherThread(mutex));
    mutex.unlock();
    EXPECT_TRUE(tryLockFromAnotherThread(mutex));
}

// Records which primitive the generic interface reached.
class RecordingMutex : public NMutex {
  public:
    void lock() override {
        calls += "lock ";
        NMutex::lock();
    }
    bool tryLock() override {
        calls += "tryLock ";
        return NMutex::tryLock();
    }
    void unlock() override {
        calls += "unlock ";
        NMutex::unlock();
    }
    std::string calls;
};

TEST(NMutex, GenericInterfaceDispatchesToOverriddenPrimitives) {
    static const struct {
        const char* name;
        void (*call)(NMutex&);
        const char* expected;
        int locksHeld;  // afterwards
    } kCases[] = {
        {"acquire", [](NMutex& m) { m.acquire(); }, "lock ", 2},
        {"enter", [](NMutex& m) { m.enter(); }, "lock ", 2},
        {"relock", [](NMutex& m) { m.relock(); }, "lock ", 2},
        {"tryAcquire", [](NMutex& m) { m.tryAcquire(); }, "tryLock ", 2},
        {"tryEnter", [](NMutex& m) { m.tryEnter(); }, "tryLock ", 2},
        {"release", [](NMutex& m) { m.release(); }, "unlock ", 0},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        RecordingMutex mutex;
        mutex.NMutex::lock();  // so that release has something to release
        c.call(mutex);
        EXPECT_EQ(mutex.calls, c.expected);
        // Destroying a locked mutex is undefined.
        for (int i = 0; i < c.locksHeld; ++i) {
            mutex.NMutex::unlock();
        }
    }
}

TEST(NMutexLock, LocksThroughEnterAndUnlocksOnce) {
    RecordingMutex mutex;
    {
        NMutexLock guard(mutex);
        EXPECT_EQ(mutex.calls, "lock ");
        guard.release();
        EXPECT_EQ(mutex.calls, "lock unlock ");
        EXPECT_TRUE(tryLockFromAnotherThread(mutex));
        guard.release();
    }
    EXPECT_EQ(mutex.calls, "lock unlock ");
    {
        NMutexLock guard(mutex);
        EXPECT_FALSE(tryLockFromAnotherThread(mutex));
    }
    EXPECT_EQ(mutex.calls, "lock unlock lock unlock ");
    EXPECT_TRUE(tryLockFromAnotherThread(mutex));
}

TEST(NMutexInit, KnownFailuresThrowTheirTextsAndOthersAreIgnored) {
    static const struct {
        int result;
        const char* message;  // null: nothing thrown
    } kCases[] = {
        {ENOMEM, "Insufficient memory exists to initialize the mutex."},
        {EINVAL, "Wrong attributes for mutex."},
        {EAGAIN, "System resources (other than memory) are unavailable."},
        {0, nullptr},
        {EBUSY, nullptr},
        {EPERM, nullptr},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.result);
        try {
            internal::throwIfMutexInitFailed(c.result);
            EXPECT_EQ(c.message, nullptr) << "nothing thrown";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), c.message);
        }
    }
}

}  // namespace
}  // namespace nuvra::tiny
