#include "nuvra/tiny/clock.h"

#include <pthread.h>
#include <sys/time.h>
#include <sys/times.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "nuvra/tiny/internal/clock_seam.h"

namespace nuvra::tiny {
namespace {

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

TEST_F(FakeTickClock, TicksAreSigned32BitsAndTheirWrapIsNotCompensated) {
    // In the order the kernel's count passes them.
    static const struct {
        std::clock_t ticks;
        uint64_t ms;
    } kCases[] = {
        {0, 0},
        {12345, 123450},
        {0x7FFFFFFF, 21474836470u},
        {static_cast<std::clock_t>(INT32_MIN), 184467419262259036u},
        {-1, 184467440737095506u},  // -1000 ms taken as unsigned, then divided
        {0, 0},
        {5, 50},
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

TEST(TickClock, FollowsTimes) {
    tms unused{};
    const auto before =
        static_cast<uint64_t>(static_cast<int32_t>(times(&unused))) * 1000 / internal::tickRate();
    const uint64_t reading = tickClockMs();
    EXPECT_GE(reading, before);
    EXPECT_LE(reading, before + 100);
}

TEST_F(FakeTickClock, EachModeActsOnExpiryAsDocumented) {
    static const uint32_t kSchedule[] = {1, 5, IntervalTimer::kScheduleEnd};
    struct Step {
        int advanceMs;
        bool expired;
        uint32_t elapsed;
    };
    const std::vector<Step> once = {{1900, false, 1}, {100, true, 2}, {5000, true, 7}};
    const struct {
        uint32_t mode;
        int32_t interval;
        std::vector<Step> steps;
    } kCases[] = {
        // Each missed period is reported by its own check.
        {IntervalTimer::Periodic,
         1,
         {{3500, true, 3}, {0, true, 2}, {0, true, 1}, {0, false, 0}, {500, true, 1}}},
        {IntervalTimer::Once, 2, once},
        {4, 2, once},
        {0xFFFFFFFF, 2, once},
        // A check before expiry restarts: expiry needs a full interval between two checks.
        {IntervalTimer::RestartOnCheck,
         2,
         {{1500, false, 1}, {1500, false, 1}, {2000, true, 2}, {0, true, 2}}},
        // Walks the list, then repeats its last interval.
        {IntervalTimer::Schedule,
         0,
         {{1000, true, 1}, {4900, false, 4}, {100, true, 5}, {4900, false, 4}, {100, true, 5}}},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.mode);
        auto timer = c.mode == IntervalTimer::Schedule
                         ? std::make_unique<IntervalTimer>(kSchedule)
                         : std::make_unique<IntervalTimer>(c.interval, c.mode, true);
        for (const Step& step : c.steps) {
            advanceMs(step.advanceMs);
            uint32_t elapsed = 99;
            EXPECT_EQ(timer->check(&elapsed), step.expired);
            EXPECT_EQ(elapsed, step.elapsed);
        }
    }
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

TEST_F(FakeTickClock, AssignmentCopiesTheScheduleStateAndStartRewindsTheSchedule) {
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
    source.start();
    EXPECT_EQ(source.remainingSeconds(), 1);
}

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
    const int64_t wide = currentTimeMs64();
    EXPECT_LT(currentTimeMs() - static_cast<uint32_t>(wide), 1000u);
    EXPECT_GT(wide, int64_t{1600000000000});  // after September 2020
}

int64_t msSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start)
        .count();
}

TEST(SleepMs, SleepsAtLeastTheTimeAskedSplitIntoTheRequest) {
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
    const auto start = std::chrono::steady_clock::now();
    sleepMs(50, false);
    EXPECT_GE(msSince(start), 50);
}

std::atomic<int> signalsHandled{0};
void countSignal(int /*signal*/) { signalsHandled.fetch_add(1); }

// Runs `sleep` on a new thread and sends it a handled SIGUSR1 (no SA_RESTART) every 2 ms until
// it returns. The sleeper is the newest thread and the signals come from the test's thread:
// under qemu-i386 threads share one TLS descriptor holding the newest thread's base, which a
// handler's return reloads, so an older thread handling a signal would run on with another
// thread's thread pointer.
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

// Restores TZ after each test; use() sets it.
class TimeZone : public ::testing::Test {
  protected:
    void SetUp() override {
        if (const char* zone = std::getenv("TZ")) {
            saved_ = zone;
        }
    }
    void TearDown() override {
        if (saved_) {
            setenv("TZ", saved_->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    static void use(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }
    std::optional<std::string> saved_;
};

constexpr std::time_t kNewYearsEve2023 = 1704065400;  // 2023-12-31 23:30:00 UTC, a Sunday

TEST_F(TimeZone, WrappersConvertAndFormat) {
    use("EET-2");
    std::tm utc{};
    std::tm local{};
    ASSERT_EQ(gmtimeR(&kNewYearsEve2023, &utc), &utc);
    ASSERT_EQ(localtimeR(&kNewYearsEve2023, &local), &local);
    char buffer[26];
    EXPECT_STREQ(asctimeR(&utc, buffer), "Sun Dec 31 23:30:00 2023\n");
    EXPECT_STREQ(asctimeR(&local, buffer), "Mon Jan  1 01:30:00 2024\n");
    EXPECT_STREQ(ctimeR(&kNewYearsEve2023, buffer), "Mon Jan  1 01:30:00 2024\n");

    if constexpr (sizeof(std::time_t) > 4) {
        const std::time_t tooLate = std::numeric_limits<std::time_t>::max();
        EXPECT_EQ(gmtimeR(&tooLate, &utc), nullptr);
        EXPECT_EQ(utcOffsetMinutes(tooLate), 0);
    }

    use("UTC0");
    const std::time_t before = std::time(nullptr);
    std::tm now{};
    ASSERT_EQ(currentLocalTime(&now), &now);
    const std::time_t read = timegm(&now);
    EXPECT_GE(read, before);
    EXPECT_LE(read, std::time(nullptr));
}

TEST_F(TimeZone, UtcOffsetMinutesAccountsForTheDateLineOfEachZone) {
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
        use(c.zone);
        EXPECT_EQ(utcOffsetMinutes(c.time), c.minutes);
    }
}

TEST(Abbreviations, NamesLookupIgnoringCaseAndFirstNameForAnythingElse) {
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    for (uint32_t i = 0; i < 12; ++i) {
        EXPECT_STREQ(monthAbbreviation(i), kMonths[i]);
        EXPECT_EQ(monthFromAbbreviation(kMonths[i]), i);
        EXPECT_STREQ(dayAbbreviation(i % 7), kDays[i % 7]);
    }
    for (const uint32_t outside : {12u, 0xFFFFFFFFu}) {
        EXPECT_STREQ(monthAbbreviation(outside), "Jan");
        EXPECT_STREQ(dayAbbreviation(outside - 5), "Sun");  // 7 and 0xFFFFFFFA
    }
    static const struct {
        const char* name;
        uint32_t index;
    } kLookups[] = {
        {"dec", 11}, {"DEC", 11}, {"mAy", 4},  {"Decem", 0}, {"De", 0},
        {"", 0},     {"Sun", 0},  {" Feb", 0}, {nullptr, 0},
    };
    for (const auto& c : kLookups) {
        SCOPED_TRACE(c.name != nullptr ? c.name : "(null)");
        EXPECT_EQ(monthFromAbbreviation(c.name), c.index);
    }
}

}  // namespace
}  // namespace nuvra::tiny
