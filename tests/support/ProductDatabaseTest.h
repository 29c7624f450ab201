#pragma once

#include "support/SharedServerTest.h"
#include "support/ToolSandbox.h"

#include <gtest/gtest.h>

// The product tables the pass reads and writes, and a sandbox whose information file
// points the tool at them.
class ProductDatabaseTest : public SharedServerTest
{
protected:
    void SetUp() override
    {
        SharedServerTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        ASSERT_EQ(db(QStringLiteral("CREATE SCHEMA warehouse; CREATE TABLE warehouse.control_refresh (instance_id int "
                                    "PRIMARY KEY, last_request_id bigint); CREATE SCHEMA scan; CREATE TABLE scan.file "
                                    "(id serial PRIMARY KEY, instance_id int, request_id bigint, "
                                    "filetype_details text);")),
            QString());
        provision(m_sandbox, s_server->port());
    }

    static void provision(const ToolSandbox &sandbox, int port, const QString &dbName = product())
    {
        const ToolSandbox::Result result = sandbox.runDbInfo(
            {QStringLiteral("set"), QStringLiteral("host=127.0.0.1"), QStringLiteral("port=%1").arg(port),
                QStringLiteral("user=%1").arg(QLatin1String(TestPostgresServer::kUser)),
                QStringLiteral("password=%1").arg(QLatin1String(TestPostgresServer::kPassword)),
                QStringLiteral("type=remote"), QStringLiteral("dbname=") + dbName});
        ASSERT_EQ(result.exitCode, 0) << result.err.constData();
    }

    static QString quoted(const QString &text)
    {
        return QLatin1Char('\'') + QString(text).replace(QLatin1Char('\''), QStringLiteral("''")) + QLatin1Char('\'');
    }
    static QString db(const QString &sql) { return s_server->execute(sql, product()); }
    static QStringList rows(const QString &sql) { return s_server->column(sql, product()); }

    // The server's own replacement of a text expression, with the expression the pass must
    // apply stated here independently of the tool.
    static QString serverReplacement(const QString &expression)
    {
        const QString pattern
            = QStringLiteral(R"((?<![\\]ud[89ab][0-9a-f]{2})[\\]+(?=ud[c-f][0-9a-f]{2})|)"
                             R"([\\]+(?=ud[89ab][0-9a-f]{2}(?![\\]ud[c-f][0-9a-f]{2}))|[\\]+(?=u0000|x))");
        return QStringLiteral(R"(regexp_replace(%1, %2, '\\\\', 'gi'))").arg(expression, quoted(pattern));
    }

    void addInstances(const QList<int> &ids) const
    {
        for (int id : ids)
            ASSERT_EQ(db(QStringLiteral("INSERT INTO warehouse.control_refresh VALUES (%1, 0)").arg(id)), QString());
    }

    void addRow(int instance, int request, const QString &document) const
    {
        ASSERT_EQ(db(QStringLiteral("INSERT INTO scan.file (instance_id, request_id, filetype_details) "
                                    "VALUES (%1, %2, %3)")
                          .arg(instance)
                          .arg(request)
                          .arg(quoted(document))),
            QString());
    }

    ToolSandbox m_sandbox;
};
