#include "app/journal/JournalCommands.h"

#include "app/journal/RunJournal.h"
#include "app/output/Reporter.h"

#include <QSqlError>
#include <QSqlQuery>

JournalCommands::JournalCommands(RunJournal &journal, const Reporter &reporter)
    : m_journal(journal)
    , m_reporter(reporter)
{ }

bool JournalCommands::refuse(const QString &line) const
{
    m_reporter.error(line);
    return false;
}

bool JournalCommands::listRuns(QSqlQuery &query) const
{
    if (!m_journal.exists(query)) {
        m_reporter.info(QStringLiteral("No journaled run in this database."));
        return true;
    }
    QVector<RunJournal::RunSummary> runs;
    if (!m_journal.listRuns(query, runs))
        return refuse(
            QStringLiteral("--runs cannot read the journal. %1").arg(query.lastError().databaseText().simplified()));
    for (const RunJournal::RunSummary &run : runs)
        m_reporter.info(
            QStringLiteral("Run %1: started %2, ended %3, %4, rows changed: %5, rows left: %6, rows restored: %7")
                .arg(run.id, run.started, run.ended, run.state, run.rowsChanged, run.rowsLeft, run.rowsRestored));
    return true;
}

bool JournalCommands::forget(QSqlQuery &query, int run) const
{
    if (!m_journal.exists(query))
        return refuse(
            QStringLiteral("There is no journaled run in this database (no schema %1).").arg(RunJournal::kSchema));
    bool found = false;
    qint64 dropped = 0;
    if (!m_journal.forget(query, run, found, dropped))
        return refuse(QStringLiteral("--forget cannot change run %1. %2")
                          .arg(run)
                          .arg(query.lastError().databaseText().simplified()));
    if (!found)
        return refuse(QStringLiteral("There is no journaled run %1 in this database; --runs lists them.").arg(run));
    m_reporter.info(QStringLiteral("Run %1 is forgotten: %2 original texts were dropped; it can no longer be undone.")
                        .arg(run)
                        .arg(dropped));
    return true;
}
