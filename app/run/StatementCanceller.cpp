#include "app/run/StatementCanceller.h"

#include "app/run/LibpqHandle.h"

#include <libpq-fe.h>

StatementCanceller::~StatementCanceller()
{
    for (PGcancel *handle : m_handles)
        PQfreeCancel(handle);
}

void StatementCanceller::add(const QSqlDatabase &database)
{
    PGconn *const connection = LibpqHandle::of(database);
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
