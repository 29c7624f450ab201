#pragma once

#include <QString>
#include <QStringList>

// The statements of --changed-only and --dry-run. They read the table once for all instances:
// a statement per instance would make the server scan the whole table per instance, and only
// a SELECT may use the server's parallel workers.
class RepairStatements
{
public:
    // The repair's expression over a column, exactly as the product's UPDATE applies it.
    static QString repaired(const QString &column);

    // Instance id and ctid of every row in the range of the given instances whose text the
    // repair changes.
    static QString candidates(const QString &column, const QStringList &instanceIds);
    // Instance id, rows in range and rows whose text the repair changes, per instance that
    // has rows in range.
    static QString counts(const QString &column, const QStringList &instanceIds);
    // Rewrites the listed rows of one instance that are still in its range and whose text
    // still changes. tids are ctids in their text form, "(block,offset)".
    static QString targetedUpdate(const QString &column, const QString &instanceId, const QStringList &tids);
};
