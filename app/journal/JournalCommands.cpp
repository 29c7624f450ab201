#include "app/journal/JournalCommands.h"

#include "app/journal/RunJournal.h"
#include "app/output/Console.h"
#include "app/output/RunLog.h"
#include "app/repair/RepairStatements.h"

#include <QSqlError>
#include <QSqlQuery>
#include <QVariant>

namespace {
bool refuse(RunLog &log, const QString &line)
{
    Console::err(QStringLiteral("ERROR: ") + line);
    log.writeLine(RunLog::Error, line);
    return false;
}

void say(RunLog &log, const QString &line)
{
    Console::out(line);
    log.writeLine(RunLog::Info, line);
}
} // namespace

bool JournalCommands::listRuns(QSqlQuery &query, RunLog &log)
{
    if (!RunJournal::exists(query)) {
        say(log, QStringLiteral("No journaled run in this database."));
        return true;
    }
    // Nothing else works on the installation while this runs, so a run still marked running was
    // killed: it is as interrupted, and the next --journal run resumes it.
    const QString runs = QStringLiteral(
        "SELECT r.id, to_char(r.started, 'YYYY-MM-DD HH24:MI:SS'), coalesce(to_char(r.ended, 'YYYY-MM-DD "
        "HH24:MI:SS'), '-'), CASE r.state WHEN 'running' THEN 'interrupted' ELSE r.state END, "
        "coalesce(r.rows_changed, (SELECT count(*) FROM zentrix_normalizer.original o WHERE o.run = r.id)), (SELECT "
        "count(*) FROM zentrix_normalizer.left_row l WHERE l.run = r.id), coalesce(r.rows_restored, (SELECT count(*) "
        "FROM zentrix_normalizer.original o WHERE o.run = r.id AND o.restored)) FROM zentrix_normalizer.run r ORDER "
        "BY r.id");
    if (!query.exec(runs))
        return refuse(log,
            QStringLiteral("--runs cannot read the journal. %1").arg(query.lastError().databaseText().simplified()));
    while (query.next())
        say(log,
            QStringLiteral("Run %1: started %2, ended %3, %4, rows changed: %5, rows left: %6, rows restored: %7")
                .arg(query.value(0).toString(), query.value(1).toString(), query.value(2).toString(),
                    query.value(3).toString(), query.value(4).toString(), query.value(5).toString(),
                    query.value(6).toString()));
    return true;
}

// One statement: the counts are kept with the run before its records go.
bool JournalCommands::forget(QSqlQuery &query, RunLog &log, int run)
{
    if (!RunJournal::exists(query))
        return refuse(
            log, QStringLiteral("There is no journaled run in this database (no schema %1).").arg(RunJournal::kSchema));
    const QString forget = QStringLiteral(
        "WITH counts AS (SELECT count(*) AS changed, count(*) FILTER (WHERE restored) AS restored FROM "
        "zentrix_normalizer.original WHERE run = %1), marked AS (UPDATE zentrix_normalizer.run r SET state = %2, "
        "rows_changed = coalesce(r.rows_changed, counts.changed), rows_restored = coalesce(r.rows_restored, "
        "counts.restored) FROM counts WHERE r.id = %1 RETURNING r.id), dropped AS (DELETE FROM "
        "zentrix_normalizer.original WHERE run = %1 AND EXISTS (SELECT FROM marked) RETURNING 1) SELECT (SELECT "
        "count(*) FROM marked), (SELECT count(*) FROM dropped)");
    if (!query.exec(forget.arg(run).arg(RepairStatements::literal(RunJournal::kForgotten))) || !query.next())
        return refuse(log,
            QStringLiteral("--forget cannot change run %1. %2")
                .arg(run)
                .arg(query.lastError().databaseText().simplified()));
    if (query.value(0).toInt() == 0)
        return refuse(
            log, QStringLiteral("There is no journaled run %1 in this database; --runs lists them.").arg(run));
    say(log,
        QStringLiteral("Run %1 is forgotten: %2 original texts were dropped; it can no longer be undone.")
            .arg(run)
            .arg(query.value(1).toLongLong()));
    return true;
}
