#include "app/NormalizationPass.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

TEST(NormalizationPassTest, StatementsAreTheProductsTextsByteForByte)
{
    const QString instanceQuery = NormalizationPass::kInstanceQuery;
    EXPECT_EQ(instanceQuery.size(), 208);
    EXPECT_EQ(instanceQuery.simplified(),
        QStringLiteral("SELECT instance_id, last_request_id FROM warehouse.control_refresh ORDER BY instance_id;"));
    EXPECT_EQ(instanceQuery.indexOf(QStringLiteral("FROM")), 35 + 61);

    const QString update = NormalizationPass::kUpdateTemplate;
    EXPECT_EQ(update.size(), 407);
    const QString setClause = QStringLiteral("SET %1 = REGEXP_REPLACE(%1::TEXT, '(?<![") + QString(2, QLatin1Char('\\'))
        + QStringLiteral("]ud[89ab][0-9a-f]{2})[") + QString(2, QLatin1Char('\\'))
        + QStringLiteral("]+(?=ud[c-f][0-9a-f]{2})|[") + QString(2, QLatin1Char('\\'))
        + QStringLiteral("]+(?=ud[89ab][0-9a-f]{2}(?![") + QString(2, QLatin1Char('\\'))
        + QStringLiteral("]ud[c-f][0-9a-f]{2}))|[") + QString(2, QLatin1Char('\\'))
        + QStringLiteral("]+(?=u0000|x)', '") + QString(4, QLatin1Char('\\')) + QStringLiteral("', 'gi')");
    const QString blanks(57, QLatin1Char(' '));
    EXPECT_EQ(update,
        QStringLiteral("UPDATE scan.file") + blanks + setClause + blanks + QStringLiteral("WHERE request_id > %2")
            + blanks + QStringLiteral("AND instance_id = %3;"));
    EXPECT_EQ(NormalizationPass::kColumn, QStringLiteral("filetype_details"));
}
