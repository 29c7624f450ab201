#include "app/repair/DryRunCount.h"

#include "app/output/Progress.h"
#include "app/output/Reporter.h"
#include "app/repair/InstanceLines.h"
#include "app/repair/RepairStatements.h"
#include "app/repair/ServerFailure.h"
#include "app/repair/StrategyContext.h"

#include <QHash>
#include <QSqlError>
#include <QSqlQuery>

#include <algorithm>

namespace {
const QString kColumnGap = QStringLiteral("  ");
const QString kFailed = QStringLiteral("failed");

QString tableLine(const QStringList &cells, const QVector<int> &widths)
{
    QStringList aligned;
    for (int i = 0; i < cells.size(); ++i)
        aligned << cells[i].rightJustified(widths[i]);
    return aligned.join(kColumnGap);
}
} // namespace

DryRunCount::DryRunCount(const StrategyContext &context)
    : m_reporter(context.reporter)
    , m_progress(context.progress)
    , m_tally(context.tally)
{ }

bool DryRunCount::prepare(QSqlQuery &query)
{
    if (!m_instances.read(query, m_reporter))
        return false;
    m_counts.resize(m_instances.size());
    if (m_instances.isEmpty())
        return true;
    QString refusal;
    if (!m_table.read(query, InstanceLines::kColumn))
        refusal = QStringLiteral("--dry-run cannot read the shape of scan.file. %1").arg(m_table.error());
    else
        refusal = m_table.refusal(QStringLiteral("--dry-run"), false);
    if (refusal.isEmpty())
        return true;
    m_reporter.error(refusal);
    return false;
}

bool DryRunCount::nextUnit(WorkUnit &unit)
{
    if (m_handedOut || m_instances.isEmpty())
        return false;
    m_handedOut = true;
    unit = WorkUnit();
    unit.kind = WorkUnit::Kind::AllInstances;
    return true;
}

QString DryRunCount::step(const WorkUnit &unit) const
{
    if (unit.kind == WorkUnit::Kind::AllInstances)
        return QStringLiteral("counting the rows to change");
    return QStringLiteral("counting instance ") + m_instances[unit.instance].id;
}

RepairStrategy::Result DryRunCount::run(QSqlQuery &query, const WorkUnit &unit)
{
    Result result;
    result.ok = count(query,
        unit.kind == WorkUnit::Kind::AllInstances ? m_instances.ids() : QStringList{m_instances[unit.instance].id});
    return result;
}

bool DryRunCount::count(QSqlQuery &query, const QStringList &instanceIds)
{
    query.setForwardOnly(true);
    if (!query.exec(RepairStatements::counts(InstanceLines::kColumn, instanceIds)))
        return false;
    QHash<QString, Count> found;
    while (query.next())
        found[query.value(0).toString()] = {true, query.value(1).toLongLong(), query.value(2).toLongLong()};
    if (query.lastError().type() != QSqlError::NoError)
        return false;
    // Instances without rows in range have no group: they count zero.
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (int i = 0; i < m_instances.size(); ++i) {
        if (instanceIds.contains(m_instances[i].id))
            m_counts[i] = found.value(m_instances[i].id, {true, 0, 0});
    }
    return true;
}

// The grouped count failed: each instance is counted on its own.
QVector<WorkUnit> DryRunCount::split(QSqlQuery &, const WorkUnit &unit)
{
    if (unit.kind != WorkUnit::Kind::AllInstances)
        return {};
    m_progress.setStepCount(m_instances.size(), QStringLiteral("instance"));
    QVector<WorkUnit> parts;
    for (int i = 0; i < m_instances.size(); ++i) {
        WorkUnit part;
        part.kind = WorkUnit::Kind::Instance;
        part.instance = i;
        parts.append(part);
    }
    return parts;
}

bool DryRunCount::leave(QSqlQuery &, const WorkUnit &unit, const ServerFailure &failure)
{
    const QString id = unit.instance >= 0 ? m_instances[unit.instance].id : QStringLiteral("all");
    m_tally.fail(QStringLiteral("count of instance ") + id, failure.serverMessage());
    m_reporter.warning(QStringLiteral("Dry run count is failed, data: %1, instance id: %2. %3")
                           .arg(InstanceLines::kColumn, id, failure.serverMessage()));
    return true;
}

bool DryRunCount::allCounted() const
{
    return std::all_of(m_counts.cbegin(), m_counts.cend(), [](const Count &count) { return count.counted; });
}

// A total over the counted instances only must not pass for the whole.
void DryRunCount::conclude(QSqlQuery &, bool)
{
    if (!allCounted())
        m_tally.fail(QStringLiteral("counts"), QStringLiteral("not every instance was counted"));
}

void DryRunCount::report(bool) const
{
    QList<QStringList> rows
        = {{QStringLiteral("instance id"), QStringLiteral("rows in range"), QStringLiteral("rows to change")}};
    qint64 inRange = 0;
    qint64 toChange = 0;
    for (int i = 0; i < m_instances.size(); ++i) {
        if (!m_counts[i].counted) {
            rows << QStringList{m_instances[i].id, kFailed, kFailed};
            continue;
        }
        rows << QStringList{
            m_instances[i].id, QString::number(m_counts[i].inRange), QString::number(m_counts[i].toChange)};
        inRange += m_counts[i].inRange;
        toChange += m_counts[i].toChange;
    }
    const bool all = allCounted();
    rows << QStringList{all ? QStringLiteral("total") : QStringLiteral("total of counted"), QString::number(inRange),
        QString::number(toChange)};
    QVector<int> widths(3, 0);
    for (const QStringList &row : rows) {
        for (int i = 0; i < 3; ++i)
            widths[i] = std::max<int>(widths[i], row[i].size());
    }
    QStringList lines = {QStringLiteral("Dry run, nothing is written; data: ") + InstanceLines::kColumn};
    for (const QStringList &row : rows)
        lines << tableLine(row, widths);
    for (const QString &line : lines)
        m_reporter.info(line);
    m_reporter.runStopped(m_tally.stopReason());
}
