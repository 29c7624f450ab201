#include "app/repair/RepairStatements.h"
#include "app/sql/SqlLiteral.h"

#include <algorithm>

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

} // namespace

// The range of all listed instances at once: each instance's "request_id > <id> AND
// instance_id = <id>". Ids are literals, each compared as the type of the column it meets, so
// that ids held as text, or as any other type, work as numbers do.
QString RepairStatements::inRange(const QStringList &instanceIds)
{
    QStringList literals;
    QString bounds;
    for (const QString &id : instanceIds) {
        literals << SqlLiteral::of(id);
        bounds += QStringLiteral(" WHEN %1 THEN request_id > %1").arg(SqlLiteral::of(id));
    }
    return QStringLiteral("instance_id IN (%1) AND CASE instance_id%2 ELSE false END")
        .arg(literals.join(QLatin1Char(',')), bounds);
}

namespace {

// CASE fixes the order of evaluation (the planner may reorder the terms of an AND): the test
// of the text runs only on rows in range.
QString changesInRange(const QString &column, const QStringList &instanceIds)
{
    return QStringLiteral("CASE WHEN %1 THEN %2 ELSE false END")
        .arg(RepairStatements::inRange(instanceIds), changesRow(column));
}

// Instance id, rows changed and the transaction that changed them (as a row's xmin shows it), per
// instance of the rows of the CTE "changed"; evaluated once the update has run, so that its
// transaction id is assigned.
const QString kChangedPerInstance
    = QStringLiteral("SELECT instance_id, count(*), pg_current_xact_id_if_assigned()::text::bigint % 4294967296 FROM "
                     "changed GROUP BY instance_id");

QString countedPerInstance(const QString &update)
{
    return QStringLiteral("WITH changed AS (%1 RETURNING instance_id) ").arg(update) + kChangedPerInstance;
}
} // namespace

QString RepairStatements::tid(qint64 block, int item)
{
    return QStringLiteral("(%1,%2)").arg(block).arg(item);
}

QString RepairStatements::tidRange(const QString &first, const QString &end)
{
    return QStringLiteral("ctid >= '%1' AND ctid < '%2'").arg(first, end);
}

QString RepairStatements::tidList(const QStringList &tids)
{
    return QStringLiteral("ctid = ANY ('{%1}'::tid[])")
        .arg(QLatin1Char('"') + tids.join(QStringLiteral("\",\"")) + QLatin1Char('"'));
}

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
    return QStringLiteral("SELECT instance_id, tableoid::regclass, ctid FROM scan.file WHERE %1")
        .arg(changesInRange(column, instanceIds));
}

QString RepairStatements::counts(const QString &column, const QStringList &instanceIds)
{
    return QStringLiteral("SELECT instance_id, count(*), count(*) FILTER (WHERE %1) FROM scan.file WHERE %2 "
                          "GROUP BY instance_id")
        .arg(changesRow(column), RepairStatements::inRange(instanceIds));
}

// A row that another writer updates while this statement waits for it is checked again on
// its newest version (the ctids only chose where to look), so it is written from its new text
// or not at all. A row this run has rewritten no longer changes, so a later statement that
// meets its new version leaves it. A ctid may also be taken by another row once vacuum has
// freed it, so the range and the test of the text are always checked again.
QString RepairStatements::update(
    const QString &column, const QString &relation, const QStringList &instanceIds, const QString &where)
{
    return countedPerInstance(
        QStringLiteral("UPDATE %1 SET %2 = %3 WHERE %4 AND %5")
            .arg(relation, column, repairedLinear(column), where, changesInRange(column, instanceIds)));
}

// The same, for a last try: rows another session holds locked are skipped rather than waited
// for, and the rows locked here cannot change before they are written.
QString RepairStatements::updateSkippingLocked(
    const QString &column, const QString &relation, const QStringList &instanceIds, const QString &where)
{
    return QStringLiteral("WITH target AS (SELECT ctid AS t FROM %1 WHERE %2 AND %3 FOR UPDATE SKIP LOCKED), "
                          "changed AS (UPDATE %1 f SET %4 = %5 FROM target WHERE f.ctid = target.t RETURNING "
                          "f.instance_id) ")
               .arg(relation, where, changesInRange(column, instanceIds), column, repairedLinear(column))
        + kChangedPerInstance;
}

// The rows are read with their text before the update joins them by row version: a row another
// writer updates meanwhile has a new version, which the join no longer finds, so no text is
// recorded as original that the update did not replace.
QString RepairStatements::journaledUpdate(const QString &column, const QString &relation,
    const QStringList &instanceIds, const QString &where, bool skipLocked, const QString &keyArray,
    const QString &records)
{
    return QStringLiteral("WITH target AS (SELECT ctid AS t, %1 AS original FROM %2 WHERE %3 AND %4%5), changed AS "
                          "(UPDATE %2 f SET %1 = %6 FROM target WHERE f.ctid = target.t RETURNING f.instance_id, "
                          "f.ctid AS version, %7 AS key, md5(f.%1::text) AS written, target.original), %8 ")
               .arg(column, relation, where, changesInRange(column, instanceIds),
                   skipLocked ? QStringLiteral(" FOR UPDATE SKIP LOCKED") : QString(), repairedLinear(column), keyArray,
                   records)
        + kChangedPerInstance;
}

