#include "app/repair/ChangedOnlyRepair.h"

#include "app/output/Progress.h"
#include "app/repair/InstanceLines.h"
#include "app/repair/RepairStatements.h"
#include "app/repair/ServerFailure.h"

#include <QSqlError>
#include <QSqlQuery>

ChangedOnlyRepair::ChangedOnlyRepair(const StrategyContext &context)
    : RewritingStrategy(QStringLiteral("--changed-only"), context, nullptr)
{ }

bool ChangedOnlyRepair::prepare(QSqlQuery &query)
{
    if (!m_instances.read(query, m_reporter))
        return false;
    if (m_instances.isEmpty())
        return true;
    if (!readTable(query))
        return false;
    // The planner expects half the rows to pass the filter and would read them in one process
    // rather than pay for passing them between processes; a few pass, so the parallel plan wins.
    {
        const Progress::Step finding(m_progress, QStringLiteral("finding the rows to change"));
        query.exec(QStringLiteral("SET parallel_tuple_cost = 0"));
        m_readPerInstance = !readCandidates(query, m_instances.ids(), m_candidates);
        query.exec(QStringLiteral("RESET parallel_tuple_cost"));
    }
    m_progress.setStepCount(m_instances.size(), QStringLiteral("instance"));
    return true;
}

bool ChangedOnlyRepair::readCandidates(
    QSqlQuery &query, const QStringList &instanceIds, QHash<int, QVector<WorkUnit>> &units) const
{
    query.setForwardOnly(true);
    if (!query.exec(RepairStatements::candidates(InstanceLines::kColumn, instanceIds)))
        return false;
    const QStringList ids = m_instances.ids();
    // Per instance, per relation: the index of its unit.
    QHash<QPair<int, int>, int> unitOf;
    while (query.next()) {
        const int instance = ids.indexOf(query.value(0).toString());
        const int relation = m_table.relationIndex(query.value(1).toString());
        if (instance < 0 || relation < 0)
            continue;
        const QPair<int, int> key{instance, relation};
        if (!unitOf.contains(key)) {
            WorkUnit unit;
            unit.kind = WorkUnit::Kind::Rows;
            unit.instance = instance;
            unit.relation = relation;
            unitOf.insert(key, units[instance].size());
            units[instance].append(unit);
        }
        units[instance][unitOf.value(key)].tids << query.value(2).toString();
    }
    return query.lastError().type() == QSqlError::NoError;
}

bool ChangedOnlyRepair::nextUnit(WorkUnit &unit)
{
    if (!m_pending.isEmpty()) {
        unit = m_pending.takeFirst();
        return true;
    }
    if (m_next >= m_instances.size())
        return false;
    const int instance = m_next++;
    unit = WorkUnit();
    unit.instance = instance;
    if (m_readPerInstance) {
        unit.kind = WorkUnit::Kind::Instance;
        return true;
    }
    // An instance without rows to change is still one unit, so that it gets its line.
    unit.kind = WorkUnit::Kind::Rows;
    QVector<WorkUnit> units = m_candidates.take(instance);
    if (units.isEmpty())
        return true;
    unit = units.takeFirst();
    m_pending = units;
    return true;
}

QString ChangedOnlyRepair::step(const WorkUnit &unit) const
{
    return QStringLiteral("instance ") + m_instances[unit.instance].id;
}

RepairStrategy::Result ChangedOnlyRepair::run(QSqlQuery &query, const WorkUnit &unit)
{
    if (unit.kind == WorkUnit::Kind::Instance) {
        QHash<int, QVector<WorkUnit>> units;
        Result result;
        result.ok = readCandidates(query, {m_instances[unit.instance].id}, units);
        // Rows put aside for a last try are not waited for again.
        for (WorkUnit part : units.value(unit.instance)) {
            part.rereads = unit.rereads;
            part.tids = withoutHeld(part.relation, part.tids);
            if (!part.tids.isEmpty())
                result.more.append(part);
        }
        return result;
    }
    if (unit.tids.isEmpty())
        return Result{true, {}, {}, {}};
    const QString step = QStringLiteral("instance %1, %2 rows of %3")
                             .arg(m_instances[unit.instance].id)
                             .arg(unit.tids.size())
                             .arg(relationOf(unit));
    Result result = repair(query, unit, RepairStatements::tidList(unit.tids), step);
    // Fewer rows changed or set aside than listed: some were rewritten (or deleted) by another
    // writer since they were read. Whether they still need the repair is read again once the rest
    // is done.
    if (result.ok && result.changed.value(m_instances[unit.instance].id) + result.setAside < unit.tids.size()) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_rewritten[unit.instance] = true;
    }
    return result;
}

QVector<WorkUnit> ChangedOnlyRepair::split(QSqlQuery &, const WorkUnit &unit)
{
    return halvesOfRows(unit);
}

bool ChangedOnlyRepair::leave(QSqlQuery &query, const WorkUnit &unit, const ServerFailure &failure)
{
    return leaveRows(query, unit, QStringLiteral("instance ") + m_instances[unit.instance].id, failure.serverMessage());
}

QVector<WorkUnit> ChangedOnlyRepair::instanceFinished(int instance)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_rewritten.take(instance) && m_rereads.value(instance) < kRereads) {
            WorkUnit again;
            again.kind = WorkUnit::Kind::Instance;
            again.instance = instance;
            again.rereads = ++m_rereads[instance];
            return {again};
        }
    }
    if (hasHeldRows(instance))
        return heldRows(instance);
    instanceLine(instance);
    return {};
}

QString ChangedOnlyRepair::givenUp(const WorkUnit &unit) const
{
    return QStringLiteral("instance ") + m_instances[unit.instance].id;
}

void ChangedOnlyRepair::report(bool interrupted) const
{
    if (!interrupted)
        reportLeft();
}
