#include "app/repair/InstanceLines.h"

#include "app/output/Console.h"
#include "app/output/RunLog.h"
#include "app/output/VerboseLog.h"

#include <QSqlError>
#include <QSqlQuery>

const QString InstanceLines::kColumn = QStringLiteral("filetype_details");

void InstanceLines::done(const InstanceList::Instance &instance, RunLog &log, const QString &suffix)
{
    Console::out(QStringLiteral("Data normalization is done, data: ") + kColumn + QStringLiteral(", instance id: ")
        + instance.first + suffix);
    log.writeLine(RunLog::Info,
        QStringLiteral("Data normalization is done, data: %1, instance id: %2").arg(kColumn, instance.first) + suffix);
}

void InstanceLines::failed(const InstanceList::Instance &instance, RunLog &log, const QString &reason)
{
    Console::err(QStringLiteral("WARNING: Data normalization is failed, data: ") + kColumn
        + QStringLiteral(", instance id: ") + instance.first);
    log.writeLine(RunLog::Warning,
        QStringLiteral("Data normalization is failed, data: %1, instance id: %2. %3")
            .arg(kColumn, instance.first, reason));
}

void InstanceLines::explain(const VerboseLog &verbose, const InstanceList::Instance &instance, const QSqlQuery &query,
    bool done, qint64 elapsedMs)
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
