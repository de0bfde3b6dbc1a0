// SPDX-License-Identifier: Apache-2.0
// Record sizes and call numbers that nuvra's code depends on differ between i386 and x86-64: a
// cross build that quietly fell back to the host's ABI fails here, while compiling.

#include <net/if.h>
#include <pthread.h>
#include <sys/syscall.h>

#if defined(__i386__)
static_assert(SYS_gettid == 224 && sizeof(long) == 4, "i386: gettid is call 224, long 32 bits");
static_assert(sizeof(pthread_attr_t) == 36 && sizeof(ifreq) == 32, "i386 record sizes");
#elif defined(__x86_64__)
static_assert(SYS_gettid == 186 && sizeof(long) == 8, "x86-64: gettid is call 186, long 64 bits");
static_assert(sizeof(pthread_attr_t) == 56 && sizeof(ifreq) == 40, "x86-64 record sizes");
#else
#error "nuvra is built for i386 and x86-64 Linux"
#endif
