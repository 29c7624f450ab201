#include "app/health/WalCompression.h"

#include "app/output/VerboseLog.h"

#include <QSqlQuery>
#include <QVariant>

namespace {
// has_parameter_privilege: a role granted SET on a parameter it could not set otherwise.
constexpr int kFirstServerWithParameterGrants = 150000;

bool mayBeSet(QSqlQuery &query)
{
    if (!query.exec(QStringLiteral("SELECT rolsuper, current_setting('server_version_num')::int FROM pg_roles WHERE "
                                   "rolname = current_user"))
        || !query.next())
        return false;
    if (query.value(0).toBool())
        return true;
    if (query.value(1).toInt() < kFirstServerWithParameterGrants)
        return false;
    return query.exec(QStringLiteral("SELECT has_parameter_privilege('wal_compression', 'SET')")) && query.next()
        && query.value(0).toBool();
}

// A boolean on servers before 15, where "on" is pglz.
QString bestMethod(QSqlQuery &query)
{
    if (!query.exec(QStringLiteral("SELECT vartype = 'bool', 'lz4' = ANY (enumvals) FROM pg_settings WHERE name = "
                                   "'wal_compression'"))
        || !query.next())
        return QString();
    if (query.value(0).toBool())
        return QStringLiteral("on");
    return query.value(1).toBool() ? QStringLiteral("lz4") : QStringLiteral("pglz");
}
} // namespace

void WalCompression::choose(QSqlQuery &query, const VerboseLog &verbose)
{
    if (!mayBeSet(query)) {
        verbose.line(QStringLiteral("The run's sessions write their WAL uncompressed: the role may not set "
                                    "wal_compression (a superuser may, or a role granted SET on it)"));
        return;
    }
    m_method = bestMethod(query);
    if (!m_method.isEmpty())
        verbose.line(QStringLiteral("The run's sessions compress the full-page images of their WAL (wal_compression "
                                    "= %1)")
                         .arg(m_method));
}

void WalCompression::apply(const QSqlDatabase &database) const
{
    if (m_method.isEmpty())
        return;
    QSqlQuery query(database);
    query.exec(QStringLiteral("SET wal_compression = %1").arg(m_method));
}
