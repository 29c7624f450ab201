#pragma once

#include "support/Eventually.h"
#include "support/QtPrinters.h"
#include "support/TestServer.h"
#include "support/ToolSandbox.h"

#include <gtest/gtest.h>

#include <QDir>

// The real tool against the program's throwaway server: a fresh product database with the
// tables the pass reads and writes, and a sandbox whose information file points at it.
class ToolTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!server().error().isEmpty())
            GTEST_SKIP() << "no test server: " << server().error().toStdString();
        server().freshProductDatabase();
        sql(TestServer::productSchema());
        m_sandbox.writeConfig(QByteArray());
        QDir().mkpath(m_sandbox.dataDirectory() + QStringLiteral("/logs"));
        ASSERT_TRUE(m_sandbox.provision(server().port(), QStringLiteral("product")));
    }

    static TestServer &server() { return TestServer::shared(); }
    static QStringList sql(const QString &statements) { return server().sql(statements); }
    static QString quoted(const QString &text)
    {
        return QLatin1Char('\'') + QString(text).replace(QLatin1Char('\''), QStringLiteral("''")) + QLatin1Char('\'');
    }
    static void addInstances(const QList<int> &ids)
    {
        for (int id : ids)
            sql(QStringLiteral("INSERT INTO warehouse.control_refresh VALUES (%1, 0)").arg(id));
    }
    static void addRow(int instance, int request, const QString &document)
    {
        sql(QStringLiteral("INSERT INTO scan.file (instance_id, request_id, filetype_details) VALUES (%1, %2, %3)")
                .arg(QString::number(instance), QString::number(request), quoted(document)));
    }
    // Instance 2 has a row whose update fails on the server.
    static void failInstanceTwo()
    {
        addRow(2, 5, QStringLiteral("{}"));
        sql(QStringLiteral("CREATE FUNCTION refuse_two() RETURNS trigger AS $$ BEGIN IF NEW.instance_id = 2 THEN "
                           "RAISE EXCEPTION 'instance two is locked'; END IF; RETURN NEW; END $$ LANGUAGE plpgsql;"
                           "CREATE TRIGGER refuse BEFORE UPDATE ON scan.file FOR EACH ROW EXECUTE FUNCTION "
                           "refuse_two();"));
    }
    QByteArray fileLogLine() const { return "File log: " + m_sandbox.runLogPath().toUtf8() + "\n"; }
    static QByteArray doneLine(int instance)
    {
        return "Data normalization is done, data: filetype_details, instance id: " + QByteArray::number(instance)
            + "\n";
    }

    ToolSandbox m_sandbox;
};
