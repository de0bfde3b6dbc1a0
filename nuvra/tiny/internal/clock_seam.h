// SPDX-License-Identifier: Apache-2.0
// Lets tests drive the clocks of nuvra/tiny/clock.h: a replacement for the kernel's tick count
// behind tickClockMs (and so behind every IntervalTimer), and the pure arithmetic of the wall
// clocks and of sleepMs. Internal to nuvra: not part of the public interface.

#ifndef NUVRA_TINY_INTERNAL_CLOCK_SEAM_H_
#define NUVRA_TINY_INTERNAL_CLOCK_SEAM_H_

#include <sys/time.h>

#include <cstdint>
#include <ctime>

namespace nuvra::tiny {
namespace [[gnu::visibility("hidden")]] internal {

// Returns a tick count as times() would, in units of sysconf(_SC_CLK_TCK).
using TickSource = std::clock_t (*)();

// Makes tickClockMs read `source` instead of times(); null goes back to times(). Taken under
// the tick clock's lock. The reading goes through the same widening and scaling as times().
void setTickSourceForTesting(TickSource source);

// The ticks per second tickClockMs divides by.
uint64_t tickRate();

// currentTimeMs and currentTimeMs64 of a given gettimeofday reading.
uint32_t roundToMs(const timeval& time);
int64_t roundToMs64(const timeval& time);

// The request sleepMs hands to nanosleep.
timespec sleepRequest(int32_t milliseconds);

}  // namespace internal
}  // namespace nuvra::tiny

#endif  // NUVRA_TINY_INTERNAL_CLOCK_SEAM_H_
