#include "app/repair/ServerFailure.h"

#include "app/run/LibpqHandle.h"

#include <QSqlError>
#include <QSqlQuery>
#include <QStringList>

namespace {
// SQLSTATE codes and classes, as PostgreSQL numbers them.
const QString kQueryCanceled = QStringLiteral("57014");
const QStringList kRetried
    = {QStringLiteral("55P03"), QStringLiteral("40P01"), QStringLiteral("40001"), kQueryCanceled};
const QStringList kConnectionStates = {QStringLiteral("57P01"), QStringLiteral("57P02"), QStringLiteral("57P03")};
const QString kConnectionClass = QStringLiteral("08");
// Read-only transaction, insufficient resources (disk full, out of memory), system errors
// (I/O), missing privileges, objects or features: every unit would fail alike.
const QStringList kRunStates = {QStringLiteral("25006"), QStringLiteral("42501"), QStringLiteral("42P01"),
    QStringLiteral("42703"), QStringLiteral("42883"), QStringLiteral("42804"), QStringLiteral("0A000")};
const QStringList kRunClasses = {QStringLiteral("53"), QStringLiteral("58")};
} // namespace

ServerFailure::Kind ServerFailure::classify(const QString &sqlState)
{
    if (kRetried.contains(sqlState))
        return Kind::Retry;
    if (kConnectionStates.contains(sqlState) || sqlState.startsWith(kConnectionClass))
        return Kind::Connection;
    if (kRunStates.contains(sqlState) || kRunClasses.contains(sqlState.left(2)))
        return Kind::Run;
    return Kind::Rows;
}

ServerFailure ServerFailure::of(const QSqlQuery &query, const QSqlDatabase &database, bool interrupted)
{
    ServerFailure failure;
    const QSqlError error = query.lastError();
    failure.m_sqlState = error.nativeErrorCode();
    // The server's own text; the driver's adds only that its query failed.
    failure.m_words = error.databaseText().simplified();
    if (failure.m_words.isEmpty())
        failure.m_words = LibpqHandle::lastMessage(database).simplified();
    if (failure.m_words.isEmpty())
        failure.m_words = error.text().simplified();
    if (LibpqHandle::lost(database))
        failure.m_kind = Kind::Connection;
    else if (interrupted && failure.m_sqlState == kQueryCanceled)
        failure.m_kind = Kind::Interrupted;
    else
        failure.m_kind = classify(failure.m_sqlState);
    return failure;
}
