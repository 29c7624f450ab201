#include "app/repair/RangeCursor.h"

#include <gtest/gtest.h>

#include <QString>

#include <vector>

namespace {

constexpr int kSlotsPerBlock = 291;

struct Range {
    qint64 first;
    qint64 end;
};

// The cursor over one relation of ten blocks, each range taken before the next is handed out.
class RangeCursorTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(qEnvironmentVariableIsEmpty(UnitSizer::kBlocksVariable));
        ASSERT_TRUE(qEnvironmentVariableIsEmpty(UnitSizer::kTargetVariable));
    }

    Range next()
    {
        WorkUnit unit;
        EXPECT_TRUE(m_cursor.next(unit));
        return {unit.first, unit.end};
    }
    static WorkUnit range(qint64 first, qint64 end)
    {
        WorkUnit unit;
        unit.kind = WorkUnit::Kind::Range;
        unit.first = first;
        unit.end = end;
        return unit;
    }

    const ScanTable m_table
        = ScanTable::ofRelations(kSlotsPerBlock, {{QStringLiteral("scan.file"), 10, QStringLiteral("1")}});
    RangeCursor m_cursor{m_table};
};

TEST_F(RangeCursorTest, ARangeThatHeldNoRowTakesTheRestOfItsBlockInTheNext)
{
    m_cursor.sizer().measured(UnitSizer::kFirstSlots, 1, 1);
    m_cursor.sizer().measured(2, UnitSizer::kTargetMs, 1);
    const Range first = next();
    ASSERT_EQ(first.end, 2);
    m_cursor.heldNoRow(range(first.first, first.end));
    EXPECT_EQ(next().end, kSlotsPerBlock);
}

// Item 0 of a block holds no row: a range that reached only that far into a block of large rows
// says nothing of the rest, which must still be taken a row at a time.
TEST_F(RangeCursorTest, ARangeThatReachedOnlyItemZeroOfABlockSaysNothingOfTheRest)
{
    m_cursor.skip(0, {{0, kSlotsPerBlock}});
    m_cursor.sizer().measured(1, UnitSizer::kTargetMs, 1);
    const Range itemZero = next();
    ASSERT_EQ(itemZero.first, kSlotsPerBlock);
    ASSERT_EQ(itemZero.end, kSlotsPerBlock + 1);
    m_cursor.heldNoRow(range(itemZero.first, itemZero.end));
    const Range after = next();
    EXPECT_EQ(after.first, kSlotsPerBlock + 1);
    EXPECT_EQ(after.end, kSlotsPerBlock + 2);
}

TEST_F(RangeCursorTest, RangesDoneBeforeAreSkippedAndNoneIsHandedOutTwice)
{
    EXPECT_EQ(m_cursor.skip(0, {{2 * kSlotsPerBlock, 5 * kSlotsPerBlock}}), 3 * kSlotsPerBlock);
    m_cursor.sizer().measured(4 * kSlotsPerBlock, 1, 100);
    std::vector<bool> taken(10 * kSlotsPerBlock, false);
    for (qint64 slot = 2 * kSlotsPerBlock; slot < 5 * kSlotsPerBlock; ++slot)
        taken[slot] = true;
    WorkUnit unit;
    while (m_cursor.next(unit)) {
        for (qint64 slot = unit.first; slot < unit.end; ++slot) {
            ASSERT_FALSE(taken[slot]) << "slot " << slot;
            taken[slot] = true;
        }
    }
    for (qint64 slot = 0; slot < qint64(taken.size()); ++slot)
        ASSERT_TRUE(taken[slot]) << "slot " << slot;
}

} // namespace
