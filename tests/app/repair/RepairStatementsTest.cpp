#include "app/repair/RepairStatements.h"

#include <gtest/gtest.h>

namespace {

// The closing read skips the run's own rows by the transactions that wrote them: each id named
// must be one of them, and a run of them costs one range however long.
TEST(OwnTransactions, NamesEachOwnTransactionOnceAndRunsAsRanges)
{
    const struct {
        const char *name;
        QVector<qint64> transactions;
        const char *expected;
    } cases[] = {
        {"none names nothing", {}, "true"},
        {"a run is one range", {12, 10, 11, 11}, "xmin::text::bigint NOT BETWEEN 10 AND 12"},
        {"others between them are not skipped", {10, 12, 14}, "xmin::text::bigint <> ALL ('{10,12,14}'::bigint[])"},
        {"longest runs first", {3, 4, 8, 20, 21, 22},
            "xmin::text::bigint NOT BETWEEN 20 AND 22 AND xmin::text::bigint NOT BETWEEN 3 AND 4 AND "
            "xmin::text::bigint <> ALL ('{8}'::bigint[])"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(RepairStatements::notWrittenBy(c.transactions).toStdString(), c.expected) << c.name;
}

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
