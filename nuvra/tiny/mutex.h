// SPDX-License-Identifier: Apache-2.0
// nuvra::tiny::NMutex, the library's one lock: a recursive POSIX mutex behind a small virtual
// interface, and NMutexLock, its scoped guard.
//
// Only the constructor reports failure, by throwing std::runtime_error. Lock, unlock and
// destruction report nothing: a recursive mutex locked and unlocked by the same thread, as
// the library always does, has no failure a caller could act on.

#ifndef NUVRA_TINY_MUTEX_H_
#define NUVRA_TINY_MUTEX_H_

#include <pthread.h>

namespace nuvra::tiny {

// A recursive mutex: the thread that holds it may lock it again, and each lock needs its
// own unlock.
//
// acquire, enter, tryAcquire, tryEnter, relock and release form a second, generic locking
// interface. They call lock, tryLock and unlock through the virtual table, so a subclass
// that overrides the three primitives changes them too.
class NMutex {
  public:
    // Initialises the mutex with the process-wide recursive attributes.
    //
    // Throws std::runtime_error when pthread_mutex_init fails with ENOMEM ("Insufficient
    // memory exists to initialize the mutex."), EINVAL ("Wrong attributes for mutex.") or
    // EAGAIN ("System resources (other than memory) are unavailable."); any other failure
    // is ignored and the object is used as if it had succeeded. Only std::runtime_error and
    // std::bad_alloc may leave; any other exception ends the process.
    NMutex();
    virtual ~NMutex();

    NMutex(const NMutex&) = delete;
    NMutex& operator=(const NMutex&) = delete;

    virtual void lock();
    // False only when another thread holds the mutex (EBUSY); true when it was taken, and
    // also for any other error.
    [[nodiscard]] virtual bool tryLock();
    virtual void unlock();

    virtual void acquire();
    virtual void enter();
    [[nodiscard]] virtual bool tryAcquire();
    [[nodiscard]] virtual bool tryEnter();
    virtual void relock();
    virtual void release();

  private:
    pthread_mutex_t mutex_;
};

// Locks a mutex through enter() for the guard's scope and unlocks it through unlock(), when
// released early or else on destruction, never twice.
class NMutexLock {
  public:
    explicit NMutexLock(NMutex& mutex) : mutex_(&mutex) { mutex_->enter(); }
    ~NMutexLock() { release(); }

    NMutexLock(const NMutexLock&) = delete;
    NMutexLock& operator=(const NMutexLock&) = delete;

    // Unlocks now; later calls and the destructor do nothing.
    void release() {
        if (!released_) {
            released_ = true;
            mutex_->unlock();
        }
    }

  private:
    NMutex* mutex_;
    bool released_ = false;
};

}  // namespace nuvra::tiny

#endif  // NUVRA_TINY_MUTEX_H_
