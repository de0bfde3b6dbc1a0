// SPDX-License-Identifier: Apache-2.0
#include "nuvra/tiny/thread.h"

#include <cerrno>
#include <chrono>
#include <thread>

#include "gtest/gtest.h"
#include "nuvra/tiny/internal/thread_seam.h"
#include "nuvra/tiny/tls.h"

namespace nuvra::tiny {
namespace {

// Polls in small steps, so a test waits only as long as the thread needs.
template <typename Predicate>
bool eventually(Predicate done) {
    for (int i = 0; i < 10000 && !done(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return done();
}

// Every test leaves no start record, no registry reference, no hooks and the real system calls.
class ThreadTest : public ::testing::Test {
  protected:
    void TearDown() override {
        // Left: the registry's own reference and the one asked for here.
        EXPECT_TRUE(eventually([] {
            return internal::liveThreadStartRecords() == 0 &&
                   ThreadCallbacks::instance().useCount() == 2;
        }));
        EXPECT_TRUE(setThreadCallbacks(nullptr, nullptr));
        internal::setThreadSystemCallsForTesting(real_);
    }

    const internal::ThreadSystemCalls real_ = internal::realThreadSystemCalls();
};

// What the body and the hooks saw. The start hook replaces both hooks: too late for its own
// thread.
std::atomic<int32_t> bodyId{0};
std::atomic<int32_t> startedId{0};
std::atomic<int32_t> exitedId{0};
std::string startedName;  // written by the started thread, read after its join
void recordBodyId(void* /*argument*/) { bodyId = currentThreadId(); }
void otherStart(int32_t /*threadId*/, const std::string* /*name*/) {}
void otherExit(int32_t /*threadId*/) {}
void onStart(int32_t threadId, const std::string* name) {
    startedName = *name;
    startedId = threadId;
    EXPECT_TRUE(setThreadCallbacks(otherStart, otherExit));
}
void onExit(int32_t threadId) { exitedId = threadId; }

using CreateThread = ThreadTest;

TEST_F(CreateThread, RunsTheBodyBetweenTheHooksOfItsStartOnAStackOfAtLeast16K) {
    ThreadAttributes attributes("worker");
    attributes.stackSize = 1000;  // below the C library's minimum: raised to 16384
    pthread_t handle = pthread_self();
    internal::ThreadSystemCalls failing = real_;
    failing.setStackSize = [](pthread_attr_t*, size_t) { return EINVAL; };
    failing.create = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
        return EAGAIN;
    };
    internal::setThreadSystemCallsForTesting(failing);
    // Refused stack size, refused thread: nothing starts, not even on the default stack.
    EXPECT_FALSE(createThread(recordBodyId, nullptr, &handle, attributes) ||
                 createThread(recordBodyId, nullptr, &handle));
    EXPECT_EQ(handle, pthread_t{});
    internal::setThreadSystemCallsForTesting(real_);

    ASSERT_TRUE(setThreadCallbacks(onStart, onExit));
    EXPECT_FALSE(setThreadCallbacks(nullptr, otherExit));  // half a pair changes nothing
    ASSERT_TRUE(createThread(recordBodyId, nullptr, &handle, attributes));
    EXPECT_TRUE(joinThread(handle));
    EXPECT_EQ(startedName, "worker");
    EXPECT_TRUE(startedId == bodyId && exitedId == bodyId);
    bodyId = 0;
    EXPECT_TRUE(createThread(recordBodyId, nullptr, nullptr));  // detached
    EXPECT_TRUE(eventually([] { return bodyId != 0; }));
    EXPECT_TRUE(joinThread(pthread_t{}));     // pthread_join would crash on it
    EXPECT_EQ(setThreadPriority(5), EINVAL);  // the time-sharing policy has only 0
}

sighandler_t currentUsr2Handler() {
    struct sigaction current {};
    sigaction(SIGUSR2, nullptr, &current);
    return current.sa_handler;
}

using SigUsr2Guard = ThreadTest;

TEST_F(SigUsr2Guard, RestoresTheDispositionOnlyWhenTheLastInstallGoesAndWraps) {
    dangerous::SigUsr2Guard guard;
    internal::ThreadSystemCalls failing = real_;
    failing.setAction = [](int, const struct sigaction*, struct sigaction*) { return -1; };
    internal::setThreadSystemCallsForTesting(failing);
    EXPECT_FALSE(guard.install() || dangerous::interruptThreads({}));
    internal::setThreadSystemCallsForTesting(real_);
    EXPECT_TRUE(dangerous::interruptThreads({}));  // installs and restores its own
    ASSERT_TRUE(guard.install() && guard.install() && guard.uninstall());
    EXPECT_NE(currentUsr2Handler(), SIG_DFL);
    EXPECT_TRUE(guard.uninstall());
    EXPECT_EQ(currentUsr2Handler(), SIG_DFL);
    EXPECT_TRUE(guard.uninstall());  // without an install: wraps
    EXPECT_EQ(guard.installCount(), UINT32_MAX);
    internal::sigUsr2Handler(SIGUSR1);  // any other signal simply returns
}

}  // namespace
}  // namespace nuvra::tiny
