#pragma once

#include <QString>
#include <QStringList>

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

    // Instance id and ctid of every row in the range of the given instances whose text the
    // repair changes.
    static QString candidates(const QString &column, const QStringList &instanceIds);
    // Instance id, rows in range and rows whose text the repair changes, per instance that
    // has rows in range.
    static QString counts(const QString &column, const QStringList &instanceIds);
    // Rewrites the listed rows of one instance that are still in its range and whose text
    // still changes. tids are ctids in their text form, "(block,offset)".
    static QString targetedUpdate(const QString &column, const QString &instanceId, const QStringList &tids);
    // Rewrites the rows to change in blocks [firstBlock, endBlock) of the table for all listed
    // instances; returns instance id and rows changed per instance that had any.
    static QString batch(const QString &column, const QStringList &instanceIds, qint64 firstBlock, qint64 endBlock);
};
