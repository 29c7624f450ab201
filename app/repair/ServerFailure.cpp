#include "app/repair/ServerFailure.h"

#include "app/repair/RepairStatements.h"
#include "app/run/LibpqHandle.h"
#include "app/sql/SqlLiteral.h"

#include <QSqlError>
#include <QSqlQuery>
#include <QStringList>

namespace {
// SQLSTATE codes and classes, as PostgreSQL numbers them.
const QString kQueryCanceled = QStringLiteral("57014");
const QString kInsufficientPrivilege = QStringLiteral("42501");
const QStringList kRetried
    = {QStringLiteral("55P03"), QStringLiteral("40P01"), QStringLiteral("40001"), kQueryCanceled};
// The server ends the session (an administrator, a crash, a shutdown). Class 08 is not here: a
// foreign-data wrapper raises it for its own remote connection while the tool's is alive.
const QStringList kConnectionStates = {QStringLiteral("57P01"), QStringLiteral("57P02"), QStringLiteral("57P03")};
// Read-only transaction, insufficient resources (disk full, out of memory), system errors
// (I/O), missing objects or features: every unit would fail alike.
const QStringList kRunStates = {QStringLiteral("25006"), QStringLiteral("42P01"), QStringLiteral("42703"),
    QStringLiteral("42883"), QStringLiteral("42804"), QStringLiteral("0A000")};
const QStringList kRunClasses = {QStringLiteral("53"), QStringLiteral("58")};
} // namespace

ServerFailure::Kind ServerFailure::classify(const Facts &facts)
{
    if (facts.connectionLost || kConnectionStates.contains(facts.sqlState))
        return Kind::Connection;
    if (facts.sqlState == kQueryCanceled && facts.interrupted)
        return Kind::Interrupted;
    if (kRetried.contains(facts.sqlState))
        return Kind::Retry;
    if (facts.sqlState == kInsufficientPrivilege)
        return facts.mayWrite ? Kind::Rows : Kind::Run;
    if (kRunStates.contains(facts.sqlState) || kRunClasses.contains(facts.sqlState.left(2)))
        return Kind::Run;
    return Kind::Rows;
}

ServerFailure ServerFailure::of(
    const QSqlQuery &query, const QSqlDatabase &database, bool interrupted, const std::function<bool()> &mayWrite)
{
    ServerFailure failure;
    const QSqlError error = query.lastError();
    failure.m_sqlState = error.nativeErrorCode();
    // The server's own text; the driver's adds only that its query failed.
    failure.m_serverMessage = error.databaseText().simplified();
    if (failure.m_serverMessage.isEmpty())
        failure.m_serverMessage = LibpqHandle::lastMessage(database).simplified();
    if (failure.m_serverMessage.isEmpty())
        failure.m_serverMessage = error.text().simplified();
    Facts facts;
    facts.sqlState = failure.m_sqlState;
    facts.connectionLost = LibpqHandle::lost(database);
    facts.interrupted = interrupted;
    facts.mayWrite = facts.sqlState == kInsufficientPrivilege && !facts.connectionLost && mayWrite && mayWrite();
    failure.m_kind = classify(facts);
    return failure;
}

// Without usage of the schema the server refuses to look the relation up at all: a check that
// fails is a "no".
bool ServerFailure::roleMayWrite(QSqlQuery &query, const QString &relation, const QString &column)
{
    const QString name = SqlLiteral::of(relation);
    const QString columnName = SqlLiteral::of(column);
    const QString check = QStringLiteral("SELECT has_column_privilege(%1, %2, 'SELECT') AND has_column_privilege(%1, "
                                         "%2, 'UPDATE') AND has_column_privilege(%1, 'instance_id', 'SELECT')")
                              .arg(name, columnName);
    return query.exec(check) && query.next() && query.value(0).toBool();
}
