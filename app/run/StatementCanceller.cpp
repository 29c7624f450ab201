#include "app/run/StatementCanceller.h"

#include <QSqlDriver>
#include <QVariant>

#include <libpq-fe.h>

StatementCanceller::~StatementCanceller()
{
    for (PGcancel *handle : m_handles)
        PQfreeCancel(handle);
}

void StatementCanceller::add(const QSqlDatabase &database)
{
    // The PostgreSQL driver hands out its libpq connection, under the name of the struct or
    // of its typedef depending on how Qt was built.
    const QVariant handle = database.driver() ? database.driver()->handle() : QVariant();
    if (!handle.isValid()
        || (qstrcmp(handle.typeName(), "pg_conn*") != 0 && qstrcmp(handle.typeName(), "PGconn*") != 0))
        return;
    PGconn *const connection = *static_cast<PGconn *const *>(handle.constData());
    PGcancel *const cancel = connection ? PQgetCancel(connection) : nullptr;
    if (!cancel)
        return;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_handles.push_back(cancel);
}

void StatementCanceller::cancelAll()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    char error[256];
    for (PGcancel *handle : m_handles)
        PQcancel(handle, error, sizeof error);
}
