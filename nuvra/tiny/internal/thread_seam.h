// SPDX-License-Identifier: Apache-2.0
// Lets tests look inside nuvra/tiny/thread.h: the number of thread start records alive, the
// attribute object createThread builds for a stack size, the SIGUSR2 handler, and replacements
// for the system calls that tests cannot make fail on demand. Internal to nuvra: not part of the
// public interface.

#ifndef NUVRA_TINY_INTERNAL_THREAD_SEAM_H_
#define NUVRA_TINY_INTERNAL_THREAD_SEAM_H_

#include <pthread.h>

#include <csignal>
#include <cstddef>
#include <cstdint>

namespace nuvra::tiny {
namespace [[gnu::visibility("hidden")]] internal {

// Start records made by createThread and not yet released: each one lives from creation until
// its thread ends, however it ends.
int32_t liveThreadStartRecords();

// The attribute object createThread uses for a non-zero stack size: malloc'ed, initialised,
// with the size raised to at least 16384 bytes. Null, with nothing left allocated, when any
// step fails. Release with deleteThreadAttributes.
[[nodiscard]] pthread_attr_t* newThreadAttributes(uint32_t stackSize);
void deleteThreadAttributes(pthread_attr_t* attributes);

// The handler SigUsr2Guard installs: pthread_exit for SIGUSR2, nothing for any other signal.
void sigUsr2Handler(int signalNumber);

// The system calls of thread.cpp that a test may replace.
struct ThreadSystemCalls {
    int (*setStackSize)(pthread_attr_t*, size_t);
    int (*create)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    int (*kill)(pthread_t, int);
    int (*setAction)(int, const struct sigaction*, struct sigaction*);
};

// pthread_attr_setstacksize, pthread_create, pthread_kill and sigaction.
ThreadSystemCalls realThreadSystemCalls();

// Makes thread.cpp call `calls` from now on and returns the ones it called before. Not
// synchronised: call it only while no other thread creates threads or installs the guard.
ThreadSystemCalls setThreadSystemCallsForTesting(const ThreadSystemCalls& calls);

}  // namespace internal
}  // namespace nuvra::tiny

#endif  // NUVRA_TINY_INTERNAL_THREAD_SEAM_H_
