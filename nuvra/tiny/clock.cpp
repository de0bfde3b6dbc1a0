// SPDX-License-Identifier: Apache-2.0
#include "nuvra/tiny/clock.h"

#include <strings.h>
#include <sys/time.h>
#include <sys/times.h>
#include <unistd.h>

#include <cerrno>

#include "nuvra/tiny/internal/clock_seam.h"
#include "nuvra/tiny/mutex.h"

namespace nuvra::tiny {
namespace {

// Serialises every tick-clock reading. A namespace-scope object, so that it exists before
// main and before any thread.
NMutex tickClockMutex;

// Guarded by tickClockMutex.
uint64_t previousTickMs = 0;
uint64_t tickOffsetMs = 0;
// Added to the offset when a reading goes backwards: 0, so a wrap of the kernel's count is
// not compensated. Kept; callers have always measured this way.
constexpr uint64_t kTickWrapStepMs = 0;
internal::TickSource tickSource = nullptr;

std::clock_t readTicks() {
    if (tickSource != nullptr) {
        return tickSource();
    }
    tms unused{};
    return times(&unused);
}

const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr uint32_t kMonthCount = sizeof(kMonths) / sizeof(kMonths[0]);
constexpr uint32_t kDayCount = sizeof(kDays) / sizeof(kDays[0]);

// -1, 0 or 1 as a is below, equal to or above b.
int compare(int a, int b) { return (a > b) - (a < b); }

}  // namespace

// Not joined to the enclosing namespace: the attribute cannot go on a joined name.
namespace [[gnu::visibility("hidden")]] internal {  // NOLINT(modernize-concat-nested-namespaces)

void setTickSourceForTesting(TickSource source) {
    NMutexLock lock(tickClockMutex);
    tickSource = source;
}

uint64_t tickRate() {
    static const uint64_t rate = [] {
        const long perSecond = sysconf(_SC_CLK_TCK);
        // Linux always answers; 100 is its rate wherever it might not.
        return perSecond > 0 ? static_cast<uint64_t>(perSecond) : uint64_t{100};
    }();
    return rate;
}

uint32_t roundToMs(const timeval& time) {
    const auto microseconds = static_cast<uint32_t>(time.tv_usec);
    return static_cast<uint32_t>(time.tv_sec) * 1000u + microseconds / 1000u +
           (microseconds % 1000u >= 500u ? 1u : 0u);
}

int64_t roundToMs64(const timeval& time) {
    const auto microseconds = static_cast<int64_t>(time.tv_usec);
    return static_cast<int64_t>(time.tv_sec) * 1000 + microseconds / 1000 +
           (microseconds % 1000 >= 500 ? 1 : 0);
}

timespec sleepRequest(int32_t milliseconds) {
    timespec request{};
    request.tv_sec = milliseconds / 1000;
    request.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
    return request;
}

}  // namespace internal

uint32_t currentTimeMs() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return internal::roundToMs(now);
}

int64_t currentTimeMs64() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return internal::roundToMs64(now);
}

uint64_t tickClockMs() {
    NMutexLock lock(tickClockMutex);
    const uint64_t rate = internal::tickRate();
    // The count is taken as 32 bits wide on every target, sign included.
    const auto ticks = static_cast<int64_t>(static_cast<int32_t>(readTicks()));
    const uint64_t nowMs = static_cast<uint64_t>(ticks * 1000) / rate;
    if (nowMs < previousTickMs) {
        tickOffsetMs += kTickWrapStepMs;
    }
    previousTickMs = nowMs;
    return nowMs + tickOffsetMs;
}

void sleepMs(int32_t milliseconds, bool resume) {
    timespec request = internal::sleepRequest(milliseconds);
    timespec remaining{};
    while (nanosleep(&request, &remaining) == -1 && errno == EINTR && resume) {
        request = remaining;
    }
}

char* asctimeR(const std::tm* time, char* buffer) { return asctime_r(time, buffer); }

char* ctimeR(const std::time_t* time, char* buffer) { return ctime_r(time, buffer); }

std::tm* gmtimeR(const std::time_t* time, std::tm* result) { return gmtime_r(time, result); }

std::tm* localtimeR(const std::time_t* time, std::tm* result) { return localtime_r(time, result); }

std::tm* currentLocalTime(std::tm* result) {
    const std::time_t now = std::time(nullptr);
    return localtimeR(&now, result);
}

