#pragma once

#include <QString>

class QSqlDatabase;
class QSqlDriver;
struct pg_conn;

// The libpq connection under an open Qt PostgreSQL connection, for what Qt does not offer:
// cancel requests, the connection's state and the server process's id.
class LibpqHandle
{
public:
    // Null when the connection is not an open PostgreSQL one.
    static pg_conn *of(const QSqlDatabase &database);
    static pg_conn *of(const QSqlDriver *driver);
    // The connection is known to be gone (the server ended it, or the network did).
    static bool lost(const QSqlDatabase &database);
    // The server process serving the connection, or 0.
    static int serverProcess(const QSqlDatabase &database);
    static int serverProcess(const QSqlDriver *driver);
    // libpq's own last message on the connection, for when Qt's error text is empty.
    static QString lastMessage(const QSqlDatabase &database);
};
