#include "nuvra/tiny/thread.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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

int32_t registryReferences() { return ThreadCallbacks::instance().useCount(); }

// Every test leaves no start record, no registry reference, no hooks and the real system calls.
class ThreadTest : public ::testing::Test {
  protected:
    void TearDown() override {
        EXPECT_TRUE(eventually([this] { return internal::liveThreadStartRecords() == records_; }));
        EXPECT_EQ(registryReferences(), references_);
        setThreadCallbacks(nullptr, nullptr);
        internal::setThreadSystemCallsForTesting(real_);
    }

    const internal::ThreadSystemCalls real_ = internal::realThreadSystemCalls();
    const int32_t records_ = internal::liveThreadStartRecords();
    const int32_t references_ = registryReferences();
};

struct Probe {
    std::atomic<int32_t> threadId{0};
    std::atomic<bool> go{false};
};

void recordAndWait(void* argument) {
    auto* probe = static_cast<Probe*>(argument);
    probe->threadId = currentThreadId();
    while (!probe->go) {
        std::this_thread::yield();
    }
}

// Hook calls as "start <tag> <id> <name>" and "exit <tag> <id>".
std::mutex hookMutex;
std::vector<std::string> hookCalls;

template <int kTag>
void onStart(int32_t threadId, const std::string* name) {
    const std::lock_guard<std::mutex> lock(hookMutex);
    hookCalls.push_back("start " + std::to_string(kTag) + " " + std::to_string(threadId) + " " +
                        *name);
}

template <int kTag>
void onExit(int32_t threadId) {
    const std::lock_guard<std::mutex> lock(hookMutex);
    hookCalls.push_back("exit " + std::to_string(kTag) + " " + std::to_string(threadId));
}

using CreateThread = ThreadTest;

TEST_F(CreateThread, RunsTheBodyOnAJoinableThreadWithItsStackRaisedToTheMinimum) {
    static const struct {
        uint32_t requested;
        size_t expected;
    } kCases[] = {{0, 16384}, {1000, 16384}, {16384, 16384}, {20000, 20000}, {1u << 20, 1u << 20}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.requested);
        pthread_attr_t* attributes = internal::newThreadAttributes(c.requested);
        ASSERT_NE(attributes, nullptr);
        size_t size = 0;
        EXPECT_EQ(pthread_attr_getstacksize(attributes, &size), 0);
        EXPECT_EQ(size, c.expected);
        internal::deleteThreadAttributes(attributes);

        Probe probe;
        probe.go = true;
        ThreadAttributes named("sized");
        named.stackSize = c.requested;
        pthread_t handle{};
        ASSERT_TRUE(createThread(recordAndWait, &probe, &handle, named));
        EXPECT_TRUE(joinThread(handle));
        EXPECT_NE(probe.threadId, currentThreadId());
    }
}

TEST_F(CreateThread, DetachesWhenNoHandleIsWanted) {
    Probe detached;
    detached.go = true;
    EXPECT_TRUE(createThread(recordAndWait, &detached, nullptr));
    Probe later;
    pthread_t handle{};
    ASSERT_TRUE(createThread(recordAndWait, &later, &handle));
    EXPECT_EQ(detachThread(&handle), 0);
    later.go = true;
    // Both ran to their end, and the probes outlive them.
    EXPECT_TRUE(eventually([this] { return internal::liveThreadStartRecords() == records_; }));
    EXPECT_NE(detached.threadId, 0);
}

