#include "nuvra/tiny/clock.h"

#include <pthread.h>
#include <sys/time.h>
#include <sys/times.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <thread>

#include "gtest/gtest.h"
#include "nuvra/tiny/internal/clock_seam.h"

namespace nuvra::tiny {
namespace {

// ---- Tick clock and timers over a fake tick count ----

std::clock_t fakeTicks = 0;
std::clock_t readFakeTicks() { return fakeTicks; }

class FakeTickClock : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(internal::tickRate(), 100u) << "the tables below assume Linux's USER_HZ";
        fakeTicks = 100000;  // 1000 s: a start of 0 would read as a stopped timer
        internal::setTickSourceForTesting(&readFakeTicks);
    }
    void TearDown() override { internal::setTickSourceForTesting(nullptr); }

    static void advanceMs(int ms) { fakeTicks += ms / 10; }
};

TEST_F(FakeTickClock, TicksAreTakenAsSigned32BitsAndScaled) {
    static const struct {
        std::clock_t ticks;
        uint64_t ms;
    } kCases[] = {
        {0, 0},
        {1, 10},
        {12345, 123450},
        {0x7FFFFFFF, 21474836470u},
        {-1, 184467440737095506u},  // -1000 ms taken as unsigned, then divided
        {static_cast<std::clock_t>(INT32_MIN), 184467419262259036u},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.ticks);
        fakeTicks = c.ticks;
        EXPECT_EQ(tickClockMs(), c.ms);
    }
    if constexpr (sizeof(std::clock_t) > 4) {
        fakeTicks = static_cast<std::clock_t>(0x100000005LL);  // only the low 32 bits count
        EXPECT_EQ(tickClockMs(), 50u);
    }
}

TEST_F(FakeTickClock, WrapOfTheTickCountIsNotCompensated) {
    fakeTicks = -1;
    EXPECT_GT(tickClockMs(), uint64_t{1} << 56);
    fakeTicks = 0;
    EXPECT_EQ(tickClockMs(), 0u);
    fakeTicks = 5;
    EXPECT_EQ(tickClockMs(), 50u);
}

TEST(TickClock, FollowsTimes) {
    tms unused{};
    const auto before =
        static_cast<uint64_t>(static_cast<int32_t>(times(&unused))) * 1000 / internal::tickRate();
    const uint64_t reading = tickClockMs();
    EXPECT_GE(reading, before);
    EXPECT_LE(reading, before + 100);
}

TEST_F(FakeTickClock, PeriodicTimerReportsEachMissedPeriodOnItsOwnCheck) {
    IntervalTimer timer(1, IntervalTimer::Periodic, true);
    advanceMs(3500);
    for (const uint32_t expected : {3u, 2u, 1u}) {
        uint32_t elapsed = 99;
        EXPECT_TRUE(timer.check(&elapsed));
        EXPECT_EQ(elapsed, expected);
    }
    EXPECT_FALSE(timer.check());
    advanceMs(500);
    EXPECT_TRUE(timer.check());
}

TEST_F(FakeTickClock, OnceAndUnknownModesKeepReportingExpiry) {
    for (const uint32_t mode : {uint32_t{IntervalTimer::Once}, 4u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(mode);
        IntervalTimer timer(2, mode, true);
        advanceMs(1900);
        EXPECT_FALSE(timer.check());
        advanceMs(100);
        EXPECT_TRUE(timer.check());
        advanceMs(5000);
        uint32_t elapsed = 0;
        EXPECT_TRUE(timer.check(&elapsed));
        EXPECT_EQ(elapsed, 7u);
    }
}

TEST_F(FakeTickClock, RestartOnCheckNeedsAFullIntervalBetweenChecks) {
    IntervalTimer timer(2, IntervalTimer::RestartOnCheck, true);
    advanceMs(1500);
    EXPECT_FALSE(timer.check());
    advanceMs(1500);  // 3 s since the start, but 1.5 s since the last check
    EXPECT_FALSE(timer.check());
    advanceMs(2000);
    EXPECT_TRUE(timer.check());
    EXPECT_TRUE(timer.check());  // expiry does not restart it
}

TEST_F(FakeTickClock, ScheduleWalksTheListThenRepeatsItsLastInterval) {
    static const uint32_t kSchedule[] = {1, 5, IntervalTimer::kScheduleEnd};
    IntervalTimer timer(kSchedule);
    EXPECT_EQ(timer.remainingSeconds(), 1);
    advanceMs(1000);
    EXPECT_TRUE(timer.check());
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        advanceMs(4900);
        EXPECT_FALSE(timer.check());
        advanceMs(100);
        EXPECT_TRUE(timer.check());
    }
    timer.start();  // back to the first entry
    EXPECT_EQ(timer.remainingSeconds(), 1);
}

