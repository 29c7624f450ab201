#include "app/run/LibpqHandle.h"

#include <QSqlDatabase>
#include <QSqlDriver>
#include <QVariant>

#include <libpq-fe.h>

pg_conn *LibpqHandle::of(const QSqlDatabase &database)
{
    return of(database.driver());
}

pg_conn *LibpqHandle::of(const QSqlDriver *driver)
{
    // The PostgreSQL driver hands out its libpq connection, under the name of the struct or
    // of its typedef depending on how Qt was built.
    const QVariant handle = driver ? driver->handle() : QVariant();
    if (!handle.isValid()
        || (qstrcmp(handle.typeName(), "pg_conn*") != 0 && qstrcmp(handle.typeName(), "PGconn*") != 0))
        return nullptr;
    return *static_cast<PGconn *const *>(handle.constData());
}

bool LibpqHandle::lost(const QSqlDatabase &database)
{
    PGconn *const connection = of(database);
    return !connection || PQstatus(connection) == CONNECTION_BAD;
}

int LibpqHandle::serverProcess(const QSqlDatabase &database)
{
    return serverProcess(database.driver());
}

int LibpqHandle::serverProcess(const QSqlDriver *driver)
{
    PGconn *const connection = of(driver);
    return connection ? PQbackendPID(connection) : 0;
}

QString LibpqHandle::lastMessage(const QSqlDatabase &database)
{
    PGconn *const connection = of(database);
    return connection ? QString::fromUtf8(PQerrorMessage(connection)).trimmed() : QString();
}
