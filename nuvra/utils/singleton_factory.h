// SPDX-License-Identifier: Apache-2.0
// nuvra::utils::SingletonFactory: one process-wide instance of a type, created on first use
// and destroyed as its policy says; and DestroyAtExit, the policy that destroys it when the
// process exits.
//
// getInstance reports failure only by exception: std::bad_alloc when the instance cannot be
// allocated, or whatever the type's default constructor throws. The factory then holds no
// instance, and a later call tries again.
//
// Every factory shares one NMutex for creation and destruction (SingletonFactoryLock). It is
// built before main, during the library's static initialisation, and also on first use, so a
// static initialiser elsewhere that reaches a factory before the library's have run still
// finds the lock built. Because the lock is built before any instance is registered for
// destruction, it is destroyed at exit only after every instance.

#ifndef NUVRA_UTILS_SINGLETON_FACTORY_H_
#define NUVRA_UTILS_SINGLETON_FACTORY_H_

#include <atomic>
#include <cstdlib>

#include "nuvra/tiny/mutex.h"

namespace nuvra::utils {

template <typename T, typename Policy>
class SingletonFactory;

// The one lock of every SingletonFactory. Defined in the library rather than inline, so that
// the library and every program or shared object using it share one lock instead of each
// holding a copy of its own.
class SingletonFactoryLock {
  private:
    template <typename T, typename Policy>
    friend class SingletonFactory;

    static tiny::NMutex& mutex();
    // Set during static initialisation to the lock, so that it exists before main even when
    // no instance is asked for until later.
    static tiny::NMutex* const builtAtStartup_;
};

// Destruction policy: the instance lives until the process exits. The factory calls
// scheduleDestruction once for each instance it creates.
struct DestroyAtExit {
    // Registers `destroy` with std::atexit. Should registration fail, the instance simply
    // lives until the process ends.
    static void scheduleDestruction(void (*destroy)()) { static_cast<void>(std::atexit(destroy)); }
};

// Hands out one instance of T (default-constructed) to every caller in the process.
//
// Policy provides `static void scheduleDestruction(void (*destroy)())`, which arranges for
// `destroy` (internalDestroyInstance) to be called when the instance should go.
template <typename T, typename Policy = DestroyAtExit>
class SingletonFactory {
  public:
    SingletonFactory() = delete;

    // The instance, created on first use. Later calls return the same pointer without taking
    // the lock. Creation happens once even when threads race for it.
    //
    // Throws std::bad_alloc, or what T's constructor throws; nothing is created then.
    //
    // WARNING: the pointer dangles once internalDestroyInstance has run (at exit, under
    // DestroyAtExit). Nothing protects a thread still using the instance at that moment.
    static T* getInstance() {
        T* instance = instance_.load(std::memory_order_acquire);
        if (instance != nullptr) {
            return instance;
        }
        tiny::NMutexLock lock(SingletonFactoryLock::mutex());
        instance = instance_.load(std::memory_order_relaxed);
        if (instance == nullptr) {
            instance = new T();
            instance_.store(instance, std::memory_order_release);
            Policy::scheduleDestruction(&internalDestroyInstance);
        }
        return instance;
    }

    // Destroys the instance, if there is one; the next getInstance creates a new one (and
    // schedules its destruction again). Meant for the policy's exit hook and for tests.
    //
    // WARNING: every pointer getInstance returned before dangles afterwards.
    static void internalDestroyInstance() {
        tiny::NMutexLock lock(SingletonFactoryLock::mutex());
        delete instance_.exchange(nullptr, std::memory_order_acq_rel);
    }

  private:
    // Constant-initialised: usable before any static initialiser has run.
    inline static std::atomic<T*> instance_{nullptr};
};

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_SINGLETON_FACTORY_H_
