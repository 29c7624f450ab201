#include "app/repair/InstanceList.h"

#include "app/output/Reporter.h"

#include <QSqlError>
#include <QSqlQuery>
#include <QVariant>

namespace {
QString blanks(int count)
{
    return QString(count, QLatin1Char(' '));
}
} // namespace

const QString InstanceList::kQuery = QStringLiteral("SELECT instance_id, last_request_id") + blanks(61)
    + QStringLiteral("FROM warehouse.control_refresh") + blanks(61) + QStringLiteral("ORDER BY instance_id;");

bool InstanceList::read(QSqlQuery &query, const Reporter &reporter)
{
    if (!query.exec(kQuery)) {
        reporter.error(QStringLiteral("Data normalization is failed."),
            QStringLiteral("Select all last_request_id unsuccessfully. %1").arg(query.lastError().text()));
        return false;
    }
    // The whole list is read first, so no result set stays open during the updates.
    while (query.next())
        m_instances.append({query.value(0).toString(), query.value(0).toString()});
    return true;
}

QStringList InstanceList::ids() const
{
    QStringList ids;
    for (const Instance &instance : m_instances)
        ids << instance.id;
    return ids;
}
