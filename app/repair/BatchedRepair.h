#pragma once

#include "app/repair/RowRepair.h"
#include "app/repair/UnitSizer.h"

#include <QVector>

#include <memory>
#include <mutex>

// --batched: --changed-only's repair, done through the table (every leaf partition of a
// partitioned one) in ranges of row versions, each range one statement for all instances,
// committed on its own and sized to take about a second's fraction. Neither the tool nor a
// statement holds a list of rows, so memory and statement size stay the same whatever the table
// and its damage; a run that ends early keeps every committed range, and the next run finds only
// what is left. An instance is no longer repaired all or nothing.
class BatchedRepair : public RowRepair
{
public:
    // A TID range scan reads a range of blocks only; older servers would read the whole table.
    static constexpr int kFirstServerWithRanges = 140000;

    BatchedRepair(RunLog &log, const VerboseLog &verbose, Progress &progress, RunTally &tally);

    bool prepare(QSqlQuery &query) override;
    bool nextUnit(WorkUnit &unit) override;
    Result run(QSqlQuery &query, const WorkUnit &unit) override;
    QString step(const WorkUnit &unit) const override;
    QVector<WorkUnit> split(QSqlQuery &query, const WorkUnit &unit) override;
    bool leave(QSqlQuery &query, const WorkUnit &unit, const ServerFailure &failure) override;
    void rangeFinished(int origin, bool covered) override;
    void report(bool interrupted) override;

private:
    bool checkServer(QSqlQuery &query);
    QString rangeText(const WorkUnit &unit) const;
    QString tidOf(qint64 slot) const;

    std::unique_ptr<UnitSizer> m_sizer;
    qint64 m_totalSlots = 0;
    int m_relation = 0;
    qint64 m_position = 0;

    std::mutex m_mutex;
    // The slotCount of every range handed out, by its number.
    QVector<qint64> m_rangeSlots;
    int m_rangesDone = 0;
};
