// SPDX-License-Identifier: Apache-2.0
// How NMutex turns the result of pthread_mutex_init into an exception. Internal to nuvra:
// separate so that tests can check every mapping without making the system call fail.

#ifndef NUVRA_TINY_INTERNAL_MUTEX_INIT_H_
#define NUVRA_TINY_INTERNAL_MUTEX_INIT_H_

namespace nuvra::tiny {
namespace [[gnu::visibility("hidden")]] internal {

// Throws std::runtime_error with the library's text for ENOMEM, EINVAL and EAGAIN. Returns
// for 0 and, deliberately, for every other result: NMutex has always gone on as if such an
// initialisation had succeeded.
void throwIfMutexInitFailed(int result);

}  // namespace internal
}  // namespace nuvra::tiny

#endif  // NUVRA_TINY_INTERNAL_MUTEX_INIT_H_
