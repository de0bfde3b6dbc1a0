// SPDX-License-Identifier: Apache-2.0
// Thin thread management on POSIX threads: starting a function on a new thread with an optional
// stack size and a name (createThread), joining and detaching it, setting the calling thread's
// scheduling priority, process-wide hooks called at the start and end of every thread the
// library starts (ThreadCallbacks), and, in namespace dangerous, ending blocked threads from
// outside with SIGUSR2 (SigUsr2Guard, interruptThreads).
//
// Failures are reported by results: createThread and interruptThreads return false, and the
// join, detach and priority calls pass the pthread result through. Nothing is logged and errno
// is left as the system set it. The only exceptions are those of the first use of the
// process-wide hooks registry and of constructing a SigUsr2Guard: std::runtime_error from their
// NMutex, and std::bad_alloc. They are named at each function that may let them out; any other
// exception reaching such a function ends the process.

#ifndef NUVRA_TINY_THREAD_H_
#define NUVRA_TINY_THREAD_H_

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

#include "nuvra/tiny/mutex.h"

namespace nuvra::tiny {

// How createThread starts a thread.
struct ThreadAttributes {
    // Stack size 0 (the system default) and an empty name.
    ThreadAttributes() = default;
    // defaultThreadAttributes with `threadName` as the name; null gives an empty name.
    explicit ThreadAttributes(const char* threadName);

    // Requested stack size in bytes; 0 means the system default. Other sizes below 16384 bytes
    // are raised to 16384.
    uint32_t stackSize = 0;
    // Handed to the start hook; the kernel never sees it.
    std::string name;
};

// Stack size 0 and an empty name. Constant, so that no thread can change what another one
// starts with.
extern const ThreadAttributes defaultThreadAttributes;

// The process-wide hooks called in every thread that createThread starts: the start hook
// before the body, the exit hook after the body returns. There is one registry per process,
// made on first use and kept alive by counted references: one held until exit, one held by
// every thread still starting or running, so a thread that outlives main still finds it.
class ThreadCallbacks {
  public:
    // Called in the new thread with its kernel thread id and its name.
    using StartHook = void (*)(int32_t threadId, const std::string* name);
    // Called in the thread with its kernel thread id after its body returned.
    using ExitHook = void (*)(int32_t threadId);

    // A counted reference. Copies share the registry; the last one to go deletes it.
    class Ptr {
      public:
        Ptr() = default;
        // Takes a reference to `callbacks` (may be null).
        explicit Ptr(ThreadCallbacks* callbacks);
        Ptr(const Ptr& other);
        Ptr& operator=(const Ptr& other);
        ~Ptr();

        [[nodiscard]] ThreadCallbacks* get() const { return callbacks_; }
        ThreadCallbacks* operator->() const { return callbacks_; }
        explicit operator bool() const { return callbacks_ != nullptr; }
        // The number of references to the registry; 0 for a null Ptr. For diagnostics: other
        // threads may change it at any moment.
        [[nodiscard]] int32_t useCount() const;

      private:
        void reset();

        ThreadCallbacks* callbacks_ = nullptr;
    };

    // A reference to the process-wide registry, created on first use with no hooks set; null
    // once exit has dropped the registry's own reference. Only the first use may throw:
    // std::runtime_error from the registry's NMutex, or std::bad_alloc; any other exception ends
    // the process.
    [[nodiscard]] static Ptr instance();

    ThreadCallbacks(const ThreadCallbacks&) = delete;
    ThreadCallbacks& operator=(const ThreadCallbacks&) = delete;

  private:
    ThreadCallbacks() = default;
    ~ThreadCallbacks() = default;

    friend bool setThreadCallbacks(StartHook onThreadStart, ExitHook onThreadExit);
    friend void getThreadCallbacks(const Ptr& registry, StartHook& onThreadStart,
                                   ExitHook& onThreadExit);

