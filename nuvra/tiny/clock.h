// SPDX-License-Identifier: Apache-2.0
// Time in nuvra::tiny: wall clocks in milliseconds, the process-wide tick clock against which
// elapsed time and time limits are measured, a millisecond sleep, thread-safe wrappers of the
// reentrant time conversions, the local offset from UTC, English month and day
// abbreviations, and IntervalTimer, a poll-driven timer with four expiry policies.
//
// Nothing here logs. The conversion wrappers report failure by a null result with errno as
// the C library set it; every other function has a defined answer for every input. Only the
// IntervalTimer constructors throw (std::runtime_error from its NMutex, std::bad_alloc).

#ifndef NUVRA_TINY_CLOCK_H_
#define NUVRA_TINY_CLOCK_H_

#include <cstdint>
#include <ctime>
#include <memory>

namespace nuvra::tiny {

class NMutex;

// Wall-clock time (gettimeofday) in milliseconds since the epoch, rounded to the nearest
// millisecond (500 microseconds and more round up). WARNING: computed in 32 bits, so it wraps
// about every 49.7 days; only differences of nearby readings are meaningful. Use
// currentTimeMs64 for an absolute time.
uint32_t currentTimeMs();

// The same reading as currentTimeMs, computed in 64 bits.
int64_t currentTimeMs64();

// Milliseconds on the process-wide tick clock, from times() and the kernel's tick rate. Not
// related to the wall clock: use it only for differences. All readings are serialised by one
// lock.
//
// WARNING: the kernel's tick count is taken as a signed 32-bit value. When it passes
// 2147483647 ticks the reading jumps to a huge value, and when it wraps to 0 the clock goes
// back to 0: such a wrap is not compensated (kept; the correction step has always been 0).
// WARNING: the lock is a namespace-scope object, so do not call this from another static's
// initialiser.
uint64_t tickClockMs();

// Sleeps for `milliseconds`. When a signal handler interrupts the sleep, it goes on sleeping
// for the remaining time if `resume` is true, and otherwise returns at once. A negative time
// returns at once.
void sleepMs(int32_t milliseconds, bool resume);

// asctime_r and ctime_r: write the 26-byte text (with its line feed) into `buffer`, which
// must hold at least 26 bytes. Return `buffer`, or null on failure.
[[nodiscard]] char* asctimeR(const std::tm* time, char* buffer);
[[nodiscard]] char* ctimeR(const std::time_t* time, char* buffer);

// gmtime_r and localtime_r: fill `result` and return it, or null when the time cannot be
// represented (e.g. its year overflows).
[[nodiscard]] std::tm* gmtimeR(const std::time_t* time, std::tm* result);
[[nodiscard]] std::tm* localtimeR(const std::time_t* time, std::tm* result);

// The current time (time()) as local time in `result`; returns `result`, or null on failure.
[[nodiscard]] std::tm* currentLocalTime(std::tm* result);

// Local time minus UTC at `time`, in minutes (120 for a zone two hours east of Greenwich,
// -300 for five hours west), following the TZ setting as tzset() last read it. 0 when either
// conversion fails.
[[nodiscard]] int32_t utcOffsetMinutes(std::time_t time);

// "Jan" to "Dec" for 0 to 11; "Jan" for any larger index. Never null.
const char* monthAbbreviation(uint32_t index);

// "Sun" to "Sat" for 0 to 6; "Sun" for any larger index. Never null.
const char* dayAbbreviation(uint32_t index);

// The index (0 to 11) of the month whose abbreviation equals `name` ignoring case. WARNING:
// 0 when nothing matches, the same answer as for "Jan" (kept; callers treat an unknown month
// as January). A null name also gives 0.
uint32_t monthFromAbbreviation(const char* name);

// A timer measured on tickClockMs in whole seconds. It does nothing on its own: the owner
// polls check(), and the mode decides what an expiry found by check() does to the timer:
//
//   Periodic        the start moves on by exactly one interval, so periods missed between
//                   two checks are reported by the following checks, one per check.
//   Once            nothing: every later check reports expiry again until start().
//   RestartOnCheck  a check that finds the interval not yet over restarts the timer, so
//                   expiry needs a gap of one interval between two checks.
//   Schedule        the timer restarts, and with a schedule the interval moves on to the next
//                   entry; at the end mark the last interval repeats.
//
// Any mode value other than these four behaves as Once.
//
// A timer whose start is 0 is stopped: check() reports elapsed 0 and no expiry.
// Every operation except elapsedSeconds() holds the timer's own lock.
class IntervalTimer {
  public:
    enum Mode : uint32_t {
        Periodic = 0,
        Once = 1,
        RestartOnCheck = 2,
        Schedule = 3,
    };

    // Ends a schedule list.
    static constexpr uint32_t kScheduleEnd = 0xFFFFFFFFu;

    // A timer of `intervalSeconds` in `mode` (a Mode, or any other value, which acts as
    // Once), started now when `startNow` is set. Throws std::runtime_error when its lock
    // cannot be made, or std::bad_alloc.
    IntervalTimer(int32_t intervalSeconds, uint32_t mode, bool startNow);

    // A Schedule timer that waits schedule[0] seconds, then schedule[1] and so on up to the
    // entry before kScheduleEnd, which then repeats; started now. Throws as the constructor
    // above. WARNING: the list is not copied and must outlive the timer (and any timer it is
    // assigned to). A null list makes a Schedule timer of 0 seconds; a list holding only the
    // end mark one of -1 seconds (expired at every check).
    explicit IntervalTimer(const uint32_t* schedule);

    ~IntervalTimer();

    IntervalTimer(const IntervalTimer&) = delete;

    // Copies mode, interval, schedule, schedule position and start from `other` under this
    // timer's lock; each timer keeps its own lock. WARNING: `other` is read without its lock.
    IntervalTimer& operator=(const IntervalTimer& other);

    // (Re)starts the timer now; with a schedule, from its first entry.
    void start();

    // Stops the timer until the next start().
    void stop();

    // Changes the interval; the start stays where it is.
    void setInterval(int32_t seconds);

    // Whole seconds since the start of the current interval. WARNING: reads the start without
    // the lock, and is meaningless for a stopped timer (it then counts from the tick clock's
    // origin).
    [[nodiscard]] uint32_t elapsedSeconds() const;

    // The interval minus elapsedSeconds(); negative once the timer is overdue.
    int32_t remainingSeconds();

    // True when at least the interval has passed since the start, after applying the mode's
    // action (see the class comment). Stores the elapsed seconds into `*elapsedOut` when it is
    // given (0 for a stopped timer, which never expires).
    bool check(uint32_t* elapsedOut = nullptr);

  private:
    uint32_t mode_;
    int32_t interval_;
    const uint32_t* schedule_;
    uint32_t scheduleIndex_;
    uint64_t startMs_;
    // The timer's lock, allocated on its own as it always has been; held by pointer, so
    // this header needs no more of NMutex than its name.
    const std::unique_ptr<NMutex> mutex_;
};

}  // namespace nuvra::tiny

#endif  // NUVRA_TINY_CLOCK_H_
