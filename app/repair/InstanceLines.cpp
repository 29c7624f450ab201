#include "app/repair/InstanceLines.h"

#include "app/output/Reporter.h"
#include "app/output/VerboseLog.h"

#include <QSqlError>
#include <QSqlQuery>

const QString InstanceLines::kColumn = QStringLiteral("filetype_details");

void InstanceLines::done(const InstanceList::Instance &instance, const Reporter &reporter, const QString &suffix)
{
    reporter.info(QStringLiteral("Data normalization is done, data: ") + kColumn + QStringLiteral(", instance id: ")
        + instance.id + suffix);
}

void InstanceLines::failed(const InstanceList::Instance &instance, const Reporter &reporter, const QString &reason)
{
    const QString line = QStringLiteral("Data normalization is failed, data: ") + kColumn
        + QStringLiteral(", instance id: ") + instance.id;
    reporter.warning(line, line + QStringLiteral(". ") + reason);
}

void InstanceLines::explain(const VerboseLog &verbose, const InstanceList::Instance &instance, const QSqlQuery &query,
    bool done, qint64 elapsedMs)
{
    if (!verbose.enabled())
        return;
    const QString seconds = QString::number(elapsedMs / 1000.0, 'f', 3);
    if (done)
        verbose.line(QStringLiteral("instance %1: %2 s, rows affected: %3")
                         .arg(instance.id, seconds)
                         .arg(query.numRowsAffected()));
    else
        verbose.line(QStringLiteral("could not repair instance %1 (after %2 s): %3")
                         .arg(instance.id, seconds, query.lastError().text().trimmed()));
}
