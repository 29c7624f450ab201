#include "app/repair/DryRun.h"

#include "app/output/Console.h"
#include "app/output/Progress.h"
#include "app/output/RunLog.h"
#include "app/repair/ParallelInstances.h"
#include "app/repair/RepairStatements.h"

#include <QSqlError>

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

DryRun::DryRun(const QSqlDatabase &database)
    : m_query(database)
{ }

bool DryRun::beginReadOnly(QSqlQuery &query)
{
    return query.exec(QStringLiteral("START TRANSACTION READ ONLY"));
}

bool DryRun::run(RunLog &log, ParallelInstances &parallel, int jobs, Progress &progress)
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
    // A failed statement aborts the transaction: a savepoint keeps it usable for the rest.
    m_query.exec(QStringLiteral("SAVEPOINT counts"));
    bool counted = true;
    if (!m_instances.isEmpty()) {
        const Progress::Step counting(progress, QStringLiteral("counting the rows to change"), false);
        counted = countAll(m_query, NormalizationPass::idsOf(m_instances));
    }
    if (!counted) {
        m_query.exec(QStringLiteral("ROLLBACK TO SAVEPOINT counts"));
        progress.setStepCount(m_instances.size(), QStringLiteral("instance"));
        // The extra connections' transactions end when their connections close.
        parallel.run(m_query, m_instances.size(), jobs, beginReadOnly,
            [this, &log, &progress](QSqlQuery &query, int index) { countOne(query, index, log, progress); });
    }
    m_query.exec(QStringLiteral("ROLLBACK"));
    report(log);
    return allCounted();
}

bool DryRun::countAll(QSqlQuery &query, const QStringList &instanceIds)
{
    if (!query.exec(RepairStatements::counts(NormalizationPass::kColumn, instanceIds)))
        return false;
    QHash<QString, Count> found;
    while (query.next())
        found[query.value(0).toString()] = {true, query.value(1).toLongLong(), query.value(2).toLongLong()};
    if (query.lastError().type() != QSqlError::NoError)
        return false;
    // Instances without rows in range have no group: they count zero.
    for (int i = 0; i < m_instances.size(); ++i) {
        if (instanceIds.contains(m_instances[i].first))
            m_counts[i] = found.value(m_instances[i].first, {true, 0, 0});
    }
    return true;
}

void DryRun::countOne(QSqlQuery &query, int index, RunLog &log, Progress &progress)
{
    const NormalizationPass::Instance &instance = m_instances[index];
    const Progress::Step inFlight(progress, NormalizationPass::progressStep(instance));
    query.exec(QStringLiteral("SAVEPOINT count"));
    if (countAll(query, {instance.first})) {
        query.exec(QStringLiteral("RELEASE SAVEPOINT count"));
        return;
    }
    const QString reason = query.lastError().text();
    query.exec(QStringLiteral("ROLLBACK TO SAVEPOINT count"));
    const QString line = QStringLiteral("Dry run count is failed, data: %1, instance id: %2. %3")
                             .arg(NormalizationPass::kColumn, instance.first, reason);
    Console::err(QStringLiteral("WARNING: ") + line);
    log.writeLine(RunLog::Warning, line);
}

bool DryRun::allCounted() const
{
    return std::all_of(m_counts.cbegin(), m_counts.cend(), [](const Count &count) { return count.counted; });
}

void DryRun::report(RunLog &log) const
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
    rows << QStringList{allCounted() ? QStringLiteral("total") : QStringLiteral("total of counted"),
        QString::number(inRange), QString::number(toChange)};
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
