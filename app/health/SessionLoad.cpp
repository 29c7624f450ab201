#include "app/health/SessionLoad.h"

#include "app/health/HealthLimits.h"

#include <QSqlQuery>

SessionLoad::SessionLoad(int pacePercent)
    : m_serial(pacePercent < HealthLimits::kFullPace)
{ }

void SessionLoad::apply(const QSqlDatabase &database) const
{
    QSqlQuery query(database);
    query.exec(QStringLiteral("SET backend_flush_after = '%1'").arg(QLatin1String(kFlushAfter)));
    if (m_serial)
        query.exec(QStringLiteral("SET max_parallel_workers_per_gather = 0"));
}