int32_t utcOffsetMinutes(std::time_t time) {
    std::tm utc{};
    std::tm local{};
    if (gmtimeR(&time, &utc) == nullptr || localtimeR(&time, &local) == nullptr) {
        return 0;
    }
    const int32_t minutes = (local.tm_hour - utc.tm_hour) * 60 + (local.tm_min - utc.tm_min);
    // Local and UTC time are at most a day apart: a different year or day of the year means
    // the local clock is a day ahead or behind.
    int dayShift = compare(local.tm_year, utc.tm_year);
    if (dayShift == 0) {
        dayShift = compare(local.tm_yday, utc.tm_yday);
    }
    return minutes + dayShift * 1440;
}

const char* monthAbbreviation(uint32_t index) {
    return index < kMonthCount ? kMonths[index] : kMonths[0];
}

const char* dayAbbreviation(uint32_t index) { return index < kDayCount ? kDays[index] : kDays[0]; }

uint32_t monthFromAbbreviation(const char* name) {
    if (name == nullptr) {
        return 0;
    }
    for (uint32_t index = 0; index < kMonthCount; ++index) {
        if (strcasecmp(kMonths[index], name) == 0) {
            return index;
        }
    }
    return 0;  // kept: an unknown month reads as January
}

IntervalTimer::IntervalTimer(int32_t intervalSeconds, uint32_t mode, bool startNow)
    : mode_(mode),
      interval_(intervalSeconds),
      schedule_(nullptr),
      scheduleIndex_(0),
      startMs_(0),
      mutex_(std::make_unique<NMutex>()) {
    if (startNow) {
        start();
    }
}

IntervalTimer::IntervalTimer(const uint32_t* schedule)
    : mode_(Schedule),
      interval_(schedule != nullptr ? static_cast<int32_t>(schedule[0]) : 0),
      schedule_(schedule),
      scheduleIndex_(0),
      startMs_(0),
      mutex_(std::make_unique<NMutex>()) {
    start();
}

IntervalTimer::~IntervalTimer() = default;

IntervalTimer& IntervalTimer::operator=(const IntervalTimer& other) {
    if (this == &other) {
        return *this;
    }
    NMutexLock lock(*mutex_);
    mode_ = other.mode_;
    interval_ = other.interval_;
    schedule_ = other.schedule_;
    scheduleIndex_ = other.scheduleIndex_;
    startMs_ = other.startMs_;
    return *this;
}

void IntervalTimer::start() {
    NMutexLock lock(*mutex_);
    startMs_ = tickClockMs();
    if (schedule_ != nullptr) {
        scheduleIndex_ = 0;
        interval_ = static_cast<int32_t>(schedule_[0]);
    }
}

void IntervalTimer::stop() {
    NMutexLock lock(*mutex_);
    startMs_ = 0;
}

void IntervalTimer::setInterval(int32_t seconds) {
    NMutexLock lock(*mutex_);
    interval_ = seconds;
}

uint32_t IntervalTimer::elapsedSeconds() const {
    return static_cast<uint32_t>((tickClockMs() - startMs_) / 1000);
}

int32_t IntervalTimer::remainingSeconds() {
    NMutexLock lock(*mutex_);
    return interval_ - static_cast<int32_t>(elapsedSeconds());
}

bool IntervalTimer::check(uint32_t* elapsedOut) {
    NMutexLock lock(*mutex_);
    if (startMs_ == 0) {
        if (elapsedOut != nullptr) {
            *elapsedOut = 0;
        }
        return false;
    }
    const uint32_t elapsed = elapsedSeconds();
    if (elapsedOut != nullptr) {
        *elapsedOut = elapsed;
    }
    if (static_cast<int32_t>(elapsed) < interval_) {
        if (mode_ == RestartOnCheck) {
            startMs_ = tickClockMs();
        }
        return false;
    }
    switch (mode_) {
        case Periodic:
            startMs_ += static_cast<uint64_t>(static_cast<int64_t>(interval_) * 1000);
            break;
        case Schedule:
            startMs_ = tickClockMs();
            // Never looks past the end mark, even when the list holds nothing else.
            if (schedule_ != nullptr && schedule_[scheduleIndex_] != kScheduleEnd &&
                schedule_[scheduleIndex_ + 1] != kScheduleEnd) {
                ++scheduleIndex_;
                interval_ = static_cast<int32_t>(schedule_[scheduleIndex_]);
            }
            break;
        default:  // Once, RestartOnCheck and every other value
            break;
    }
    return true;
}

}  // namespace nuvra::tiny
