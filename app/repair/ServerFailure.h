#pragma once

#include <QString>

class QSqlDatabase;
class QSqlQuery;

// Why a statement of the tool's own modes failed, as far as it decides what the run does next.
class ServerFailure
{
public:
    enum class Kind {
        // Tied to the rows the statement touched (a trigger, a constraint, a value the column
        // refuses, or a reason the server does not class): the unit is split, and the rows that
        // still fail are left.
        Rows,
        // A lock waited on past the tool's bound, a deadlock, a statement cancelled by someone
        // else: tried again after the other units.
        Retry,
        // The connection is gone: it is opened again and the unit redone.
        Connection,
        // The run's own interrupt cancelled it.
        Interrupted,
        // No other unit can succeed either (a read-only database, a full disk, missing rights or
        // objects): the run stops.
        Run,
    };

    static ServerFailure of(const QSqlQuery &query, const QSqlDatabase &database, bool interrupted);

    Kind kind() const { return m_kind; }
    // The server's (or libpq's) own words, on one line.
    QString words() const { return m_words; }
    QString sqlState() const { return m_sqlState; }

    static Kind classify(const QString &sqlState);

private:
    Kind m_kind = Kind::Rows;
    QString m_words;
    QString m_sqlState;
};