TEST_F(FakeTickClock, StoppedTimerReportsNothing) {
    IntervalTimer started(1, IntervalTimer::Once, true);
    IntervalTimer neverStarted(1, IntervalTimer::Once, false);
    started.stop();
    advanceMs(5000);
    for (IntervalTimer* timer : {&started, &neverStarted}) {
        uint32_t elapsed = 99;
        EXPECT_FALSE(timer->check(&elapsed));
        EXPECT_EQ(elapsed, 0u);
    }
    started.start();
    EXPECT_EQ(started.elapsedSeconds(), 0u);
}

TEST_F(FakeTickClock, RemainingSecondsFollowsIntervalChangesAndGoesNegative) {
    IntervalTimer timer(10, IntervalTimer::Once, true);
    advanceMs(4000);
    EXPECT_EQ(timer.remainingSeconds(), 6);
    timer.setInterval(3);
    EXPECT_EQ(timer.remainingSeconds(), -1);
    EXPECT_TRUE(timer.check());
}

TEST_F(FakeTickClock, AssignmentCopiesTheStateButNotTheLock) {
    static const uint32_t kSchedule[] = {1, 5, IntervalTimer::kScheduleEnd};
    IntervalTimer source(kSchedule);
    advanceMs(1000);
    ASSERT_TRUE(source.check());  // now on the 5-second entry
    advanceMs(2000);
    IntervalTimer copy(100, IntervalTimer::Once, false);
    copy = source;
    EXPECT_EQ(copy.remainingSeconds(), 3);
    advanceMs(3000);
    EXPECT_TRUE(copy.check());
    advanceMs(4000);
    EXPECT_FALSE(copy.check());  // the copy moved on through the same list
    EXPECT_TRUE(source.check());
}

// ---- Wall clock ----

TEST(WallClock, RoundsToTheNearestMillisecond) {
    static const struct {
        int64_t seconds;
        int64_t microseconds;
        uint32_t ms32;
        int64_t ms64;
    } kCases[] = {
        {12, 999499, 12999, 12999},
        {12, 999500, 13000, 13000},
        {0, 499, 0, 0},
        {0, 500, 1, 1},
        {4294968, 0, 704, 4294968000},  // the 32-bit form wraps
        {1700000000, 123456, 3487918203u, 1700000000123},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::to_string(c.seconds) + "." + std::to_string(c.microseconds));
        timeval time{};
        time.tv_sec = static_cast<time_t>(c.seconds);
        time.tv_usec = static_cast<suseconds_t>(c.microseconds);
        EXPECT_EQ(internal::roundToMs(time), c.ms32);
        EXPECT_EQ(internal::roundToMs64(time), c.ms64);
    }
}

TEST(WallClock, ThirtyTwoBitFormIsTheLowPartOfTheSixtyFourBitForm) {
    const int64_t wide = currentTimeMs64();
    const uint32_t narrow = currentTimeMs();
    EXPECT_LT(narrow - static_cast<uint32_t>(wide), 1000u);
    EXPECT_GT(wide, int64_t{1600000000000});  // after September 2020
}

// ---- Sleeping ----

TEST(SleepMs, SplitsMillisecondsIntoTheRequest) {
    static const struct {
        int32_t ms;
        time_t seconds;
        long nanoseconds;
    } kCases[] = {{1500, 1, 500000000}, {999, 0, 999000000}, {2000, 2, 0}, {0, 0, 0}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.ms);
        const timespec request = internal::sleepRequest(c.ms);
        EXPECT_EQ(request.tv_sec, c.seconds);
        EXPECT_EQ(request.tv_nsec, c.nanoseconds);
    }
}

int64_t msSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start)
        .count();
}

TEST(SleepMs, SleepsAtLeastTheTimeAsked) {
    const auto start = std::chrono::steady_clock::now();
    sleepMs(50, false);
    EXPECT_GE(msSince(start), 50);
}

std::atomic<int> signalsHandled{0};
void countSignal(int /*signal*/) { signalsHandled.fetch_add(1); }

