#include "app/repair/ChangedOnlyPass.h"

#include "app/output/Progress.h"
#include "app/output/RunLog.h"
#include "app/repair/ParallelInstances.h"
#include "app/repair/RepairStatements.h"

#include <QElapsedTimer>
#include <QSqlError>

ChangedOnlyPass::ChangedOnlyPass(const QSqlDatabase &database, const VerboseLog &verbose)
    : m_query(database)
    , m_verbose(verbose)
{ }

bool ChangedOnlyPass::run(RunLog &log, ParallelInstances &parallel, int jobs, Progress &progress)
{
    if (!NormalizationPass::readInstances(m_query, log, m_instances))
        return false;
    if (m_instances.isEmpty())
        return true;
    // The planner expects half the rows to pass the filter and would read them in one process
    // rather than pay for passing them between processes; a few pass, so the parallel plan wins.
    {
        const Progress::Step finding(progress, QStringLiteral("finding the rows to change"), false);
        m_query.exec(QStringLiteral("SET parallel_tuple_cost = 0"));
        m_readPerInstance = !readCandidates(m_query, NormalizationPass::idsOf(m_instances), m_candidates);
        m_query.exec(QStringLiteral("RESET parallel_tuple_cost"));
    }
    progress.setStepCount(m_instances.size(), QStringLiteral("instance"));
    parallel.run(m_query, m_instances.size(), jobs, nullptr,
        [this, &log, &progress](QSqlQuery &query, int index) { repairInstance(query, index, log, progress); });
    return true;
}

bool ChangedOnlyPass::readCandidates(
    QSqlQuery &query, const QStringList &instanceIds, QHash<QString, QStringList> &rows)
{
    query.setForwardOnly(true);
    if (!query.exec(RepairStatements::candidates(NormalizationPass::kColumn, instanceIds)))
        return false;
    while (query.next())
        rows[query.value(0).toString()] << query.value(1).toString();
    return query.lastError().type() == QSqlError::NoError;
}

void ChangedOnlyPass::repairInstance(QSqlQuery &query, int index, RunLog &log, Progress &progress) const
{
    const NormalizationPass::Instance &instance = m_instances[index];
    const Progress::Step inFlight(progress, NormalizationPass::progressStep(instance));
    QHash<QString, QStringList> own;
    if (m_readPerInstance && !readCandidates(query, {instance.first}, own)) {
        NormalizationPass::reportFailed(instance, log, query.lastError().text());
        return;
    }
    const QStringList tids = (m_readPerInstance ? own : m_candidates).value(instance.first);
    int changed = 0;
    if (!tids.isEmpty()) {
        QElapsedTimer elapsed;
        elapsed.start();
        const bool done
            = query.exec(RepairStatements::targetedUpdate(NormalizationPass::kColumn, instance.first, tids));
        NormalizationPass::explain(m_verbose, instance, query, done, elapsed.elapsed());
        if (!done) {
            NormalizationPass::reportFailed(instance, log, query.lastError().text());
            return;
        }
        changed = query.numRowsAffected();
    }
    NormalizationPass::reportDone(instance, log, QStringLiteral(", rows changed: %1").arg(changed));
}
