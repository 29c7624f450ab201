#pragma once

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>

#include <functional>

// One connection of a run's jobs, with the query its units run on. A connection the server or
// the network ended is opened again, within bounds, so that its unit can be redone.
class WorkerConnection
{
public:
    // A server that restarts comes back within seconds, after crash recovery within a minute or
    // so; a network that stays away longer than this ends the run.
    static constexpr int kReopenLimitMs = 60000;
    static constexpr int kReopenPollMs = 1000;

    // opened: told of the connection each time it is open again (for cancelling its statements).
    WorkerConnection(const QSqlDatabase &database, std::function<void(const QSqlDatabase &)> opened);

    QSqlQuery &query() { return m_query; }
    const QSqlDatabase &database() const { return m_database; }

    // Opens the connection again; false once kReopenLimitMs have passed or stop() holds, with
    // the last reason in error.
    bool reopen(const std::function<bool()> &stop, QString &error);

private:
    QSqlDatabase m_database;
    QSqlQuery m_query;
    std::function<void(const QSqlDatabase &)> m_opened;
};
