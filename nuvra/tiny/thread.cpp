// SPDX-License-Identifier: Apache-2.0
#include "nuvra/tiny/thread.h"

#include <sched.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

#include "nuvra/tiny/internal/exception_contract.h"
#include "nuvra/tiny/internal/thread_seam.h"
#include "nuvra/tiny/tls.h"

namespace nuvra::tiny {
namespace {

// The smallest stack createThread asks for: what the C library accepts on every target.
constexpr size_t kMinimumStackSize = 16384;

// Constant-initialised, so that it is valid before any static initialiser runs.
internal::ThreadSystemCalls systemCalls{pthread_attr_setstacksize, pthread_create, pthread_kill,
                                        sigaction};

std::atomic<int32_t> liveStartRecords{0};

// Everything the new thread needs, handed over from the creating thread, which allocates it,
// to the new thread, which frees it.
struct ThreadStartRecord {
    ThreadStartRecord(ThreadFunction body, void* bodyArgument, std::string threadName,
                      const ThreadCallbacks::Ptr& registry)
        : function(body), argument(bodyArgument), name(std::move(threadName)), callbacks(registry) {
        liveStartRecords.fetch_add(1, std::memory_order_relaxed);
    }
    ~ThreadStartRecord() { liveStartRecords.fetch_sub(1, std::memory_order_relaxed); }

    ThreadStartRecord(const ThreadStartRecord&) = delete;
    ThreadStartRecord& operator=(const ThreadStartRecord&) = delete;

