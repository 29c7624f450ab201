#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

// The statements of --changed-only, --batched and --dry-run. Each reads its rows once for all
// instances: a statement per instance would make the server scan the table per instance, and
// only a SELECT may use the server's parallel workers.
class RepairStatements
{
public:
    // The repair's expression over a column, exactly as the product's UPDATE applies it.
    static QString repaired(const QString &column);
    // The same result in time linear in the text's length, for the statements below.
    static QString repairedLinear(const QString &column);

    // The rows in the repair's range of the listed instances.
    static QString inRange(const QStringList &instanceIds);
    // A row version's text form, "(block,item)".
    static QString tid(qint64 block, int item);
    // The rows in [first, end) of row versions, or the listed ones.
    static QString tidRange(const QString &first, const QString &end);
    static QString tidList(const QStringList &tids);

    // Instance id, relation (the table or its leaf partition) and ctid of every row in the range
    // of the given instances whose text the repair changes.
    static QString candidates(const QString &column, const QStringList &instanceIds);
    // Instance id, rows in range and rows whose text the repair changes, per instance that
    // has rows in range.
    static QString counts(const QString &column, const QStringList &instanceIds);
    // Rewrites the rows to change of the relation that "where" selects, for all listed
    // instances; returns instance id and rows changed per instance that had any.
    static QString update(
        const QString &column, const QString &relation, const QStringList &instanceIds, const QString &where);
    static QString updateSkippingLocked(
        const QString &column, const QString &relation, const QStringList &instanceIds, const QString &where);
    // The update, its changes recorded by the given common table expressions, which read the CTE
    // "changed" (instance_id, version, key, written, original): written is the md5 of the text
    // written, key the keyArray given, original the text replaced.
    static QString journaledUpdate(const QString &column, const QString &relation, const QStringList &instanceIds,
        const QString &where, bool skipLocked, const QString &keyArray, const QString &records);
    // The counting statement given, with one more row: no instance, and the rows of relation
    // that where selects.
    static QString countingRead(const QString &counted, const QString &relation, const QString &where);
    static QString rowsToChange(
        const QString &column, const QString &relation, const QStringList &instanceIds, const QString &where);

    // Row versions written by a transaction that a snapshot whose xmin (a full transaction id) is
    // given could not see as finished: every row written since that snapshot was taken.
    static QString writtenSince(qint64 snapshotXmin);
    // Row versions not written by the given transactions (as xmin shows them): runs of
    // consecutive ids as ranges, the others in one array the server hashes. At most kMostOwnRuns
    // runs and kMostOwnSingles others are named, so that the statement stays small; the rows of the
    // rest are read like anyone's.
    static QString notWrittenBy(QVector<qint64> transactions);
    static constexpr int kMostOwnRuns = 32;
    static constexpr int kMostOwnSingles = 4096;
    // The blocks, in order, of the rows of relation within range (a condition on ctid the server
    // reads by) that which selects and the repair changes.
    static QString blocksToChange(const QString &column, const QString &relation, const QStringList &instanceIds,
        const QString &which, const QString &range);
    // The ctids of those rows.
    static QString rowVersionsToChange(const QString &column, const QString &relation, const QStringList &instanceIds,
        const QString &which, const QString &range);
    // The blocks from first on, to end or to the relation's end when end < 0.
    static QString blockRange(qint64 first, qint64 end);
};