TEST_F(CreateThread, FailureStartsNothingAndReleasesEverything) {
    const auto reject = [](pthread_attr_t*, size_t) { return EINVAL; };
    const auto refuse = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
        return EAGAIN;
    };
    const struct {
        internal::ThreadSystemCalls calls;
        uint32_t stackSize;
    } kCases[] = {{{reject, real_.create, real_.kill, real_.setAction}, 1 << 20},
                  {{real_.setStackSize, refuse, real_.kill, real_.setAction}, 1 << 20},
                  {{real_.setStackSize, refuse, real_.kill, real_.setAction}, 0}};
    for (const auto& c : kCases) {
        internal::setThreadSystemCallsForTesting(c.calls);
        Probe probe;
        probe.go = true;  // a thread started by mistake ends and shows in threadId
        ThreadAttributes attributes;
        attributes.stackSize = c.stackSize;
        pthread_t handle = pthread_self();
        EXPECT_FALSE(createThread(recordAndWait, &probe, &handle, attributes));
        EXPECT_EQ(handle, pthread_t{});
        EXPECT_EQ(internal::liveThreadStartRecords(), records_);
        EXPECT_EQ(registryReferences(), references_);
        EXPECT_EQ(probe.threadId, 0);
    }
}

TEST(ThreadControl, ZeroHandleJoinsWithoutAThreadAndPrioritiesPassThrough) {
    EXPECT_TRUE(joinThread(pthread_t{}));  // pthread_join would crash on it
    EXPECT_EQ(joinThreadStatus(pthread_t{}), 0);
    // The time-sharing policy has the single priority 0.
    EXPECT_EQ(setThreadPriority(0), 0);
    EXPECT_EQ(setThreadPriority(5), EINVAL);
}

using ThreadHooks = ThreadTest;

TEST_F(ThreadHooks, RunInTheNewThreadWithItsIdAndNameAndAreReadOnceAtItsStart) {
    hookCalls.clear();
    ASSERT_TRUE(setThreadCallbacks(onStart<1>, onExit<1>));
    Probe probe;
    pthread_t handle{};
    ASSERT_TRUE(createThread(recordAndWait, &probe, &handle, ThreadAttributes("worker")));
    ASSERT_TRUE(eventually([&] { return probe.threadId != 0; }));
    EXPECT_EQ(registryReferences(), references_ + 1);  // held by the running thread

    ASSERT_TRUE(setThreadCallbacks(onStart<2>, onExit<2>));  // too late for that thread
    probe.go = true;
    EXPECT_EQ(joinThreadStatus(handle), 0);
    const std::string id = std::to_string(probe.threadId);
    EXPECT_EQ(hookCalls, (std::vector<std::string>{"start 1 " + id + " worker", "exit 1 " + id}));
    EXPECT_NE(probe.threadId, currentThreadId());
}

TEST_F(ThreadHooks, AreSetBothOrNeither) {
    static const struct {
        ThreadCallbacks::StartHook start;
        ThreadCallbacks::ExitHook exit;
        bool accepted;
    } kCases[] = {{onStart<3>, nullptr, false},
                  {nullptr, onExit<3>, false},
                  {nullptr, nullptr, true},
                  {onStart<3>, onExit<3>, true}};
    for (const auto& c : kCases) {
        ASSERT_TRUE(setThreadCallbacks(onStart<1>, onExit<1>));
        EXPECT_EQ(setThreadCallbacks(c.start, c.exit), c.accepted);
        ThreadCallbacks::StartHook start = nullptr;
        ThreadCallbacks::ExitHook exit = nullptr;
        getThreadCallbacks(ThreadCallbacks::instance(), start, exit);
        EXPECT_EQ(start, c.accepted ? c.start : onStart<1>);
        EXPECT_EQ(exit, c.accepted ? c.exit : onExit<1>);
    }
}

// Sets a marker as the SIGUSR2 disposition for one test and restores the old one after it.
class SigUsr2Guard : public ThreadTest {
  protected:
    static void marker(int /*signal*/) {}
    static bool markerInstalled() {
        struct sigaction current {};
        sigaction(SIGUSR2, nullptr, &current);
        return current.sa_handler == marker;
    }
    void SetUp() override {
        struct sigaction action {};
        action.sa_handler = marker;
        ASSERT_EQ(sigaction(SIGUSR2, &action, &saved_), 0);
    }
    void TearDown() override {
        ThreadTest::TearDown();
        sigaction(SIGUSR2, &saved_, nullptr);
    }

