#include "app/repair/WorkerConnection.h"

#include <QDeadlineTimer>
#include <QSqlError>
#include <QThread>

WorkerConnection::WorkerConnection(const QSqlDatabase &database, std::function<void(const QSqlDatabase &)> opened)
    : m_database(database)
    , m_query(database)
    , m_opened(std::move(opened))
{ }

bool WorkerConnection::reopen(const std::function<bool()> &stop, QString &error)
{
    // The query belongs to the connection that is closed now; a new one is made for the new.
    m_query = QSqlQuery();
    const QDeadlineTimer limit(kReopenLimitMs);
    for (;;) {
        m_database.close();
        if (m_database.open()) {
            m_query = QSqlQuery(m_database);
            if (m_opened)
                m_opened(m_database);
            return true;
        }
        error = m_database.lastError().text().simplified();
        if (limit.hasExpired() || stop())
            return false;
        QThread::msleep(kReopenPollMs);
    }
}