// Adds to a statement counting rows changed per instance a row with no instance and the rows
// the range held as the statement began: what the time of a range is spent on, which its size
// in row versions does not say (the end of a block may hold none).
QString RepairStatements::countingRead(const QString &counted, const QString &relation, const QString &where)
{
    return QStringLiteral("%1 UNION ALL SELECT NULL, count(*), NULL FROM %2 WHERE %3").arg(counted, relation, where);
}

// ctid, instance id, and the server process holding the row locked (its transaction is the
// row's xmax), of the rows still to change among the given ones.
QString RepairStatements::rowsToChange(
    const QString &column, const QString &relation, const QStringList &instanceIds, const QString &where)
{
    return QStringLiteral("SELECT ctid, instance_id, (SELECT min(l.pid) FROM pg_locks l WHERE l.locktype = "
                          "'transactionid' AND l.transactionid = f.xmax AND l.granted AND l.pid <> "
                          "pg_backend_pid()) FROM %1 f WHERE %2 AND %3")
        .arg(relation, where, changesInRange(column, instanceIds));
}

namespace {
// Transaction ids are compared modulo 2^32 as the server does: a row's xmin at most 2^31 after the
// snapshot's xmin is newer. A frozen row keeps the xmin it was written with; one frozen long ago may
// read as newer, which only costs the test of its text. Ids below 3 are the bootstrap ones and the
// frozen id of clusters from before that, older than any snapshot.
constexpr qint64 kXidSpace = Q_INT64_C(4294967296);
constexpr qint64 kXidHalf = Q_INT64_C(2147483648);
constexpr int kFirstNormalXid = 3;
} // namespace

QString RepairStatements::writtenSince(qint64 snapshotXmin)
{
    return QStringLiteral("(xmin::text::bigint >= %1 AND (xmin::text::bigint - %2 + %3) % %3 < %4)")
        .arg(kFirstNormalXid)
        .arg(snapshotXmin % kXidSpace)
        .arg(kXidSpace)
        .arg(kXidHalf);
}

QString RepairStatements::notWrittenBy(QVector<qint64> transactions)
{
    std::sort(transactions.begin(), transactions.end());
    transactions.erase(std::unique(transactions.begin(), transactions.end()), transactions.end());
    QVector<QPair<qint64, qint64>> runs;
    for (const qint64 transaction : transactions) {
        if (!runs.isEmpty() && runs.last().second + 1 == transaction)
            runs.last().second = transaction;
        else
            runs.append({transaction, transaction});
    }
    std::stable_sort(
        runs.begin(), runs.end(), [](const auto &a, const auto &b) { return a.second - a.first > b.second - b.first; });
    QStringList terms;
    QStringList singles;
    for (const auto &run : runs) {
        if (run.second > run.first && terms.size() < kMostOwnRuns) {
            terms << QStringLiteral("xmin::text::bigint NOT BETWEEN %1 AND %2").arg(run.first).arg(run.second);
            continue;
        }
        for (qint64 transaction = run.first; transaction <= run.second && singles.size() < kMostOwnSingles;
             ++transaction)
            singles << QString::number(transaction);
    }
    if (!singles.isEmpty())
        terms << QStringLiteral("xmin::text::bigint <> ALL ('{%1}'::bigint[])").arg(singles.join(QLatin1Char(',')));
    return terms.isEmpty() ? QStringLiteral("true") : terms.join(QStringLiteral(" AND "));
}

// The cheap test of which comes first: the text is read only of the rows it selects.
QString RepairStatements::blocksToChange(const QString &column, const QString &relation, const QStringList &instanceIds,
    const QString &which, const QString &range)
{
    return QStringLiteral("SELECT DISTINCT (ctid::text::point)[0]::bigint FROM %1 WHERE %2 AND CASE WHEN %3 THEN %4 "
                          "ELSE false END ORDER BY 1")
        .arg(relation, range, which, changesInRange(column, instanceIds));
}

QString RepairStatements::rowVersionsToChange(const QString &column, const QString &relation,
    const QStringList &instanceIds, const QString &which, const QString &range)
{
    return QStringLiteral("SELECT ctid FROM %1 WHERE %2 AND CASE WHEN %3 THEN %4 ELSE false END")
        .arg(relation, range, which, changesInRange(column, instanceIds));
}

QString RepairStatements::blockRange(qint64 first, qint64 end)
{
    const QString from = QStringLiteral("ctid >= '(%1,0)'").arg(first);
    return end < 0 ? from : QStringLiteral("%1 AND ctid < '(%2,0)'").arg(from).arg(end);
}