    ThreadFunction function;
    void* argument;
    std::string name;
    ThreadCallbacks::Ptr callbacks;
};

// Owns the calling thread's start record until the thread ends. A thread_local rather than a
// local of the start routine: the C library destroys thread_local objects also when the thread
// ends in pthread_exit, even where it could not unwind the body's frames.
thread_local std::unique_ptr<ThreadStartRecord> startRecordOwner;

// Not noexcept: pthread_exit unwinds through it, and a noexcept frame would end the process.
void* threadStartRoutine(void* argument) {
    auto* record = static_cast<ThreadStartRecord*>(argument);
    startRecordOwner.reset(record);
    const int32_t threadId = currentThreadId();
    // Read once: hooks set later belong to threads started later.
    ThreadCallbacks::StartHook onThreadStart = nullptr;
    ThreadCallbacks::ExitHook onThreadExit = nullptr;
    getThreadCallbacks(record->callbacks, onThreadStart, onThreadExit);
    if (onThreadStart != nullptr) {
        onThreadStart(threadId, &record->name);
    }
    record->function(record->argument);
    if (onThreadExit != nullptr) {
        onThreadExit(threadId);
    }
    startRecordOwner.reset();
    return nullptr;
}

}  // namespace

// Not joined to the enclosing namespace: the attribute cannot go on a joined name.
namespace [[gnu::visibility("hidden")]] internal {  // NOLINT(modernize-concat-nested-namespaces)

int32_t liveThreadStartRecords() { return liveStartRecords.load(std::memory_order_relaxed); }

pthread_attr_t* newThreadAttributes(uint32_t stackSize) {
    auto* attributes = static_cast<pthread_attr_t*>(std::malloc(sizeof(pthread_attr_t)));
    if (attributes == nullptr) {
        return nullptr;
    }
    if (pthread_attr_init(attributes) != 0) {
        std::free(attributes);
        return nullptr;
    }
    if (systemCalls.setStackSize(attributes, std::max(size_t{stackSize}, kMinimumStackSize)) != 0) {
        deleteThreadAttributes(attributes);
        return nullptr;
    }
    return attributes;
}

void deleteThreadAttributes(pthread_attr_t* attributes) {
    if (attributes != nullptr) {
        pthread_attr_destroy(attributes);
        std::free(attributes);
    }
}

void sigUsr2Handler(int signalNumber) {
    if (signalNumber == SIGUSR2) {
        pthread_exit(nullptr);
    }
}

ThreadSystemCalls realThreadSystemCalls() {
    return {pthread_attr_setstacksize, pthread_create, pthread_kill, sigaction};
}

ThreadSystemCalls setThreadSystemCallsForTesting(const ThreadSystemCalls& calls) {
    return std::exchange(systemCalls, calls);
}

}  // namespace internal

const ThreadAttributes defaultThreadAttributes;

// Starts from the values of defaultThreadAttributes rather than from the object itself, which
// another file's static initialiser may reach before it is constructed.
ThreadAttributes::ThreadAttributes(const char* threadName)
    : name(threadName != nullptr ? threadName : "") {}

ThreadCallbacks::Ptr::Ptr(ThreadCallbacks* callbacks) : callbacks_(callbacks) {
    if (callbacks_ != nullptr) {
        callbacks_->refCount_.fetch_add(1, std::memory_order_relaxed);
    }
}

ThreadCallbacks::Ptr::Ptr(const Ptr& other) : Ptr(other.callbacks_) {}

ThreadCallbacks::Ptr& ThreadCallbacks::Ptr::operator=(const Ptr& other) {
    if (this != &other) {
        Ptr kept(other);
        reset();
        std::swap(callbacks_, kept.callbacks_);
    }
    return *this;
}

ThreadCallbacks::Ptr::~Ptr() { reset(); }

int32_t ThreadCallbacks::Ptr::useCount() const {
    return callbacks_ != nullptr ? callbacks_->refCount_.load(std::memory_order_relaxed) : 0;
}

void ThreadCallbacks::Ptr::reset() {
    // The value the decrement itself returns decides: two references dropped at once must
    // not both see the count at 0.
    if (callbacks_ != nullptr &&
        callbacks_->refCount_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        // The analyzer cannot follow the count and takes every reference for the last one.
        delete callbacks_;  // NOLINT(clang-analyzer-cplusplus.NewDelete)
    }
    callbacks_ = nullptr;
}

ThreadCallbacks::Ptr ThreadCallbacks::instance() {
    return internal::withExceptionContract<std::runtime_error, std::bad_alloc>([] {
        // This reference keeps the registry until exit; start records add their own.
        static const Ptr registry(new ThreadCallbacks());
        return registry;
    });
}

bool setThreadCallbacks(ThreadCallbacks::StartHook onThreadStart,
                        ThreadCallbacks::ExitHook onThreadExit) {
    if ((onThreadStart == nullptr) != (onThreadExit == nullptr)) {
        return false;
    }
    const ThreadCallbacks::Ptr registry = ThreadCallbacks::instance();
    if (!registry) {
        return false;  // only once exit has destroyed it
    }
    NMutexLock lock(registry->mutex_);
    registry->onThreadStart_ = onThreadStart;
    registry->onThreadExit_ = onThreadExit;
    return true;
}

void getThreadCallbacks(const ThreadCallbacks::Ptr& registry,
                        ThreadCallbacks::StartHook& onThreadStart,
                        ThreadCallbacks::ExitHook& onThreadExit) {
    if (!registry) {
        onThreadStart = nullptr;
        onThreadExit = nullptr;
        return;
    }
    NMutexLock lock(registry->mutex_);
    onThreadStart = registry->onThreadStart_;
    onThreadExit = registry->onThreadExit_;
}

bool createThread(ThreadFunction function, void* argument, pthread_t* handle,
                  const ThreadAttributes& attributes) {
    if (handle != nullptr) {
        *handle = pthread_t{};
    }
    const ThreadCallbacks::Ptr registry = ThreadCallbacks::instance();
    std::unique_ptr<ThreadStartRecord> record;
    try {
        record = std::make_unique<ThreadStartRecord>(function, argument, attributes.name, registry);
    } catch (const std::bad_alloc&) {
        return false;
    }

    // A thread that asked for its own stack size never runs on the default one instead.
    pthread_attr_t* threadAttributes = nullptr;
    if (attributes.stackSize != 0) {
        threadAttributes = internal::newThreadAttributes(attributes.stackSize);
        if (threadAttributes == nullptr) {
            return false;
        }
    }
    pthread_t created{};
    const int result =
        systemCalls.create(&created, threadAttributes, threadStartRoutine, record.get());
    internal::deleteThreadAttributes(threadAttributes);
    if (result != 0) {
        return false;
    }
    record.release();  // NOLINT(bugprone-unused-return-value): the new thread owns it now

    if (handle != nullptr) {
        *handle = created;
    } else {
        pthread_detach(created);
    }
    return true;
}

int joinThreadStatus(pthread_t handle) {
    if (handle == pthread_t{}) {
        return 0;
    }
    return pthread_join(handle, nullptr);
}

bool joinThread(pthread_t handle) { return joinThreadStatus(handle) == 0; }

int detachThread(const pthread_t* handle) { return pthread_detach(*handle); }

int setThreadPriority(int priority) {
    sched_param parameters{};
    parameters.sched_priority = priority;
    return pthread_setschedparam(pthread_self(), SCHED_OTHER, &parameters);
}

namespace dangerous {

SigUsr2Guard sigUsr2Guard;

SigUsr2Guard::SigUsr2Guard() {
    sigemptyset(&action_.sa_mask);
    action_.sa_handler = internal::sigUsr2Handler;
}

bool SigUsr2Guard::install() {
    NMutexLock lock(mutex_);
    if (installCount_ != 0) {
        ++installCount_;
        return true;
    }
    if (systemCalls.setAction(SIGUSR2, &action_, &previousAction_) != 0) {
        return false;
    }
    installCount_ = 1;
    return true;
}

bool SigUsr2Guard::uninstall() {
    NMutexLock lock(mutex_);
    if (installCount_ != 1) {
        --installCount_;  // from 0 too: wraps, as it always has
        return true;
    }
    if (systemCalls.setAction(SIGUSR2, &previousAction_, nullptr) != 0) {
        return false;
    }
    installCount_ = 0;
    return true;
}

uint32_t SigUsr2Guard::installCount() const {
    NMutexLock lock(mutex_);
    return installCount_;
}

bool interruptThreads(const std::vector<pthread_t>& threads) {
    if (!sigUsr2Guard.install()) {
        return false;
    }
    bool everyoneSignalled = true;
    for (const pthread_t thread : threads) {
        if (systemCalls.kill(thread, SIGUSR2) == 0) {
            pthread_join(thread, nullptr);
        } else {
            everyoneSignalled = false;
        }
    }
    // The result speaks of the signals only; a handler that cannot be restored stays installed.
    static_cast<void>(sigUsr2Guard.uninstall());
    return everyoneSignalled;
}

}  // namespace dangerous
}  // namespace nuvra::tiny