    // Guarded by mutex_.
    StartHook onThreadStart_ = nullptr;
    ExitHook onThreadExit_ = nullptr;
    NMutex mutex_;
    std::atomic<int32_t> refCount_{0};
};

// Sets both process-wide hooks, or clears both when both are null, and returns true. Returns
// false and changes nothing when exactly one is null: a thread must never see a start without
// its matching end, and also once exit has dropped the registry. Threads already started keep
// the hooks they read at their start. May throw what ThreadCallbacks::instance() throws.
[[nodiscard]] bool setThreadCallbacks(ThreadCallbacks::StartHook onThreadStart,
                                      ThreadCallbacks::ExitHook onThreadExit);

// Copies both hooks of `registry` out, together, under its lock; a null `registry` gives null
// hooks.
void getThreadCallbacks(const ThreadCallbacks::Ptr& registry,
                        ThreadCallbacks::StartHook& onThreadStart,
                        ThreadCallbacks::ExitHook& onThreadExit);

// A thread body.
using ThreadFunction = void (*)(void* argument);

// Starts `function(argument)` on a new thread. In that thread the hooks registered at that
// moment are read once; the start hook runs before the body and the exit hook after the body
// returns. A body that ends its thread with pthread_exit (as interruptThreads makes it do)
// skips the exit hook.
//
// With a non-null `handle`, the new thread's handle is stored there and the thread is
// joinable: join or detach it exactly once. With a null `handle` the thread is detached.
//
// A non-zero attributes.stackSize is raised to at least 16384 bytes; if that size cannot be
// set, no thread is started: never one with the default stack instead.
//
// Returns false when no thread was started (the stack size was refused, the system has no
// thread to give, or memory ran out); `*handle` is then 0. Everything made for the thread is
// released on every path. Only the first use of the hooks registry may throw (see
// ThreadCallbacks::instance()).
//
// WARNING: an exception that leaves `function` or a hook ends the process.
[[nodiscard]] bool createThread(ThreadFunction function, void* argument, pthread_t* handle,
                                const ThreadAttributes& attributes = defaultThreadAttributes);

// Waits for the thread to end. A zero handle gives 0 without any call; otherwise the result
// of pthread_join.
[[nodiscard]] int joinThreadStatus(pthread_t handle);

// As joinThreadStatus: true for a zero handle or a successful join.
[[nodiscard]] bool joinThread(pthread_t handle);

// pthread_detach(*handle), passing its result through.
[[nodiscard]] int detachThread(const pthread_t* handle);

// Sets the calling thread to the normal time-sharing policy (SCHED_OTHER) with `priority`;
// returns the result of pthread_setschedparam. That policy accepts only priority 0: any other
// value gives EINVAL and changes nothing.
[[nodiscard]] int setThreadPriority(int priority);

// Ending threads from outside. The target is stopped inside a signal handler by pthread_exit:
// whatever it was doing is abandoned halfway, so it must be blocked in a call that is safe to
// abandon (pause, sleep, read on a descriptor) and hold no lock that anyone will wait for.
namespace dangerous {

// Reference-counted installation of the library's SIGUSR2 handler, which ends the thread that
// receives the signal. The handler is installed by the first install() and the disposition
// found then is restored when the count returns from 1 to 0.
//
// WARNING: the SIGUSR2 disposition is process-wide. While the handler is installed, SIGUSR2
// sent to the process or to any thread ends that thread (the main thread too), and the
// previous handler does not run.
class SigUsr2Guard {
  public:
    // Installs nothing yet. Throws what NMutex's constructor throws.
    SigUsr2Guard();
    // Does not restore the previous disposition: at exit nobody is left to be interrupted.
    ~SigUsr2Guard() = default;

    SigUsr2Guard(const SigUsr2Guard&) = delete;
    SigUsr2Guard& operator=(const SigUsr2Guard&) = delete;

    // Counts one more install; the first one installs the handler, saving the disposition it
    // replaces. Returns false, counting nothing, when sigaction fails.
    [[nodiscard]] bool install();

    // Counts one install less; the one that brings the count from 1 to 0 restores the saved
    // disposition, and on failure returns false and keeps the count at 1. Any other count is
    // simply decremented and true returned, without touching the disposition; an uninstall
    // without an install wraps the count to its largest value, as callers have always seen it.
    [[nodiscard]] bool uninstall();

    // The current count of installs.
    uint32_t installCount() const;

  private:
    // Guarded by mutex_.
    uint32_t installCount_ = 0;
    struct sigaction previousAction_ {};
    struct sigaction action_ {};
    mutable NMutex mutex_;
};

// The guard interruptThreads installs through.
extern SigUsr2Guard sigUsr2Guard;

// Ends each thread of `threads`, in order, by sending it SIGUSR2 with the handler installed
// through sigUsr2Guard, and joins it. A thread whose pthread_kill fails is skipped and the
// others are still ended. Returns true only when the handler could be installed and every
// pthread_kill succeeded. Holds no lock while signalling and joining, so several callers may
// interrupt different threads at once.
//
// An empty vector installs and restores the handler, and returns true.
//
// WARNING: every thread must be joinable (started by createThread with a handle) and must not
// be joined or detached by anyone else; one that blocks SIGUSR2 is never ended and the call
// waits for it forever. An ended thread's exit hook does not run. What createThread made for it
// is released as it ends; what its body held is released only by destructors that run as
// pthread_exit unwinds the thread's stack, and a catch (...) on that stack that does not
// rethrow ends the process.
[[nodiscard]] bool interruptThreads(const std::vector<pthread_t>& threads);

}  // namespace dangerous
}  // namespace nuvra::tiny

#endif  // NUVRA_TINY_THREAD_H_
