#include "nuvra/tiny/thread.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
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

// What every test leaves behind: no start record and no registry reference of its own.
class ThreadTest : public ::testing::Test {
  protected:
    void SetUp() override { setThreadCallbacks(nullptr, nullptr); }
    void TearDown() override {
        EXPECT_TRUE(eventually([this] { return internal::liveThreadStartRecords() == records_; }));
        EXPECT_EQ(registryReferences(), references_);
        setThreadCallbacks(nullptr, nullptr);
    }

    const int32_t records_ = internal::liveThreadStartRecords();
    const int32_t references_ = registryReferences();
};

// Body state, set by the thread it runs on.
struct Probe {
    std::atomic<int32_t> threadId{0};
    std::atomic<bool> go{false};
    std::atomic<size_t> stackSize{0};
};

void recordAndWait(void* argument) {
    auto* probe = static_cast<Probe*>(argument);
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        size_t size = 0;
        pthread_attr_getstacksize(&attributes, &size);
        probe->stackSize = size;
        pthread_attr_destroy(&attributes);
    }
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

// Replaces the seam's system calls for one scope.
class ScopedSystemCalls {
  public:
    explicit ScopedSystemCalls(const internal::ThreadSystemCalls& calls)
        : saved_(internal::setThreadSystemCallsForTesting(calls)) {}
    ~ScopedSystemCalls() { internal::setThreadSystemCallsForTesting(saved_); }
    ScopedSystemCalls(const ScopedSystemCalls&) = delete;
    ScopedSystemCalls& operator=(const ScopedSystemCalls&) = delete;

  private:
    internal::ThreadSystemCalls saved_;
};

TEST(ThreadStack, SmallSizesAreRaisedToTheMinimum) {
    static const struct {
        uint32_t requested;
        size_t expected;
    } kCases[] = {{1, 16384}, {1000, 16384}, {16384, 16384}, {20000, 20000}, {1 << 20, 1 << 20}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.requested);
        pthread_attr_t* attributes = internal::newThreadAttributes(c.requested);
        ASSERT_NE(attributes, nullptr);
        size_t size = 0;
        EXPECT_EQ(pthread_attr_getstacksize(attributes, &size), 0);
        EXPECT_EQ(size, c.expected);
        internal::deleteThreadAttributes(attributes);
    }
}

using CreateThread = ThreadTest;

TEST_F(CreateThread, RunsTheBodyOnAJoinableThreadWithTheRequestedStack) {
    for (const uint32_t stackSize : {0u, 1000u, 1u << 20}) {
        SCOPED_TRACE(stackSize);
        Probe probe;
        probe.go = true;
        ThreadAttributes attributes("sized");
        attributes.stackSize = stackSize;
        pthread_t handle{};
        ASSERT_TRUE(createThread(recordAndWait, &probe, &handle, attributes));
        EXPECT_TRUE(joinThread(handle));
        EXPECT_NE(probe.threadId, currentThreadId());
        EXPECT_GE(probe.stackSize, std::max<size_t>(stackSize, 16384));
    }
}

TEST_F(CreateThread, DetachesWhenNoHandleIsWanted) {
    Probe detached;
    detached.go = true;
    EXPECT_TRUE(createThread(recordAndWait, &detached, nullptr));
    EXPECT_TRUE(eventually([&] { return detached.threadId != 0; }));

    Probe later;
    pthread_t handle{};
    ASSERT_TRUE(createThread(recordAndWait, &later, &handle));
    EXPECT_EQ(detachThread(&handle), 0);
    later.go = true;
    // Both probes must outlive their threads.
    EXPECT_TRUE(eventually([this] { return internal::liveThreadStartRecords() == records_; }));
}

int rejectStackSize(pthread_attr_t* /*attributes*/, size_t /*size*/) { return EINVAL; }
int refuseThread(pthread_t* /*handle*/, const pthread_attr_t* /*attributes*/,
                 void* (* /*routine*/)(void*), void* /*argument*/) {
    return EAGAIN;
}

