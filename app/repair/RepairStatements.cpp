#include "app/repair/RepairStatements.h"

namespace {
// A high surrogate escape, in any case.
const QString kHigh = QStringLiteral(R"([\\][uU][dD][89abAB][0-9a-fA-F]{2})");

// True for every row whose text the expression changes, and far cheaper than its look-behind.
// Each alternative of the expression consumes a run of backslashes whose last one is followed
// (in any case: the "i" flag) by "u0000" or "x", by a high surrogate escape that no low one
// follows, or by a low one where no high escape precedes the run. In the last case the last
// backslash itself is not preceded by a high escape either: a longer run puts a backslash
// before it. So the row holds a backslash followed by "u0000" or "x", a high escape with the
// expression's own look-ahead, or a backslash not preceded by a high escape and followed by
// "ud" and c to f: this test's three alternatives. Its look-behind is tried only where a low
// escape begins, where the expression's runs wherever a backslash is; rows whose escapes are
// all valid pairs, common in file-type details, fail it. The expression decides the rest.
QString pretest(const QString &column)
{
    return QStringLiteral(R"(%1::TEXT ~ '[\\]([uU]0000|[xX])|%2(?![\\][uU][dD][c-fC-F][0-9a-fA-F]{2})|)"
                          R"([\\](?<!%2[\\])[uU][dD][c-fC-F]')")
        .arg(column, kHigh);
}

// The range of all listed instances at once: request_id above the row's own instance id is
// what each instance's "request_id > <id> AND instance_id = <id>" selects.
QString inRange(const QStringList &instanceIds)
{
    return QStringLiteral("instance_id IN (%1) AND request_id > instance_id").arg(instanceIds.join(QLatin1Char(',')));
}

// CASE fixes the order of evaluation (the planner may reorder the terms of an AND): the
// pre-test runs only on rows in range, the expression only on rows that pass it.
QString changes(const QString &column)
{
    return QStringLiteral("CASE WHEN %1 THEN %2::TEXT IS DISTINCT FROM %3 ELSE false END")
        .arg(pretest(column), column, RepairStatements::repaired(column));
}
} // namespace

// Each alternative matches only the run of backslashes in front of the offending escape
// (a lone low surrogate, a lone high surrogate, \u0000 or \x); the run becomes exactly
// one escaped backslash, so the escape turns into plain text. Valid pairs stay as they are.
// Built on each call: the product's UPDATE text is made from it during static initialisation.
QString RepairStatements::repaired(const QString &column)
{
    return QStringLiteral(R"(REGEXP_REPLACE(%1::TEXT, '(?<![\\]ud[89ab][0-9a-f]{2})[\\]+(?=ud[c-f][0-9a-f]{2})|)"
                          R"([\\]+(?=ud[89ab][0-9a-f]{2}(?![\\]ud[c-f][0-9a-f]{2}))|[\\]+(?=u0000|x)', '\\\\', 'gi'))")
        .arg(column);
}

QString RepairStatements::candidates(const QString &column, const QStringList &instanceIds)
{
    return QStringLiteral("SELECT instance_id, ctid FROM scan.file WHERE CASE WHEN %1 THEN %2 ELSE false END")
        .arg(inRange(instanceIds), changes(column));
}

QString RepairStatements::counts(const QString &column, const QStringList &instanceIds)
{
    return QStringLiteral("SELECT instance_id, count(*), count(*) FILTER (WHERE %1) FROM scan.file WHERE %2 "
                          "GROUP BY instance_id")
        .arg(changes(column), inRange(instanceIds));
}

// A ctid names one version of a row. A row updated since the candidates were read, before
// this statement or while it waits for the other writer's commit, has its new version under
// another ctid; the server checks the ctid again on the newest version, so such a row is left
// for the next run and never written from its older text. A ctid may also be taken by
// another row once vacuum has freed it, so the range and the pre-test are checked again and
// the new text is computed from the row found there. The read has already checked that each
// listed row's text changes; the pre-test stands in for that check here, since the
// expression itself would cost as much again as the write.
QString RepairStatements::targetedUpdate(const QString &column, const QString &instanceId, const QStringList &tids)
{
    return QStringLiteral("UPDATE scan.file SET %1 = %2 WHERE ctid = ANY ('{%3}'::tid[]) AND instance_id = %4 AND "
                          "request_id > %4 AND %5")
        .arg(column, repaired(column), QLatin1Char('"') + tids.join(QStringLiteral("\",\"")) + QLatin1Char('"'),
            instanceId, pretest(column));
}
