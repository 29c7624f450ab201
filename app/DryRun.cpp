#include "app/DryRun.h"

#include "app/Console.h"
#include "app/ParallelInstances.h"
#include "app/RunLog.h"

#include <QSqlError>

namespace {
const QString kColumnGap = QStringLiteral("  ");

QString tableLine(const QStringList &cells, const QVector<int> &widths)
{
    QStringList aligned;
    for (int i = 0; i < cells.size(); ++i)
        aligned << cells[i].rightJustified(widths[i]);
    return aligned.join(kColumnGap);
}
} // namespace

DryRun::DryRun(const QSqlDatabase &database)
    : m_query(database)
{ }

bool DryRun::beginReadOnly(QSqlQuery &query)
{
    return query.exec(QStringLiteral("START TRANSACTION READ ONLY"));
}

bool DryRun::run(RunLog &log, ParallelInstances &parallel, int jobs)
{
    if (!beginReadOnly(m_query)) {
        Console::err(QStringLiteral("ERROR: Data normalization is failed."));
        log.writeLine(
            RunLog::Error, QStringLiteral("Cannot start a read-only transaction. %1").arg(m_query.lastError().text()));
        return false;
    }
    if (!NormalizationPass::readInstances(m_query, log, m_instances))
        return false;
    m_counts.resize(m_instances.size());
    // The extra connections' transactions end when their connections close.
    parallel.run(m_query, m_instances.size(), jobs, beginReadOnly,
        [this, &log](QSqlQuery &query, int index) { count(query, index, log); });
    m_query.exec(QStringLiteral("ROLLBACK"));
    report(log);
    return true;
}

void DryRun::count(QSqlQuery &query, int index, RunLog &log)
{
    const NormalizationPass::Instance &instance = m_instances[index];
    const QString sql
        = NormalizationPass::kCountTemplate.arg(NormalizationPass::kColumn, instance.second, instance.first);
    if (query.exec(sql) && query.next()) {
        m_counts[index] = {true, query.value(0).toLongLong(), query.value(1).toLongLong()};
        return;
    }
    Console::err(QStringLiteral("WARNING: Dry run count is failed, data: ") + NormalizationPass::kColumn
        + QStringLiteral(", instance id: ") + instance.first);
    log.writeLine(RunLog::Warning,
        QStringLiteral("Dry run count is failed, data: %1, instance id: %2. %3")
            .arg(NormalizationPass::kColumn, instance.first, query.lastError().text()));
}

void DryRun::report(RunLog &log) const
{
    QList<QStringList> rows
        = {{QStringLiteral("instance id"), QStringLiteral("rows in range"), QStringLiteral("rows to change")}};
    qint64 inRange = 0;
    qint64 toChange = 0;
    for (int i = 0; i < m_instances.size(); ++i) {
        if (!m_counts[i].counted)
            continue;
        rows << QStringList{
            m_instances[i].first, QString::number(m_counts[i].inRange), QString::number(m_counts[i].toChange)};
        inRange += m_counts[i].inRange;
        toChange += m_counts[i].toChange;
    }
    rows << QStringList{QStringLiteral("total"), QString::number(inRange), QString::number(toChange)};
    QVector<int> widths(3, 0);
    for (const QStringList &row : rows) {
        for (int i = 0; i < 3; ++i)
            widths[i] = std::max<int>(widths[i], row[i].size());
    }
    QStringList lines = {QStringLiteral("Dry run, nothing is written; data: ") + NormalizationPass::kColumn};
    for (const QStringList &row : rows)
        lines << tableLine(row, widths);
    for (const QString &line : lines) {
        Console::out(line);
        log.writeLine(RunLog::Info, line);
    }
}
