#pragma once

#include "app/repair/NormalizationPass.h"

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QVector>

class ParallelInstances;
class Progress;
class RunLog;

// What the pass would do, counted on the server inside read-only transactions, so the
// server itself guarantees that nothing is written: per instance, the rows in the update's
// range and those whose text the same expression would change. One grouped read counts all
// instances; when it fails, each instance is counted on its own, so that the counts that
// fail are named with the server's reason. Reported as a table on standard output and as
// information lines in the run log.
class DryRun
{
public:
    explicit DryRun(const QSqlDatabase &database);

    // False when the instance list cannot be read (with the pass's own messages) or when an
    // instance was not counted.
    bool run(RunLog &log, ParallelInstances &parallel, int jobs, Progress &progress);

    static bool beginReadOnly(QSqlQuery &query);

private:
    struct Count {
        bool counted = false;
        qint64 inRange = 0;
        qint64 toChange = 0;
    };

    // Fills the counts of the listed instances; false when the read fails.
    bool countAll(QSqlQuery &query, const QStringList &instanceIds);
    void countOne(QSqlQuery &query, int index, RunLog &log, Progress &progress);
    void report(RunLog &log) const;
    bool allCounted() const;

    QSqlQuery m_query;
    QVector<NormalizationPass::Instance> m_instances;
    QVector<Count> m_counts;
};
