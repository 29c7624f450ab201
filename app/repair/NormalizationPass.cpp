#include "app/repair/NormalizationPass.h"

#include "app/output/Progress.h"
#include "app/repair/InstanceLines.h"
#include "app/repair/RepairStatements.h"
#include "app/repair/StrategyContext.h"

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

NormalizationPass::NormalizationPass(const StrategyContext &context)
    : m_reporter(context.reporter)
    , m_verbose(context.verbose)
    , m_progress(context.progress)
{ }

bool NormalizationPass::prepare(QSqlQuery &query)
{
    if (!m_instances.read(query, m_reporter))
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
    return QStringLiteral("instance ") + m_instances[unit.instance].id;
}

RepairStrategy::Result NormalizationPass::run(QSqlQuery &query, const WorkUnit &unit)
{
    const InstanceList::Instance &instance = m_instances[unit.instance];
    QElapsedTimer elapsed;
    elapsed.start();
    Result result;
    result.ok = query.exec(kUpdateTemplate.arg(InstanceLines::kColumn, instance.requestFloor, instance.id));
    InstanceLines::explain(m_verbose, instance, query, result.ok, elapsed.elapsed());
    if (result.ok)
        InstanceLines::done(instance, m_reporter);
    else
        InstanceLines::failed(instance, m_reporter, query.lastError().text());
    return result;
}

bool NormalizationPass::leave(QSqlQuery &, const WorkUnit &, const ServerFailure &)
{
    return false;
}
