#include "app/repair/NormalizationPass.h"

#include "app/output/Progress.h"
#include "app/repair/InstanceLines.h"
#include "app/repair/RepairStatements.h"

#include <QElapsedTimer>
#include <QSqlError>
#include <QSqlQuery>

namespace {
QString blanks(int count)
{
    return QString(count, QLatin1Char(' '));
}
} // namespace

const QString NormalizationPass::kUpdateTemplate = QStringLiteral("UPDATE scan.file") + blanks(57)
    + QStringLiteral("SET %1 = ") + RepairStatements::repaired(QStringLiteral("%1")) + blanks(57)
    + QStringLiteral("WHERE request_id > %2") + blanks(57) + QStringLiteral("AND instance_id = %3;");

NormalizationPass::NormalizationPass(RunLog &log, const VerboseLog &verbose, Progress &progress)
    : m_log(log)
    , m_verbose(verbose)
    , m_progress(progress)
{ }

bool NormalizationPass::prepare(QSqlQuery &query)
{
    if (!m_instances.read(query, m_log))
        return false;
    m_progress.setStepCount(m_instances.size(), QStringLiteral("instance"));
    return true;
}

bool NormalizationPass::nextUnit(WorkUnit &unit)
{
    if (m_next >= m_instances.size())
        return false;
    unit = WorkUnit();
    unit.instance = m_next++;
    return true;
}

QString NormalizationPass::step(const WorkUnit &unit) const
{
    return QStringLiteral("instance ") + m_instances[unit.instance].first;
}

RepairStrategy::Result NormalizationPass::run(QSqlQuery &query, const WorkUnit &unit)
{
    const InstanceList::Instance &instance = m_instances[unit.instance];
    QElapsedTimer elapsed;
    elapsed.start();
    Result result;
    result.ok = query.exec(kUpdateTemplate.arg(InstanceLines::kColumn, instance.second, instance.first));
    InstanceLines::explain(m_verbose, instance, query, result.ok, elapsed.elapsed());
    if (result.ok)
        InstanceLines::done(instance, m_log);
    else
        InstanceLines::failed(instance, m_log, query.lastError().text());
    return result;
}

bool NormalizationPass::leave(QSqlQuery &, const WorkUnit &, const ServerFailure &)
{
    return false;
}
