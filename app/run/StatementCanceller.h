#pragma once

#include <QSqlDatabase>

#include <mutex>
#include <vector>

struct pg_cancel;

// Cancels the statement in flight on every connection of the run, from any thread: the
// server rolls it back whole and the connection stays usable. A cancel that reaches a
// connection with nothing in flight does nothing.
class StatementCanceller
{
public:
    StatementCanceller() = default;
    ~StatementCanceller();
    StatementCanceller(const StatementCanceller &) = delete;
    StatementCanceller &operator=(const StatementCanceller &) = delete;

    // Keeps what cancelling needs of an open PostgreSQL connection.
    void add(const QSqlDatabase &database);
    void cancelAll();

private:
    std::mutex m_mutex;
    std::vector<pg_cancel *> m_handles;
};
