#include "app/repair/DryRunCount.h"

#include "app/output/Console.h"
#include "app/output/Progress.h"
#include "app/output/RunLog.h"
#include "app/repair/InstanceLines.h"
#include "app/repair/RepairStatements.h"
#include "app/repair/ServerFailure.h"

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

DryRunCount::DryRunCount(RunLog &log, Progress &progress, RunTally &tally)
    : m_log(log)
    , m_progress(progress)
    , m_tally(tally)
{ }

bool DryRunCount::prepare(QSqlQuery &query)
{
    if (!m_instances.read(query, m_log))
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
    Console::err(QStringLiteral("ERROR: ") + refusal);
    m_log.writeLine(RunLog::Error, refusal);
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
    return QStringLiteral("counting instance ") + m_instances[unit.instance].first;
}

RepairStrategy::Result DryRunCount::run(QSqlQuery &query, const WorkUnit &unit)
{
    Result result;
    result.ok = count(query,
        unit.kind == WorkUnit::Kind::AllInstances ? m_instances.ids() : QStringList{m_instances[unit.instance].first});
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
        if (instanceIds.contains(m_instances[i].first))
            m_counts[i] = found.value(m_instances[i].first, {true, 0, 0});
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
    const QString id = unit.instance >= 0 ? m_instances[unit.instance].first : QStringLiteral("all");
    m_tally.fail(QStringLiteral("count of instance ") + id, failure.words());
    const QString line = QStringLiteral("Dry run count is failed, data: %1, instance id: %2. %3")
                             .arg(InstanceLines::kColumn, id, failure.words());
    Console::err(QStringLiteral("WARNING: ") + line);
    m_log.writeLine(RunLog::Warning, line);
    return true;
}

bool DryRunCount::allCounted() const
{
    return std::all_of(m_counts.cbegin(), m_counts.cend(), [](const Count &count) { return count.counted; });
}

void DryRunCount::report(bool)
{
    QList<QStringList> rows
        = {{QStringLiteral("instance id"), QStringLiteral("rows in range"), QStringLiteral("rows to change")}};
    qint64 inRange = 0;
    qint64 toChange = 0;
    for (int i = 0; i < m_instances.size(); ++i) {
        if (!m_counts[i].counted) {
            rows << QStringList{m_instances[i].first, kFailed, kFailed};
            continue;
        }
        rows << QStringList{
            m_instances[i].first, QString::number(m_counts[i].inRange), QString::number(m_counts[i].toChange)};
        inRange += m_counts[i].inRange;
        toChange += m_counts[i].toChange;
    }
    // A total over the counted instances only must not pass for the whole.
    const bool all = allCounted();
    if (!all)
        m_tally.fail(QStringLiteral("counts"), QStringLiteral("not every instance was counted"));
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
    for (const QString &line : lines) {
        Console::out(line);
        m_log.writeLine(RunLog::Info, line);
    }
    const QString stop = m_tally.stopReason();
    if (!stop.isEmpty()) {
        const QString line = QStringLiteral("The run stopped before its end: %1").arg(stop);
        Console::err(QStringLiteral("ERROR: ") + line);
        m_log.writeLine(RunLog::Error, line);
    }
}
