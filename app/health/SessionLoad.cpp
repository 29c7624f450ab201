#include "app/health/SessionLoad.h"

#include <QSqlQuery>

SessionLoad::SessionLoad(bool serial)
    : m_serial(serial)
{ }

void SessionLoad::apply(const QSqlDatabase &database) const
{
    QSqlQuery query(database);
    query.exec(QStringLiteral("SET backend_flush_after = '%1'").arg(QLatin1String(kFlushAfter)));
    if (m_serial)
        query.exec(QStringLiteral("SET max_parallel_workers_per_gather = 0"));
}