  private:
    struct sigaction saved_ {};
};

TEST_F(SigUsr2Guard, CountsInstallsRestoresOnlyWhenTheLastGoesAndWraps) {
    using Guard = dangerous::SigUsr2Guard;
    internal::ThreadSystemCalls failing = real_;
    failing.setAction = [](int, const struct sigaction*, struct sigaction*) { return -1; };
    internal::setThreadSystemCallsForTesting(failing);
    EXPECT_FALSE(dangerous::interruptThreads({}));
    const struct {
        bool (Guard::*call)();
        bool sigactionFails;
        bool result;
        uint32_t count;
        bool ours;
    } kSteps[] = {
        {&Guard::install, true, false, 0, false},  // a failed sigaction keeps the count
        {&Guard::install, false, true, 1, true},
        {&Guard::install, false, true, 2, true},
        {&Guard::uninstall, false, true, 1, true},
        {&Guard::uninstall, true, false, 1, true},
        {&Guard::uninstall, false, true, 0, false},
        {&Guard::uninstall, false, true, UINT32_MAX, false},
    };
    Guard guard;
    for (const auto& step : kSteps) {
        SCOPED_TRACE(&step - kSteps);
        internal::setThreadSystemCallsForTesting(step.sigactionFails ? failing : real_);
        EXPECT_EQ((guard.*step.call)(), step.result);
        EXPECT_EQ(guard.installCount(), step.count);
        EXPECT_EQ(markerInstalled(), !step.ours);
    }
    internal::sigUsr2Handler(SIGUSR1);  // any other signal simply returns
}

// Signals threads for real, which ThreadSanitizer does not support: its run leaves this suite
// out.
using InterruptThreads = ThreadTest;

// Threads about to block, and threads that came back from blocking: none, once interrupted.
std::atomic<int> blocking{0};
std::atomic<int> resumed{0};
void blockInPause(void* /*argument*/) {
    ++blocking;
    pause();
    ++resumed;
}
void blockInSleep(void* /*argument*/) {
    ++blocking;
    sleep(3600);
    ++resumed;
}

const pthread_t kRejected = 1;

TEST_F(InterruptThreads, EndsBlockedThreadsWithoutExitHooksEvenPastARejectedHandle) {
    EXPECT_TRUE(dangerous::interruptThreads({}));
    internal::ThreadSystemCalls calls = real_;
    calls.kill = [](pthread_t thread, int signal) {
        return thread == kRejected ? ESRCH : pthread_kill(thread, signal);
    };
    internal::setThreadSystemCallsForTesting(calls);
    ASSERT_TRUE(setThreadCallbacks(onStart<1>, onExit<1>));
    for (const bool withRejected : {false, true}) {
        hookCalls.clear();
        blocking = 0;
        pthread_t pausing{};
        pthread_t sleeping{};
        ASSERT_TRUE(createThread(blockInPause, nullptr, &pausing));
        ASSERT_TRUE(createThread(blockInSleep, nullptr, &sleeping));
        std::vector<pthread_t> threads{pausing, sleeping};
        if (withRejected) {
            threads.insert(threads.begin(), kRejected);
        }
        ASSERT_TRUE(eventually([] { return blocking == 2; }));

        EXPECT_EQ(dangerous::interruptThreads(threads), !withRejected);
        EXPECT_EQ(resumed, 0);
        EXPECT_EQ(internal::liveThreadStartRecords(), records_);  // joined, records released
        EXPECT_EQ(hookCalls.size(), 2u);
        for (const std::string& call : hookCalls) {
            EXPECT_EQ(call.rfind("start ", 0), 0u) << call;  // no exit hook
        }
        EXPECT_EQ(dangerous::sigUsr2Guard.installCount(), 0u);
        struct sigaction current {};
        sigaction(SIGUSR2, nullptr, &current);
        EXPECT_EQ(current.sa_handler, SIG_DFL);
    }
}

}  // namespace
}  // namespace nuvra::tiny
