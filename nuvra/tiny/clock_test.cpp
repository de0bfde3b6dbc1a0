// SPDX-License-Identifier: Apache-2.0
#include "nuvra/tiny/clock.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <tuple>
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
        ASSERT_EQ(internal::tickRate(), 100u) << "the cases below assume Linux's USER_HZ";
        fakeTicks = 100000;  // 1000 s: a start of 0 would read as a stopped timer
        internal::setTickSourceForTesting(&readFakeTicks);
    }
    void TearDown() override { internal::setTickSourceForTesting(nullptr); }
    static void advanceMs(int ms) { fakeTicks += ms / 10; }
};

TEST_F(FakeTickClock, TicksAreSigned32BitsAndTheirWrapIsNotCompensated) {
    fakeTicks = -1;  // -1000 ms taken as unsigned, then divided
    EXPECT_EQ(tickClockMs(), 184467440737095506u);
    fakeTicks = 0;  // going back adds nothing
    EXPECT_EQ(tickClockMs(), 0u);
    fakeTicks = static_cast<std::clock_t>(0x100000005LL);  // only the low 32 bits count
    EXPECT_EQ(tickClockMs(), 50u);
}

TEST_F(FakeTickClock, PeriodicCatchesUpOneCheckAtATimeAndRestartOnCheckNeedsAQuietInterval) {
    const struct {
        uint32_t mode;
        int32_t interval;
        std::vector<std::tuple<int, bool, uint32_t>> steps;  // ms advanced, expired, elapsed
    } kCases[] = {
        // Periodic reports each missed period by its own check; RestartOnCheck restarts at every
        // check before expiry; any other mode expires for good.
        {IntervalTimer::Periodic, 1, {{3500, true, 3}, {0, true, 2}, {0, true, 1}, {0, false, 0}}},
        {IntervalTimer::RestartOnCheck, 2, {{1500, false, 1}, {1500, false, 1}, {2000, true, 2}}},
        {7, 1, {{1000, true, 1}, {0, true, 1}}},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.mode);
        IntervalTimer timer(c.interval, c.mode, true);
        for (const auto& [ms, expired, seconds] : c.steps) {
            advanceMs(ms);
            uint32_t elapsed = 99;
            EXPECT_EQ(timer.check(&elapsed), expired);
            EXPECT_EQ(elapsed, seconds);
        }
    }
}

TEST_F(FakeTickClock, ScheduleRepeatsItsLastIntervalUntilStartedAgainAndStopEndsIt) {
    static const uint32_t kSchedule[] = {1, 5, IntervalTimer::kScheduleEnd};
    IntervalTimer timer(100, IntervalTimer::Once, false);
    timer = IntervalTimer(kSchedule);  // assignment takes the schedule and its place in it
    advanceMs(1000);
    ASSERT_TRUE(timer.check());
    advanceMs(7000);
    EXPECT_EQ(timer.remainingSeconds(), -2);  // on the 5-second entry, overdue
    EXPECT_TRUE(timer.check());
    EXPECT_EQ(timer.remainingSeconds(), 5);  // the last entry repeats
    timer.start();
    EXPECT_EQ(timer.remainingSeconds(), 1);  // back to the first entry
    timer.stop();
    uint32_t elapsed = 99;
    EXPECT_TRUE(!timer.check(&elapsed) && elapsed == 0);
}

TEST(WallClock, RoundsToTheNearestMillisecondIn32And64Bits) {
    EXPECT_EQ(internal::roundToMs({12, 999499}), 12999u);
    EXPECT_EQ(internal::roundToMs({12, 999500}), 13000u);
    EXPECT_EQ(internal::roundToMs({4294968, 0}), 704u);  // wraps
    EXPECT_EQ(internal::roundToMs64({4294968, 999500}), 4294969000);
    const auto first = static_cast<uint32_t>(currentTimeMs64());  // read first: never ahead
    EXPECT_LT(currentTimeMs() - first, 1000u);
}

// How long sleepMs takes when a handled SIGALRM, which ends any nanosleep, comes after 10 ms.
int64_t sleepSignalledAfter10Ms(int32_t ms, bool resume) {
    static_cast<void>(std::signal(SIGALRM, [](int /*signal*/) {}));
    const itimerval once{{0, 0}, {0, 10000}};
    const auto start = std::chrono::steady_clock::now();
    setitimer(ITIMER_REAL, &once, nullptr);
    sleepMs(ms, resume);
    const auto took = std::chrono::steady_clock::now() - start;
    return std::chrono::duration_cast<std::chrono::milliseconds>(took).count();
}

TEST(SleepMs, SignalEndsTheSleepUnlessAskedToResume) {
    EXPECT_LT(sleepSignalledAfter10Ms(500, false), 250);
    EXPECT_GE(sleepSignalledAfter10Ms(100, true), 100);
}

int32_t offsetIn(const char* zone, std::time_t time) {
    setenv("TZ", zone, 1);
    tzset();
    return utcOffsetMinutes(time);
}

TEST(TimeZone, UtcOffsetMinutesAccountsForTheDateLineOfEachZone) {
    EXPECT_EQ(offsetIn("EET-2", 1704065400), 120);     // 2023-12-31 23:30 UTC: locally 2024
    EXPECT_EQ(offsetIn("XST+5", 1704074400), -300);    // 2024-01-01 02:00 UTC: locally 2023
    EXPECT_EQ(offsetIn("EET-2", 1718494200), 120);     // 2024-06-15 23:30 UTC: the next day
    EXPECT_EQ(offsetIn("IST-5:30", 1718452800), 330);  // 2024-06-15 12:00 UTC: the same day
    unsetenv("TZ");
    tzset();
}

TEST(Abbreviations, NamesLookupIgnoringCaseAndFirstNameForAnythingElse) {
    EXPECT_EQ(std::string(monthAbbreviation(11)) + dayAbbreviation(6) + monthAbbreviation(12) +
                  dayAbbreviation(7),
              "DecSatJanSun");
    EXPECT_EQ(monthFromAbbreviation("dEC"), 11u);
    EXPECT_EQ(monthFromAbbreviation("Decem") + monthFromAbbreviation(nullptr), 0u);  // January
}

}  // namespace
}  // namespace nuvra::tiny
