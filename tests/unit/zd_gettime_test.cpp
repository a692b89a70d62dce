#include "common/zd_gettime.h"

#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "common/zd_gettime_core.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// Runs a test under another time zone. The zones are spelled out: no zone files are needed.
class InZone {
  public:
    explicit InZone(const char *zone) {
        const char *const old = getenv("TZ");
        had_ = old != nullptr;
        old_ = had_ ? old : "";
        setenv("TZ", zone, 1);
        tzset();
    }
    ~InZone() {
        if (had_)
            setenv("TZ", old_.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }
    InZone(const InZone &) = delete;
    InZone &operator=(const InZone &) = delete;

  private:
    bool had_;
    std::string old_;
};

std::string text_of(const tm &local) {
    char text[64];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

// Whether the cache agrees with the zone's rules at the instant.
testing::AssertionResult agrees(zd_minute_cache &cache, time_t instant) {
    tm expected;
    localtime_r(&instant, &expected);
    const std::string cached = text_of(*cache.at(instant));
    if (cached == text_of(expected))
        return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << "at " << instant << ": " << cached << ", not " << text_of(expected);
}

constexpr time_t kMarchChange = 1711846800;   // 2024-03-31 01:00:00 UTC, Central Europe
constexpr time_t kOctoberChange = 1729990800; // 2024-10-27 01:00:00 UTC, Central Europe
constexpr time_t kNewYear = 1735689600;       // 2025-01-01 00:00:00 UTC

const char *const kZones[] = {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3",
                              "LHST-10:30LHDT-11,M10.1.0,M4.1.0", "NST3:30NDT,M3.2.0,M11.1.0"};

TEST(MinuteCache, EverySecondAroundEveryTurnIsRight) {
    for (const char *zone : kZones) {
        const InZone in_zone(zone);
        zd_minute_cache cache;
        for (const time_t turn : {kMarchChange, kOctoberChange, kNewYear}) {
            for (time_t instant = turn - 4000; instant < turn + 4000; instant++)
                ASSERT_TRUE(agrees(cache, instant)) << zone;
        }
    }
}

TEST(MinuteCache, FirstSecondsOfTheEpochAreRight) {
    const InZone in_zone("UTC0");
    zd_minute_cache cache;
    for (time_t instant = 0; instant < 130; instant++)
        ASSERT_TRUE(agrees(cache, instant));
    ASSERT_TRUE(agrees(cache, -1));
}

TEST(MinuteCache, ClockThatJumpsBothWaysIsFollowed) {
    const InZone in_zone(kZones[1]);
    std::mt19937 random(1);
    std::uniform_int_distribution<int> near(-90, 90);
    zd_minute_cache cache;
    for (int i = 0; i < 20000; i++)
        ASSERT_TRUE(agrees(cache, kMarchChange + near(random)));
    std::uniform_int_distribution<time_t> far(0, 4102444800);
    for (int i = 0; i < 20000; i++)
        ASSERT_TRUE(agrees(cache, far(random)));
}

TEST(MinuteCache, ZoneIsAskedOnceAMinute) {
    zd_minute_cache cache;
    const InZone in_zone("UTC0");
    EXPECT_EQ(text_of(*cache.at(kNewYear + 10)), "2025-01-01 00:00:10");
    // Another zone from now on: what comes from the cache is still the old one's.
    const InZone in_other_zone("YYY-1");
    EXPECT_EQ(text_of(*cache.at(kNewYear + 59)), "2025-01-01 00:00:59");
    EXPECT_EQ(text_of(*cache.at(kNewYear)), "2025-01-01 00:00:00");
    EXPECT_EQ(text_of(*cache.at(kNewYear + 60)), "2025-01-01 01:01:00");
}

TEST(MinuteCache, EndOfAMinuteRollsOverIntoTheHour) {
    const InZone in_zone("UTC0");
    zd_minute_cache cache;
    EXPECT_EQ(text_of(*cache.at(kNewYear - 1)), "2024-12-31 23:59:59");
    EXPECT_EQ(text_of(*cache.at(kNewYear)), "2025-01-01 00:00:00");
}

TEST(ZdGetlocaltime, LiesBetweenTheClockBeforeAndAfter) {
    timeval before;
    timeval after;
    tm local = {};
    int usec = -1;
    gettimeofday(&before, nullptr);
    zd_getlocaltime(&local.tm_year, &local.tm_mon, &local.tm_mday, &local.tm_hour, &local.tm_min,
                    &local.tm_sec, &usec);
    gettimeofday(&after, nullptr);
    tm expected;
    localtime_r(&before.tv_sec, &expected);
    local.tm_year -= 1900;
    local.tm_mon -= 1;
    local.tm_isdst = expected.tm_isdst;
    const int64_t read = static_cast<int64_t>(mktime(&local)) * 1000000 + usec;
    EXPECT_GE(read, static_cast<int64_t>(before.tv_sec) * 1000000 + before.tv_usec);
    EXPECT_LE(read, static_cast<int64_t>(after.tv_sec) * 1000000 + after.tv_usec);
    EXPECT_GE(usec, 0);
    EXPECT_LT(usec, 1000000);
}

// Passes time only in sleep(), at a rate per sleep.
class ScriptedClock {
  public:
    explicit ScriptedClock(std::vector<double> ticks_per_usec)
        : rates_(std::move(ticks_per_usec)) {}
    zd_clock_reading read() const { return now_; }
    void sleep(uint64_t usec) {
        const double rate = rates_[pauses.size()];
        now_.ticks += static_cast<uint64_t>(static_cast<double>(usec) * rate + 0.5);
        now_.usec += usec;
        pauses.push_back(usec);
        if (pauses.size() == back_at)
            now_.usec -= 2 * usec;
    }
    std::vector<uint64_t> pauses;
    size_t back_at = 0; // after which sleep the wall clock is set back

  private:
    std::vector<double> rates_;
    zd_clock_reading now_ = {1000000000, 5000};
};

struct Measured {
    int scale = -1;
    double best = -1;
    std::string warning;
};

Measured measure(ScriptedClock &clock) {
    Measured measured;
    testing::internal::CaptureStderr();
    zd_measure_scale(clock, &measured.scale, &measured.best);
    measured.warning = testing::internal::GetCapturedStderr();
    return measured;
}

TEST(CounterScale, IsMeasuredFourTimesAndTheLastTwiceAsLong) {
    ScriptedClock clock({3, 3, 3, 3});
    const Measured measured = measure(clock);
    EXPECT_THAT(clock.pauses, ElementsAre(200000, 200000, 200000, 400000));
    EXPECT_EQ(measured.scale, 3);
    EXPECT_EQ(measured.best, 3.0);
    EXPECT_EQ(measured.warning, "");
}

TEST(CounterScale, LargestRatioIsKeptAndRounded) {
    ScriptedClock clock({2499.2, 2499.6, 2499.4, 2499.3});
    const Measured measured = measure(clock);
    EXPECT_EQ(measured.best, 2499.6);
    EXPECT_EQ(measured.scale, 2500);
}

TEST(CounterScale, MeasurementOverAClockSetBackIsIgnored) {
    ScriptedClock clock({10, 10, 10, 10});
    clock.back_at = 2;
    EXPECT_EQ(measure(clock).best, 10.0);
}

TEST(CounterScale, MissOfThreeInTenThousandIsReported) {
    ScriptedClock clock({10, 10, 10, 10.0075}); // 300 microseconds too many in a second
    EXPECT_EQ(measure(clock).warning,
              "Warning : The difference between the statistics time and the actual time exceeds "
              "0.03 %.\n"
              "  real: 1000000 (usec) -> calculated: 1000300 (usec) with T.S.F: 10\n");
}

TEST(CounterScale, SmallerMissIsNotReported) {
    ScriptedClock clock({10, 10, 10, 10.007475}); // 299 microseconds
    EXPECT_EQ(measure(clock).warning, "");
}

TEST(CounterScaleDeathTest, CounterThatStandsStillEndsTheProcess) {
    ScriptedClock clock({0, 0, 0, 0});
    int scale;
    double best;
    EXPECT_EXIT(zd_measure_scale(clock, &scale, &best), testing::ExitedWithCode(1),
                "^Error : fail to get cpu clock speed\n"
                "\\(1: 5000, 2: 5000, elapsed: 400000, T.S.F: 0\\)\n$");
}

TEST(CounterScale, OfThisMachineIsWrittenToBothGlobals) {
    zd_init_gettime();
    EXPECT_GE(zd_scale_factor, 1);
    EXPECT_EQ(zd_scale_factor, static_cast<int>(zd_scale_factor2 + 0.5));
}

} // namespace
