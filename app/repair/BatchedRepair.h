#pragma once

#include "app/repair/RangeCursor.h"
#include "app/repair/RowRepair.h"

#include <QVector>

#include <memory>
#include <mutex>

// --batched: --changed-only's repair, done through the table (every leaf partition of a
// partitioned one) in ranges of row versions, each range one statement for all instances,
// committed on its own and sized to take a fraction of a second. Neither the tool nor a statement
// holds a list of rows, so memory and statement size stay the same whatever the table and its
// damage; a run that ends early keeps every committed range, and the next run finds only what is
// left. An instance is no longer repaired all or nothing. With a journal (--journal) every change
// is recorded with its original text, and the newest unfinished journaled run is resumed.
class BatchedRepair : public RowRepair
{
public:
    // A TID range scan reads a range of blocks only; older servers would read the whole table.
    static constexpr int kFirstServerWithRanges = 140000;

    // journal: record the run there; options are the run's own, for its record.
    BatchedRepair(RunLog &log, const VerboseLog &verbose, Progress &progress, RunTally &tally,
        RunJournal *journal = nullptr, const QString &options = QString());

    bool prepare(QSqlQuery &query) override;
    bool nextUnit(WorkUnit &unit) override;
    Result run(QSqlQuery &query, const WorkUnit &unit) override;
    QString step(const WorkUnit &unit) const override;
    QVector<WorkUnit> split(QSqlQuery &query, const WorkUnit &unit) override;
    bool leave(QSqlQuery &query, const WorkUnit &unit, const ServerFailure &failure) override;
    void rangeFinished(int origin, bool covered) override;
    void report(bool interrupted) override;

    // Refuses, with the run's own lines, a server that cannot read a table by ranges.
    static bool checkServer(QSqlQuery &query, RunLog &log, const QString &option);

private:
    bool openJournal(QSqlQuery &query);

    const QString m_options;
    QSqlQuery *m_mainQuery = nullptr;
    std::unique_ptr<RangeCursor> m_cursor;

    std::mutex m_mutex;
    // The slots of every range handed out, by its number.
    QVector<qint64> m_rangeSlots;
    int m_rangesDone = 0;
};
