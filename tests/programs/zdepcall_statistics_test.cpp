#include "statistics.h"

#include <gtest/gtest.h>

#include <numeric>

namespace {

using zdepcall::summarize;
using zdepcall::Summary;

TEST(ZdepcallStatistics, OneCallIsItsOwnPercentiles) {
    const Summary summary = summarize({7}, 14);
    EXPECT_EQ(summary.calls, 1U);
    EXPECT_EQ(summary.p50, 7);
    EXPECT_EQ(summary.p99, 7);
    EXPECT_EQ(summary.max, 7);
}

TEST(ZdepcallStatistics, PercentilesAreTimesThatSoManyCallsDidNotExceed) {
    std::vector<double> times(200);
    std::iota(times.rbegin(), times.rend(), 1); // 200 down to 1
    const Summary summary = summarize(times, 1e6);
    EXPECT_EQ(summary.p50, 100);
    EXPECT_EQ(summary.p99, 198);
    EXPECT_EQ(summary.max, 200);
}

TEST(ZdepcallStatistics, RateIsCallsOverAllTheTimeThatPassed) {
    EXPECT_DOUBLE_EQ(summarize({1, 1, 1, 1}, 2e6).calls_per_second, 2);
    EXPECT_EQ(summarize({0}, 0).calls_per_second, 0);
}

} // namespace
