#pragma once

#include "app/repair/RepairStrategy.h"
#include "app/repair/ScanTable.h"
#include "app/repair/UnitSizer.h"

#include <QStringList>

#include <atomic>
#include <memory>
#include <mutex>

class Progress;
class Reporter;
class RunJournal;
class VerboseLog;
struct StrategyContext;

// --undo N: brings the rows journaled run N changed back to their original text, in committed
// units of its journal's records, and only where a row's text is still what run N wrote. Each
// restored record is marked in the statement that restores it, so a killed undo is finished by
// the next, and a second one changes nothing. A row whose text changed since is left and named;
// one whose other columns changed since is still found by its primary key.
class UndoRepair : public RepairStrategy
{
public:
    // run: the journaled run to take back, from the context's journal.
    // unitTargetMs: what a span of records should take (UnitSizer).
    UndoRepair(const StrategyContext &context, int run, qint64 unitTargetMs);

    bool prepare(QSqlQuery &query) override;
    bool nextUnit(WorkUnit &unit) override;
    Result run(QSqlQuery &query, const WorkUnit &unit) override;
    QString step(const WorkUnit &unit) const override;
    QVector<WorkUnit> split(QSqlQuery &query, const WorkUnit &unit) override;
    bool leave(QSqlQuery &query, const WorkUnit &unit, const ServerFailure &failure) override;
    bool mayWrite(QSqlQuery &query, const WorkUnit &unit) override;
    void conclude(QSqlQuery &query, bool interrupted) override;
    void report(bool interrupted) const override;

private:
    bool refuse(const QString &line);
    bool readRun(QSqlQuery &query);
    QString statement(const WorkUnit &unit) const;
    // The records of the unit that are still not restored: each a row left, named.
    void leaveUnrestored(QSqlQuery &query, const WorkUnit &unit, Result &result);
    // What names the rows of the unit's records that are still not restored.
    QString rowsOf(const WorkUnit &unit) const;
    // A record's row as the operator finds it, from its key, version and relation read by query.
    QString rowName(const QSqlQuery &query) const;
    void logNotRestored(const QString &row, const QString &reason) const;
    QString records(const WorkUnit &unit) const;
    // How a record's row is found: by its primary key, else by its row version.
    QString rowMatch(const QString &record) const;

    const int m_run;
    const qint64 m_unitTargetMs;
    const Reporter &m_reporter;
    const VerboseLog &m_verbose;
    Progress &m_progress;
    RunTally &m_tally;
    RunJournal &m_journal;
    ScanTable m_table;
    // Without a primary key, records are restored relation by relation, by row version.
    QStringList m_relations;
    qint64 m_firstSeq = 0;
    qint64 m_endSeq = 0;
    int m_relation = 0;
    qint64 m_position = 0;
    std::unique_ptr<UnitSizer> m_sizer;
    // Rows whose restore the server refused: the run stays to be undone, and the next --undo
    // tries them again.
    std::atomic<int> m_refused{0};
};
