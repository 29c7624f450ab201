#include "app/health/Trend.h"

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

namespace {

// Each reading: its value, when it was read (ms) and whether the run worked since the one before.
struct TrendCase {
    const char *name;
    std::vector<std::tuple<double, qint64, bool>> readings;
    double ahead;
};

class TrendTest : public testing::TestWithParam<TrendCase>
{
};

TEST_P(TrendTest, ForeseesTheValueAtTheNextReading)
{
    Trend trend(1000);
    for (const auto &[value, atMs, working] : GetParam().readings)
        trend.read(value, atMs, working);
    EXPECT_DOUBLE_EQ(trend.ahead(), GetParam().ahead);
}

INSTANTIATE_TEST_SUITE_P(Readings, TrendTest,
    testing::Values(TrendCase{"first", {{3, 0, true}}, 3}, TrendCase{"growing", {{1, 0, true}, {2.5, 1000, true}}, 4},
        // The next reading is as far off as the last one was, never nearer than the interval.
        TrendCase{"slowReadings", {{1, 0, true}, {3, 2000, true}}, 5},
        TrendCase{"quickReadings", {{1, 0, true}, {1.5, 500, true}}, 2.5},
        TrendCase{"falling", {{4, 0, true}, {2, 1000, true}}, 2},
        // While paused the run adds nothing: the growth is the one measured while it worked.
        TrendCase{"paused", {{1, 0, true}, {2, 1000, true}, {5, 2000, false}}, 6},
        TrendCase{"caughtUp", {{1, 0, true}, {2, 1000, true}, {0, 2000, false}}, 0}),
    [](const testing::TestParamInfo<TrendCase> &info) { return std::string(info.param.name); });

} // namespace
