// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/singleton_factory.h"

namespace nuvra::utils {

// Built on first use, behind the thread-safe guard of a function-local static.
tiny::NMutex& SingletonFactoryLock::mutex() {
    static tiny::NMutex lock;
    return lock;
}

tiny::NMutex* const SingletonFactoryLock::builtAtStartup_ = &SingletonFactoryLock::mutex();

}  // namespace nuvra::utils
