#pragma once

#include "app/repair/InstanceList.h"
#include "app/repair/RepairStrategy.h"
#include "app/repair/ScanTable.h"

#include <QVector>

#include <mutex>

class Progress;
class Reporter;
struct StrategyContext;

// What the pass would do, counted on the server in sessions that the server itself keeps from
// writing: per instance, the rows in the update's range and those whose text the same
// expression would change. One grouped read counts all instances; when it fails, each instance
// is counted on its own, so that the counts that fail are named with the server's reason.
// Reported as a table on standard output and as information lines in the run log.
class DryRunCount : public RepairStrategy
{
public:
    explicit DryRunCount(const StrategyContext &context);

    bool prepare(QSqlQuery &query) override;
    bool nextUnit(WorkUnit &unit) override;
    Result run(QSqlQuery &query, const WorkUnit &unit) override;
    QString step(const WorkUnit &unit) const override;
    QVector<WorkUnit> split(QSqlQuery &query, const WorkUnit &unit) override;
    bool leave(QSqlQuery &query, const WorkUnit &unit, const ServerFailure &failure) override;
    void conclude(QSqlQuery &query, bool interrupted) override;
    void report(bool interrupted) const override;

private:
    struct Count {
        bool counted = false;
        qint64 inRange = 0;
        qint64 toChange = 0;
    };

    // Fills the counts of the listed instances; false when the read fails.
    bool count(QSqlQuery &query, const QStringList &instanceIds);
    bool allCounted() const;

    const Reporter &m_reporter;
    Progress &m_progress;
    RunTally &m_tally;
    ScanTable m_table;
    InstanceList m_instances;
    bool m_handedOut = false;
    std::mutex m_mutex;
    QVector<Count> m_counts;
};
