#include "support/SqlClient.h"

#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QUuid>

#include <functional>

namespace {
QString run(const SqlClient &client, const QString &sql, const QString &database, QStringList *values)
{
    const QString name = QStringLiteral("test_client_") + QUuid::createUuid().toString(QUuid::Id128);
    QString error;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), name);
        db.setHostName(client.host);
        db.setPort(client.port);
        db.setDatabaseName(database);
        db.setUserName(client.user);
        db.setPassword(client.password);
        QSqlQuery query(db);
        query.setForwardOnly(true);
        if (!db.open())
            error = db.lastError().text();
        else if (!query.exec(sql))
            error = query.lastError().text();
        while (values && error.isEmpty() && query.next())
            *values << query.value(0).toString();
    }
    QSqlDatabase::removeDatabase(name);
    return error;
}
} // namespace

QString SqlClient::execute(const QString &sql, const QString &database) const
{
    return run(*this, sql, database, nullptr);
}

QStringList SqlClient::column(const QString &sql, const QString &database) const
{
    QStringList values;
    run(*this, sql, database, &values);
    return values;
}
