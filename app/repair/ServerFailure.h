#pragma once

#include <QString>

#include <functional>

class QSqlDatabase;
class QSqlQuery;

// Why a statement of the tool's own modes failed, as far as it decides what the run does next.
class ServerFailure
{
public:
    enum class Kind {
        // Tied to the rows the statement touched (a trigger, a constraint, a row-level security
        // policy, a value the column refuses, a remote server behind a foreign table, or a reason
        // the server does not class): the unit is split, and the rows that still fail are left.
        Rows,
        // A lock waited on past the tool's bound, a deadlock, a statement cancelled by someone
        // else: tried again after the other units.
        Retry,
        // The tool's own connection is gone: it is opened again and the unit redone.
        Connection,
        // The run's own interrupt cancelled it.
        Interrupted,
        // No other unit can succeed either (a read-only database, a full disk, missing rights or
        // objects): the run stops.
        Run,
    };

    // What decides the kind, besides the SQLSTATE: never the server's words, which come in the
    // server's language.
    struct Facts {
        QString sqlState;
        // The tool's own connection to the server is gone.
        bool connectionLost = false;
        // The run's own interrupt is raised.
        bool interrupted = false;
        // The role holds what the unit's statement needs on the relation it writes, as the
        // server says; a refusal of privilege is then one of the rows' (a row-level security
        // policy's check).
        bool mayWrite = false;
    };

    // mayWrite is asked only after a refusal of privilege on a connection still open.
    static ServerFailure of(
        const QSqlQuery &query, const QSqlDatabase &database, bool interrupted, const std::function<bool()> &mayWrite);
    static Kind classify(const Facts &facts);
    // Whether the session's role may read and update column of relation: usage of its schema,
    // SELECT and UPDATE of the column and SELECT of instance_id, which every repair reads.
    static bool roleMayWrite(QSqlQuery &query, const QString &relation, const QString &column);

    Kind kind() const { return m_kind; }
    // The server's (or libpq's) own words, on one line.
    QString serverMessage() const { return m_serverMessage; }
    QString sqlState() const { return m_sqlState; }

private:
    Kind m_kind = Kind::Rows;
    QString m_serverMessage;
    QString m_sqlState;
};