TEST_F(CreateThread, FailureStartsNothingAndReleasesEverything) {
    static const struct {
        const char* name;
        decltype(internal::ThreadSystemCalls::setStackSize) setStackSize;
        decltype(internal::ThreadSystemCalls::create) create;
        uint32_t stackSize;
    } kCases[] = {{"stack size rejected", rejectStackSize, pthread_create, 1 << 20},
                  {"no thread, own stack", pthread_attr_setstacksize, refuseThread, 1 << 20},
                  {"no thread, default stack", pthread_attr_setstacksize, refuseThread, 0}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        internal::ThreadSystemCalls calls = internal::realThreadSystemCalls();
        calls.setStackSize = c.setStackSize;
        calls.create = c.create;
        const ScopedSystemCalls scoped(calls);
        Probe probe;
        probe.go = true;
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
    EXPECT_TRUE(joinThread(pthread_t{}));
    EXPECT_EQ(joinThreadStatus(pthread_t{}), 0);
    // The time-sharing policy has the single priority 0.
    EXPECT_EQ(setThreadPriority(0), 0);
    EXPECT_EQ(setThreadPriority(5), EINVAL);
    EXPECT_EQ(setThreadPriority(-1), EINVAL);
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
class SigUsr2Guard : public ::testing::Test {
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
    void TearDown() override { sigaction(SIGUSR2, &saved_, nullptr); }

  private:
    struct sigaction saved_ {};
};

TEST_F(SigUsr2Guard, RestoresThePreviousDispositionOnlyWhenTheLastInstallGoes) {
    dangerous::SigUsr2Guard guard;
    const struct {
        bool (dangerous::SigUsr2Guard::*call)();
        uint32_t count;
        bool ours;
    } kSteps[] = {{&dangerous::SigUsr2Guard::install, 1, true},
                  {&dangerous::SigUsr2Guard::install, 2, true},
                  {&dangerous::SigUsr2Guard::uninstall, 1, true},
                  {&dangerous::SigUsr2Guard::uninstall, 0, false}};
    for (const auto& step : kSteps) {
        EXPECT_TRUE((guard.*step.call)());
        EXPECT_EQ(guard.installCount(), step.count);
        EXPECT_EQ(markerInstalled(), !step.ours);
    }
    internal::sigUsr2Handler(SIGUSR1);  // any other signal simply returns
}

TEST_F(SigUsr2Guard, UninstallWithoutInstallWrapsAndTouchesNothing) {
    dangerous::SigUsr2Guard guard;
    EXPECT_TRUE(guard.uninstall());
    EXPECT_EQ(guard.installCount(), UINT32_MAX);
    EXPECT_TRUE(markerInstalled());
}

int failAction(int /*signal*/, const struct sigaction* /*action*/, struct sigaction* /*old*/) {
    errno = EINVAL;
    return -1;
}

TEST_F(SigUsr2Guard, FailedSigactionKeepsTheCount) {
    dangerous::SigUsr2Guard guard;
    internal::ThreadSystemCalls failing = internal::realThreadSystemCalls();
    failing.setAction = failAction;
    {
        const ScopedSystemCalls scoped(failing);
        EXPECT_FALSE(guard.install());
        EXPECT_EQ(guard.installCount(), 0u);
        EXPECT_FALSE(dangerous::interruptThreads({}));
    }
    ASSERT_TRUE(guard.install());
    {
        const ScopedSystemCalls scoped(failing);
        EXPECT_FALSE(guard.uninstall());
        EXPECT_EQ(guard.installCount(), 1u);
    }
    EXPECT_TRUE(guard.uninstall());
    EXPECT_TRUE(markerInstalled());
}

// Signals threads for real, which ThreadSanitizer does not support: its run leaves this suite
// out.
using InterruptThreads = ThreadTest;

void blockInPause(void* argument) {
    static_cast<std::atomic<int>*>(argument)->fetch_add(1);
    pause();
    static_cast<std::atomic<int>*>(argument)->fetch_add(100);  // never reached
}

void blockInSleep(void* argument) {
    static_cast<std::atomic<int>*>(argument)->fetch_add(1);
    sleep(3600);
    static_cast<std::atomic<int>*>(argument)->fetch_add(100);
}

const pthread_t kRejected = 1;

int killAllButRejected(pthread_t thread, int signal) {
    return thread == kRejected ? ESRCH : pthread_kill(thread, signal);
}

TEST_F(InterruptThreads, EndsBlockedThreadsWithoutExitHooksEvenPastARejectedHandle) {
    for (const bool withRejected : {false, true}) {
        SCOPED_TRACE(withRejected);
        internal::ThreadSystemCalls calls = internal::realThreadSystemCalls();
        calls.kill = killAllButRejected;
        const ScopedSystemCalls scoped(calls);
        hookCalls.clear();
        ASSERT_TRUE(setThreadCallbacks(onStart<1>, onExit<1>));
        std::atomic<int> progress{0};
        pthread_t pausing{};
        pthread_t sleeping{};
        ASSERT_TRUE(createThread(blockInPause, &progress, &pausing));
        ASSERT_TRUE(createThread(blockInSleep, &progress, &sleeping));
        std::vector<pthread_t> threads{pausing, sleeping};
        if (withRejected) {
            threads.insert(threads.begin(), kRejected);
        }
        ASSERT_TRUE(eventually([&] { return progress == 2; }));

        EXPECT_EQ(dangerous::interruptThreads(threads), !withRejected);
        EXPECT_EQ(progress, 2);
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

TEST_F(InterruptThreads, EmptyListSucceedsAndRestoresTheDisposition) {
    EXPECT_TRUE(dangerous::interruptThreads({}));
    EXPECT_EQ(dangerous::sigUsr2Guard.installCount(), 0u);
    struct sigaction current {};
    sigaction(SIGUSR2, nullptr, &current);
    EXPECT_EQ(current.sa_handler, SIG_DFL);
}

}  // namespace
}  // namespace nuvra::tiny
