#include "app/repair/RepairStatements.h"

namespace {
// Escapes in any case, spelled out: the expressions below that use them run without the "i"
// flag.
const QString kHigh = QStringLiteral(R"([uU][dD][89abAB][0-9a-fA-F]{2})");
const QString kLow = QStringLiteral(R"([uU][dD][c-fC-F][0-9a-fA-F]{2})");

// The product's expression, read run by run: only a maximal run of backslashes followed by
// "u0000", "x", a high surrogate escape or a low one can change, and it becomes exactly two
// backslashes, except in front of a low escape that follows a high one ("\ud800" then the
// run), where a run of one stays and a longer one becomes three. A high escape counts as
// paired only when one backslash and a low escape follow it. So a row changes exactly when it
// holds such a run of the wrong length, which these alternatives say without a look-behind:
// the starting non-backslash (or the start) marks the run's beginning, and the six characters
// in front of a low escape's run are checked by consuming them (one alternative per way they
// can fail to be a high escape). Each check runs in time linear in the row's length. No
// look-ahead either: "a high escape not followed by a backslash and a low one" is spelled out
// character by character, which the server runs in two thirds of the time.
QString changesRow(const QString &column)
{
    const QString notLowAfter = QStringLiteral("($|[^\\\\]|[\\\\]($|[^uU]|[uU]($|[^dD]|[dD]($|[^c-fC-F]|"
                                               "[c-fC-F]($|[^0-9a-fA-F]|[0-9a-fA-F]($|[^0-9a-fA-F]))))))");
    const QString notAfterHigh = QStringLiteral("(^|[^\\\\0-9a-fA-F]|(^|[^0-9a-fA-F])[0-9a-fA-F]|"
                                                "(^|[^89abAB])[0-9a-fA-F]{2}|(^|[^dD])[89abAB][0-9a-fA-F]{2}|"
                                                "(^|[^uU])[dD][89abAB][0-9a-fA-F]{2}|(^|[^\\\\])%1)")
                                     .arg(kHigh);
    return QStringLiteral(R"(%1::TEXT ~ '(^|[^\\])([\\]|[\\]{3,})([uU]0000|[xX]|%2%5)|[\\]{4,}%3|)"
                          R"([\\]%2[\\]{2}%3|%4([\\]|[\\]{3})%3')")
        .arg(column, kHigh, kLow, notAfterHigh, notLowAfter);
}

// The range of all listed instances at once: request_id above the row's own instance id is
// what each instance's "request_id > <id> AND instance_id = <id>" selects.
QString inRange(const QStringList &instanceIds)
{
    return QStringLiteral("instance_id IN (%1) AND request_id > instance_id").arg(instanceIds.join(QLatin1Char(',')));
}

// CASE fixes the order of evaluation (the planner may reorder the terms of an AND): the test
// of the text runs only on rows in range.
QString changesInRange(const QString &column, const QStringList &instanceIds)
{
    return QStringLiteral("CASE WHEN %1 THEN %2 ELSE false END").arg(inRange(instanceIds), changesRow(column));
}

QString blockTid(qint64 block)
{
    return QStringLiteral("'(%1,0)'").arg(block);
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

// The same result as repaired(), run by run as changesRow() reads it, without the look-behind
// that the server tries from the start of the text at every backslash (a row's cost grew with
// the square of its length). A high escape with its runs on both sides is taken as one match,
// so the run behind it is never looked at on its own: paired, it is copied as it is (group
// 2); unpaired with a low escape after a run of two or more, both runs are rewritten (groups
// 3 to 5). Every other run becomes its last backslash twice (group 1). Groups of the
// alternatives that did not match are empty in the replacement.
QString RepairStatements::repairedLinear(const QString &column)
{
    return QStringLiteral(R"(REGEXP_REPLACE(%1::TEXT, '[\\]*([\\])(?=ud[89ab][0-9a-f]{2}(?![\\]+ud[c-f][0-9a-f]{2})|)"
                          R"(ud[c-f][0-9a-f]{2}|u0000|x)|([\\]+ud[89ab][0-9a-f]{2}[\\])(?=ud[c-f][0-9a-f]{2})|)"
                          R"([\\]*([\\])(ud[89ab][0-9a-f]{2})[\\]*([\\])[\\](?=ud[c-f][0-9a-f]{2})', )"
                          R"('\1\1\2\3\3\4\5\5\5', 'gi'))")
        .arg(column);
}

QString RepairStatements::candidates(const QString &column, const QStringList &instanceIds)
{
    return QStringLiteral("SELECT instance_id, ctid FROM scan.file WHERE %1").arg(changesInRange(column, instanceIds));
}

QString RepairStatements::counts(const QString &column, const QStringList &instanceIds)
{
    return QStringLiteral("SELECT instance_id, count(*), count(*) FILTER (WHERE %1) FROM scan.file WHERE %2 "
                          "GROUP BY instance_id")
        .arg(changesRow(column), inRange(instanceIds));
}

// A ctid names one version of a row. A row updated since the candidates were read, before
// this statement or while it waits for the other writer's commit, has its new version under
// another ctid; the server checks the ctid again on the newest version, so such a row is left
// for the next run and never written from its older text. A ctid may also be taken by
// another row once vacuum has freed it, so the range and the test of the text are checked
// again and the new text is computed from the row found there.
QString RepairStatements::targetedUpdate(const QString &column, const QString &instanceId, const QStringList &tids)
{
    return QStringLiteral("UPDATE scan.file SET %1 = %2 WHERE ctid = ANY ('{%3}'::tid[]) AND instance_id = %4 AND "
                          "request_id > %4 AND %5")
        .arg(column, repairedLinear(column), QLatin1Char('"') + tids.join(QStringLiteral("\",\"")) + QLatin1Char('"'),
            instanceId, changesRow(column));
}

// A row that another writer updates while this statement waits for it is checked again on
// its newest version (the block range is not: the range only chose where to look), so it
// is written from its new text or not at all. A row this pass has rewritten no longer
// changes, so a later batch that meets its new version leaves it.
QString RepairStatements::batch(
    const QString &column, const QStringList &instanceIds, qint64 firstBlock, qint64 endBlock)
{
    return QStringLiteral("WITH changed AS (UPDATE scan.file SET %1 = %2 WHERE ctid >= %3 AND ctid < %4 AND %5 "
                          "RETURNING instance_id) SELECT instance_id, count(*) FROM changed GROUP BY instance_id")
        .arg(column, repairedLinear(column), blockTid(firstBlock), blockTid(endBlock),
            changesInRange(column, instanceIds));
}
