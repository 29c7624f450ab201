#include "app/repair/UnitSizer.h"

#include <gtest/gtest.h>

#include <QByteArray>

#include <vector>

namespace {

constexpr int kSlotsPerBlock = 291;
constexpr qint64 kTarget = UnitSizer::kTargetMs;
constexpr qint64 kBound = UnitSizer::kMostBlocks * kSlotsPerBlock;

struct Measure {
    qint64 slotCount;
    qint64 ms;
    qint64 rowsRead;
};
// A range that failed: it measured nothing.
constexpr Measure kFailed{-1, 0, 0};

struct SizerCase {
    const char *name;
    std::vector<Measure> measures;
    qint64 size;
};

class UnitSizerTest : public testing::TestWithParam<SizerCase>
{
};

TEST_P(UnitSizerTest, SizesTheNextRangeFromWhatTheLastOnesTook)
{
    ASSERT_TRUE(qEnvironmentVariableIsEmpty(UnitSizer::kBlocksVariable));
    ASSERT_TRUE(qEnvironmentVariableIsEmpty(UnitSizer::kTargetVariable));
    UnitSizer sizer(kSlotsPerBlock);
    for (const Measure &measure : GetParam().measures) {
        if (measure.slotCount == kFailed.slotCount)
            sizer.failed();
        else
            sizer.measured(measure.slotCount, measure.ms, measure.rowsRead);
    }
    EXPECT_EQ(sizer.size(), GetParam().size);
}

INSTANTIATE_TEST_SUITE_P(Ranges, UnitSizerTest,
    testing::Values(SizerCase{"FirstAreAFewRows", {}, UnitSizer::kFirstSlots},
        SizerCase{"RangesThatHeldNoRowMeasureNothing", {{UnitSizer::kFirstSlots, 1, 0}}, UnitSizer::kFirstSlots},
        // A block of 120 rows of 400 KB, each taking 20 ms: the first measure shrinks to five rows.
        SizerCase{"FirstFewLargeRowsShrinkAtOnce", {{UnitSizer::kFirstSlots, 16 * 20, 16}}, 5},
        SizerCase{"QuickOnesGrowTwofoldEach",
            {{kSlotsPerBlock, 1, 7}, {2 * kSlotsPerBlock, 1, 14}, {4 * kSlotsPerBlock, 1, 28}}, 8 * kSlotsPerBlock},
        SizerCase{"RowsNotCountedStillGrow", {{kSlotsPerBlock, 1, -1}}, 2 * kSlotsPerBlock},
        // The empty end of a block takes no time: growing from it, the next range would land on a
        // full block of large rows.
        SizerCase{
            "RangesThatHeldNoRowChangeNothing", {{kSlotsPerBlock, 1, 7}, {100, 0, 0}, {100, 0, 0}}, 2 * kSlotsPerBlock},
        // What every statement takes (a statement trigger, a long round trip) is no work a
        // smaller range saves: learnt from a range that held no row, it no longer shrinks them.
        SizerCase{"OverheadOfEveryStatementIsNotWork",
            {{kSlotsPerBlock, 5 * kTarget, 7}, {58, 5 * kTarget, 0}, {58, 5 * kTarget, 7}}, 116},
        SizerCase{"SlowOneShrinksAtOnceToFitTheTarget", {{200, 10 * kTarget, 50}}, 20},
        SizerCase{"NeverBelowOneSlot", {{2, 1000 * kTarget, 1}}, 1},
        SizerCase{"NeverOverTheBlockBound", {{kBound, 1, 1000}, {kBound, 1, 1000}}, kBound},
        SizerCase{"QuickOneGrowsTowardTheTargetNotPastIt", {{kSlotsPerBlock, 60, 7}}, (kSlotsPerBlock * kTarget) / 60},
        // A short range at the end of a relation says little about a longer one.
        SizerCase{"ShortRangeGrowsFromTheSizeNotFromItself", {{kSlotsPerBlock, 1, 7}, {10, 1, 3}}, 10 * kTarget},
        SizerCase{"OverheadIsTheLeastARangeWithoutRowsTook",
            {{100, 40, 0}, {100, 10, 0}, {100, 25, 0}, {kSlotsPerBlock, kTarget + 10, 7}}, kSlotsPerBlock},
        SizerCase{"RangeOfNoSlotsMeasuresNothing", {{0, 10 * kTarget, 1}}, UnitSizer::kFirstSlots},
        SizerCase{"FailedRangeEndsTheFirstFewRows", {kFailed}, (UnitSizer::kFirstBlocks * kSlotsPerBlock)},
        SizerCase{"FailedRangeKeepsTheSizeMeasured", {{kSlotsPerBlock, 1, 7}, kFailed}, 2 * kSlotsPerBlock}),
    [](const testing::TestParamInfo<SizerCase> &info) { return info.param.name; });

TEST(UnitSizerFixed, ForcedBlocksIgnoreWhatRangesTook)
{
    qputenv(UnitSizer::kBlocksVariable, "3");
    UnitSizer sizer(kSlotsPerBlock);
    qunsetenv(UnitSizer::kBlocksVariable);
    sizer.measured(3 * kSlotsPerBlock, 100 * kTarget, 10);
    EXPECT_EQ(sizer.size(), 3 * kSlotsPerBlock);
}

} // namespace