// Runs `sleep` on a new thread and interrupts that thread with a handled SIGUSR1 every 2 ms
// until it returns. The handler is installed without SA_RESTART, so each signal ends a pending
// nanosleep. The sleeper is the newest thread and the signals come from the test's own
// thread: under qemu-i386 user-mode emulation, threads share one TLS descriptor that holds the
// newest thread's base, and a handler's return reloads it, so a signal handled on an older
// thread would leave that thread running with another thread's thread pointer.
template <typename Sleep>
void sleepUnderSignals(Sleep sleep) {
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = &countSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR1, &action, &previous);
    std::atomic<bool> done{false};
    std::thread sleeper([&] {
        sleep();
        done = true;
    });
    while (!done) {
        pthread_kill(sleeper.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    sleeper.join();
    sigaction(SIGUSR1, &previous, nullptr);
}

TEST(SleepMs, SignalEndsTheSleepUnlessAskedToResume) {
    int64_t interrupted = 0;
    sleepUnderSignals([&] {
        const auto start = std::chrono::steady_clock::now();
        sleepMs(500, false);
        interrupted = msSince(start);
    });
    EXPECT_LT(interrupted, 250);

    int64_t resumed = 0;
    const int before = signalsHandled;
    sleepUnderSignals([&] {
        const auto start = std::chrono::steady_clock::now();
        sleepMs(100, true);
        resumed = msSince(start);
    });
    EXPECT_GE(resumed, 100);
    EXPECT_GT(signalsHandled - before, 0) << "the sleep was never interrupted";
}

// ---- Conversions and the UTC offset ----

// Sets TZ for one scope and restores the previous setting.
class ScopedTimeZone {
  public:
    explicit ScopedTimeZone(const char* zone) {
        if (const char* previous = std::getenv("TZ")) {
            previous_ = previous;
        }
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ScopedTimeZone() {
        if (previous_) {
            setenv("TZ", previous_->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

  private:
    std::optional<std::string> previous_;
};

constexpr std::time_t kNewYearsEve2023 = 1704065400;  // 2023-12-31 23:30:00 UTC, a Sunday

TEST(TimeConversion, WrappersConvertAndFormat) {
    ScopedTimeZone zone("EET-2");
    std::tm utc{};
    ASSERT_EQ(gmtimeR(&kNewYearsEve2023, &utc), &utc);
    EXPECT_EQ(utc.tm_year, 123);
    EXPECT_EQ(utc.tm_hour, 23);
    std::tm local{};
    ASSERT_EQ(localtimeR(&kNewYearsEve2023, &local), &local);
    EXPECT_EQ(local.tm_year, 124);
    EXPECT_EQ(local.tm_hour, 1);

    char buffer[26];
    EXPECT_STREQ(asctimeR(&utc, buffer), "Sun Dec 31 23:30:00 2023\n");
    EXPECT_STREQ(ctimeR(&kNewYearsEve2023, buffer), "Mon Jan  1 01:30:00 2024\n");

    if constexpr (sizeof(std::time_t) > 4) {
        const std::time_t tooLate = std::numeric_limits<std::time_t>::max();
        EXPECT_EQ(gmtimeR(&tooLate, &utc), nullptr);
        EXPECT_EQ(utcOffsetMinutes(tooLate), 0);
    }
}

TEST(TimeConversion, CurrentLocalTimeIsNow) {
    ScopedTimeZone zone("UTC0");
    const std::time_t before = std::time(nullptr);
    std::tm now{};
    ASSERT_EQ(currentLocalTime(&now), &now);
    const std::time_t read = timegm(&now);
    EXPECT_GE(read, before);
    EXPECT_LE(read, std::time(nullptr));
}

TEST(UtcOffsetMinutes, AccountsForTheDateLineOfEachZone) {
    static const struct {
        const char* zone;
        std::time_t time;
        int32_t minutes;
    } kCases[] = {
        {"UTC0", kNewYearsEve2023, 0},
        {"EET-2", kNewYearsEve2023, 120},  // local clock already in the next year
        {"XST+5", 1704074400, -300},       // 2024-01-01 02:00 UTC: local still 2023
        {"EET-2", 1718494200, 120},        // 2024-06-15 23:30 UTC: next day locally
        {"XST+5", 1718416800, -300},       // 2024-06-15 02:00 UTC: previous day locally
        {"IST-5:30", 1718452800, 330},     // 2024-06-15 12:00 UTC, same day
        {"LINT-14", 1718452800, 840},      // next day locally
        {"NZST-12NZDT,M9.5.0,M4.1.0/3", kNewYearsEve2023, 780},  // summer time
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.zone) + " at " + std::to_string(c.time));
        ScopedTimeZone zone(c.zone);
        EXPECT_EQ(utcOffsetMinutes(c.time), c.minutes);
    }
}

// ---- Month and day names ----

TEST(Abbreviations, IndicesOutOfRangeGiveTheFirstName) {
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    for (uint32_t i = 0; i < 12; ++i) {
        EXPECT_STREQ(monthAbbreviation(i), kMonths[i]);
        EXPECT_EQ(monthFromAbbreviation(kMonths[i]), i);
    }
    for (uint32_t i = 0; i < 7; ++i) {
        EXPECT_STREQ(dayAbbreviation(i), kDays[i]);
    }
    for (const uint32_t outside : {12u, 100u, 0xFFFFFFFFu}) {
        EXPECT_STREQ(monthAbbreviation(outside), "Jan");
    }
    for (const uint32_t outside : {7u, 100u, 0xFFFFFFFFu}) {
        EXPECT_STREQ(dayAbbreviation(outside), "Sun");
    }
}

TEST(Abbreviations, MonthLookupIgnoresCaseAndGivesZeroForNoMatch) {
    static const struct {
        const char* name;
        uint32_t index;
    } kCases[] = {
        {"dec", 11}, {"DEC", 11}, {"mAy", 4},  {"Decem", 0}, {"De", 0},
        {"", 0},     {"Sun", 0},  {" Feb", 0}, {nullptr, 0},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name != nullptr ? c.name : "(null)");
        EXPECT_EQ(monthFromAbbreviation(c.name), c.index);
    }
}

}  // namespace
}  // namespace nuvra::tiny
