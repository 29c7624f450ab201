#include "app/repair/RangeCursor.h"

#include <gtest/gtest.h>

#include <tuple>
#include <utility>
#include <vector>

namespace {

// Few slots to a block, so that the ranges below read at a glance.
constexpr int kSlotsPerBlock = 10;

// Relation, first slot, end.
using Range = std::tuple<int, qint64, qint64>;

ScanTable tableOf(const std::vector<qint64> &blocks)
{
    QVector<ScanTable::Relation> relations;
    for (const qint64 count : blocks)
        relations.append({QStringLiteral("r%1").arg(relations.size()), count, QStringLiteral("1")});
    return ScanTable::ofRelations(kSlotsPerBlock, relations);
}

struct CursorCase {
    const char *name;
    // The blocks of each relation.
    std::vector<qint64> blocks;
    // Ranges done by an earlier run.
    std::vector<Range> done;
    // In slots, as the sizer has measured it.
    qint64 size;
    std::vector<Range> handedOut;
    // A range (by its place in handedOut) that held no row, said once this many were handed out.
    std::pair<int, int> heldNoRow = {-1, -1};
};

class RangeCursorTest : public testing::TestWithParam<CursorCase>
{
};

TEST_P(RangeCursorTest, HandsOutEveryRangeNotDoneOnceInOrder)
{
    ASSERT_TRUE(qEnvironmentVariableIsEmpty(UnitSizer::kBlocksVariable));
    const CursorCase &c = GetParam();
    const ScanTable table = tableOf(c.blocks);
    RangeCursor cursor(table);
    for (const auto &[relation, first, end] : c.done)
        cursor.skip(relation, {{first, end}});
    cursor.sizer().measured(c.size, UnitSizer::kTargetMs, 1);
    ASSERT_EQ(cursor.sizer().size(), c.size);
    std::vector<WorkUnit> units;
    std::vector<Range> handedOut;
    WorkUnit unit;
    // Bounded, for a cursor that never ends.
    while (handedOut.size() <= c.handedOut.size() && cursor.next(unit)) {
        units.push_back(unit);
        handedOut.emplace_back(unit.relation, unit.first, unit.end);
        if (int(units.size()) == c.heldNoRow.second)
            cursor.heldNoRow(units[c.heldNoRow.first]);
    }
    EXPECT_EQ(handedOut, c.handedOut);
    EXPECT_FALSE(cursor.next(unit)) << "the end stays the end";
}

INSTANTIATE_TEST_SUITE_P(Tables, RangeCursorTest,
    testing::Values(CursorCase{"RangesOfTheSizersSize", {3}, {}, 12, {{0, 0, 12}, {0, 12, 24}, {0, 24, 30}}},
        CursorCase{"RelationsInTurnNoRangeReachingIntoTheNext", {2, 1}, {}, 15, {{0, 0, 15}, {0, 15, 20}, {1, 0, 10}}},
        CursorCase{"ARelationWithoutBlocksIsPassedOver", {1, 0, 1}, {}, 10, {{0, 0, 10}, {2, 0, 10}}},
        CursorCase{"ARangeDoneEndsTheRangeBeforeIt", {3}, {{0, 12, 20}}, 10, {{0, 0, 10}, {0, 10, 12}, {0, 20, 30}}},
        CursorCase{"RangesDoneAtTheStartAndTheEnd", {3}, {{0, 0, 10}, {0, 25, 30}}, 10, {{0, 10, 20}, {0, 20, 25}}},
        CursorCase{"RangesDoneOfOneRelationOnly", {1, 1}, {{1, 0, 5}}, 10, {{0, 0, 10}, {1, 5, 10}}},
        // A block's row versions are numbered from its start: the rest of it most likely holds none either.
        CursorCase{"ARangeThatHeldNoRowTakesTheRestOfItsBlockOnce", {2}, {}, 3,
            {{0, 0, 3}, {0, 3, 10}, {0, 10, 13}, {0, 13, 16}, {0, 16, 19}, {0, 19, 20}}, {0, 1}},
        // Said by another connection after a further range was handed out.
        CursorCase{"SaidLateTheRestIsTakenByTheNextRangeInTheBlock", {2}, {}, 3,
            {{0, 0, 3}, {0, 3, 6}, {0, 6, 10}, {0, 10, 13}, {0, 13, 16}, {0, 16, 19}, {0, 19, 20}}, {0, 2}},
        CursorCase{"TheRestOfTheBlockStopsAtARangeDone", {2}, {{0, 5, 10}}, 3,
            {{0, 0, 3}, {0, 3, 5}, {0, 10, 13}, {0, 13, 16}, {0, 16, 19}, {0, 19, 20}}, {0, 1}},
        CursorCase{"OneEndingAtItsBlocksEndSaysNothingOfTheNext", {2}, {}, 5,
            {{0, 0, 5}, {0, 5, 10}, {0, 10, 15}, {0, 15, 20}}, {1, 2}},
        // Item 0 of a block never holds a row: a block of large rows must still be taken a row at a time.
        CursorCase{"OneThatReachedOnlyItemZeroSaysNothingOfTheRest", {2}, {{0, 0, 10}, {0, 13, 20}}, 1,
            {{0, 10, 11}, {0, 11, 12}, {0, 12, 13}}, {0, 1}},
        CursorCase{"OneOfARelationSaysNothingOfAnother", {1, 2}, {}, 7,
            {{0, 0, 7}, {0, 7, 10}, {1, 0, 7}, {1, 7, 14}, {1, 14, 20}}, {0, 2}}),
    [](const testing::TestParamInfo<CursorCase> &info) { return info.param.name; });

TEST(RangeCursorSlots, CountsEveryRelationsSlotsAndThoseOfTheRangesDone)
{
    const ScanTable table = tableOf({2, 3});
    RangeCursor cursor(table);
    EXPECT_EQ(cursor.totalSlots(), 50);
    EXPECT_EQ(cursor.skip(1, {{0, 10}, {20, 25}}), 15);
    WorkUnit unit;
    unit.relation = 1;
    unit.first = 12;
    unit.end = 30;
    EXPECT_EQ(cursor.text(unit), QStringLiteral("(1,2) to (3,0) of r1"));
}

} // namespace
