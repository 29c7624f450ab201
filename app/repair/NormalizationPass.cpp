#include "app/repair/NormalizationPass.h"

#include "app/output/Console.h"
#include "app/output/Progress.h"
#include "app/output/RunLog.h"
#include "app/output/VerboseLog.h"
#include "app/repair/ParallelInstances.h"
#include "app/repair/RepairStatements.h"

#include <QElapsedTimer>
#include <QSqlError>

namespace {
QString blanks(int count)
{
    return QString(count, QLatin1Char(' '));
}

} // namespace

const QString NormalizationPass::kColumn = QStringLiteral("filetype_details");

const QString NormalizationPass::kInstanceQuery = QStringLiteral("SELECT instance_id, last_request_id") + blanks(61)
    + QStringLiteral("FROM warehouse.control_refresh") + blanks(61) + QStringLiteral("ORDER BY instance_id;");

const QString NormalizationPass::kUpdateTemplate = QStringLiteral("UPDATE scan.file") + blanks(57)
    + QStringLiteral("SET %1 = ") + RepairStatements::repaired(QStringLiteral("%1")) + blanks(57)
    + QStringLiteral("WHERE request_id > %2") + blanks(57) + QStringLiteral("AND instance_id = %3;");

NormalizationPass::NormalizationPass(const QSqlDatabase &database, const VerboseLog &verbose)
    : m_query(database)
    , m_verbose(verbose)
{ }

bool NormalizationPass::readInstances(QSqlQuery &query, RunLog &log, QVector<Instance> &instances)
{
    if (!query.exec(kInstanceQuery)) {
        Console::err(QStringLiteral("ERROR: Data normalization is failed."));
        log.writeLine(RunLog::Error,
            QStringLiteral("Select all last_request_id unsuccessfully. %1").arg(query.lastError().text()));
        return false;
    }
    // The whole list is read first, so no result set stays open during the updates.
    // Both members hold the instance id: the lower bound of the request filter is the
    // instance's own id, not the stored last request id, as it has always been.
    while (query.next())
        instances.append({query.value(0).toString(), query.value(0).toString()});
    return true;
}

QStringList NormalizationPass::idsOf(const QVector<Instance> &instances)
{
    QStringList ids;
    for (const Instance &instance : instances)
        ids << instance.first;
    return ids;
}

bool NormalizationPass::run(RunLog &log, ParallelInstances &parallel, int jobs, Progress &progress)
{
    QVector<Instance> instances;
    if (!readInstances(m_query, log, instances))
        return false;
    progress.setStepCount(instances.size(), QStringLiteral("instance"));
    parallel.run(
        m_query, instances.size(), jobs, nullptr, [this, &instances, &log, &progress](QSqlQuery &query, int index) {
            normalizeInstance(query, instances[index], log, progress);
        });
    return true;
}

QString NormalizationPass::progressStep(const Instance &instance)
{
    return QStringLiteral("instance ") + instance.first;
}

void NormalizationPass::normalizeInstance(
    QSqlQuery &query, const Instance &instance, RunLog &log, Progress &progress) const
{
    QElapsedTimer elapsed;
    elapsed.start();
    bool done = false;
    {
        const Progress::Step inFlight(progress, progressStep(instance));
        done = query.exec(kUpdateTemplate.arg(kColumn, instance.second, instance.first));
    }
    explain(m_verbose, instance, query, done, elapsed.elapsed());
    if (done)
        reportDone(instance, log);
    else
        reportFailed(instance, log, query.lastError().text());
}

void NormalizationPass::explain(
    const VerboseLog &verbose, const Instance &instance, const QSqlQuery &query, bool done, qint64 elapsedMs)
{
    if (!verbose.enabled())
        return;
    const QString seconds = QString::number(elapsedMs / 1000.0, 'f', 3);
    if (done)
        verbose.line(QStringLiteral("instance %1: %2 s, rows affected: %3")
                         .arg(instance.first, seconds)
                         .arg(query.numRowsAffected()));
    else
        verbose.line(QStringLiteral("could not repair instance %1 (after %2 s): %3")
                         .arg(instance.first, seconds, query.lastError().text().trimmed()));
}

void NormalizationPass::reportDone(const Instance &instance, RunLog &log, const QString &suffix)
{
    Console::out(QStringLiteral("Data normalization is done, data: ") + kColumn + QStringLiteral(", instance id: ")
        + instance.first + suffix);
    log.writeLine(RunLog::Info,
        QStringLiteral("Data normalization is done, data: %1, instance id: %2").arg(kColumn, instance.first) + suffix);
}

void NormalizationPass::reportFailed(const Instance &instance, RunLog &log, const QString &reason)
{
    Console::err(QStringLiteral("WARNING: Data normalization is failed, data: ") + kColumn
        + QStringLiteral(", instance id: ") + instance.first);
    log.writeLine(RunLog::Warning,
        QStringLiteral("Data normalization is failed, data: %1, instance id: %2. %3")
            .arg(kColumn, instance.first, reason));
}
