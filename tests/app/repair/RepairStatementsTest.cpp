#include "app/repair/RepairStatements.h"

#include <gtest/gtest.h>

namespace {

struct ExclusionCase {
    const char *name;
    QVector<qint64> transactions;
    const char *expected;
};

class OwnTransactionsTest : public testing::TestWithParam<ExclusionCase>
{
};

// The closing read skips the run's own rows by the transactions that wrote them: each id named
// must be one of them, and a run of them costs one range however long.
TEST_P(OwnTransactionsTest, NamesEachOwnTransactionOnceAndRunsAsRanges)
{
    EXPECT_EQ(RepairStatements::notWrittenBy(GetParam().transactions).toStdString(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Exclusions, OwnTransactionsTest,
    testing::Values(ExclusionCase{"NoneNamesNothing", {}, "true"},
        ExclusionCase{"ARunIsOneRange", {12, 10, 11, 11}, "xmin::text::bigint NOT BETWEEN 10 AND 12"},
        ExclusionCase{
            "OthersBetweenThemAreNotSkipped", {10, 12, 14}, "xmin::text::bigint <> ALL ('{10,12,14}'::bigint[])"},
        ExclusionCase{"LongestRunsFirst", {3, 4, 8, 20, 21, 22},
            "xmin::text::bigint NOT BETWEEN 20 AND 22 AND xmin::text::bigint NOT BETWEEN 3 AND 4 AND "
            "xmin::text::bigint <> ALL ('{8}'::bigint[])"}),
    [](const testing::TestParamInfo<ExclusionCase> &info) { return info.param.name; });

TEST(OwnTransactionsBound, RunsPastTheBoundAreNamedOneByOneAndTheStatementStaysSmall)
{
    QVector<qint64> transactions;
    for (qint64 run = 0; run < 2 * RepairStatements::kMostOwnRuns + 3 * RepairStatements::kMostOwnSingles; ++run)
        transactions << 10 * run << 10 * run + 1;
    const QString exclusion = RepairStatements::notWrittenBy(transactions);
    EXPECT_EQ(exclusion.count(QStringLiteral("NOT BETWEEN")), RepairStatements::kMostOwnRuns);
    EXPECT_EQ(exclusion.count(QLatin1Char(',')) + 1, RepairStatements::kMostOwnSingles);
    EXPECT_LT(exclusion.size(), 64 * 1024);
}

} // namespace
