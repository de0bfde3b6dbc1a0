// SPDX-License-Identifier: Apache-2.0
#include "nuvra/tiny/mutex.h"

#include <cerrno>
#include <new>
#include <stdexcept>

#include "nuvra/tiny/internal/exception_contract.h"
#include "nuvra/tiny/internal/mutex_init.h"

namespace nuvra::tiny {
// Not joined to the enclosing namespace: the attribute cannot go on a joined name.
namespace [[gnu::visibility("hidden")]] internal {  // NOLINT(modernize-concat-nested-namespaces)

void throwIfMutexInitFailed(int result) {
    switch (result) {
        case ENOMEM:
            throw std::runtime_error("Insufficient memory exists to initialize the mutex.");
        case EINVAL:
            throw std::runtime_error("Wrong attributes for mutex.");
        case EAGAIN:
            throw std::runtime_error("System resources (other than memory) are unavailable.");
        default:
            return;
    }
}

}  // namespace internal

namespace {

// One attribute object serves every NMutex. It is never destroyed: mutexes that are
// themselves statics may be constructed and destroyed in any order around it.
const pthread_mutexattr_t* recursiveAttributes() {
    static const pthread_mutexattr_t* const attributes = [] {
        static pthread_mutexattr_t shared;
        pthread_mutexattr_init(&shared);
        pthread_mutexattr_settype(&shared, PTHREAD_MUTEX_RECURSIVE);
        return &shared;
    }();
    return attributes;
}

}  // namespace

NMutex::NMutex() : mutex_() {
    internal::withExceptionContract<std::runtime_error, std::bad_alloc>([this] {
        internal::throwIfMutexInitFailed(pthread_mutex_init(&mutex_, recursiveAttributes()));
    });
}

NMutex::~NMutex() { pthread_mutex_destroy(&mutex_); }

void NMutex::lock() { pthread_mutex_lock(&mutex_); }

bool NMutex::tryLock() { return pthread_mutex_trylock(&mutex_) != EBUSY; }

void NMutex::unlock() { pthread_mutex_unlock(&mutex_); }

void NMutex::acquire() { lock(); }

void NMutex::enter() { lock(); }

bool NMutex::tryAcquire() { return tryLock(); }

bool NMutex::tryEnter() { return tryLock(); }

void NMutex::relock() { lock(); }

void NMutex::release() { unlock(); }

}  // namespace nuvra::tiny
