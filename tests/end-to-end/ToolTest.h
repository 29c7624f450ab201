#pragma once

#include "support/Eventually.h"
#include "support/QtPrinters.h"
#include "support/TestServer.h"
#include "support/ToolSandbox.h"

#include "app/repair/UnitSizer.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QProcess>
#include <QSqlQuery>

#include <functional>
#include <optional>

using namespace Qt::StringLiterals;

// A document with a lone surrogate escape, and what the pass makes of it.
inline const QString kBad = uR"({"type":"PE32","name":"lone \ud800 here"})"_s;
inline const QString kFixed = uR"({"type":"PE32","name":"lone \\ud800 here"})"_s;

// The text as an SQL string literal.
inline QString quoted(const QString &text)
{
    return u'\'' + QString(text).replace(u'\'', u"''"_s) + u'\'';
}

// The rows of the product's table whose text is exactly this.
inline int count(const QString &text)
{
    const QString counted = u"SELECT count(*) FROM scan.file WHERE filetype_details = "_s + quoted(text);
    return TestServer::shared().sql(counted).value(0).toInt();
}

// A trigger before every update of scan.file, for each ROW (with a WHEN clause if given) or STATEMENT,
// that runs the PL/pgSQL body; the function has the trigger's name.
inline QString trigger(const QString &name, const QString &body, const QString &each = u"ROW"_s)
{
    return u"CREATE FUNCTION %1() RETURNS trigger AS $$ BEGIN %2 END $$ LANGUAGE plpgsql; CREATE TRIGGER %1 BEFORE "
           "UPDATE ON scan.file FOR EACH %3 EXECUTE FUNCTION %1();"_s.arg(name, body, each);
}

// A session of its own on the product's database that holds what the statement locks until it
// ends its transaction or goes.
class HeldLock
{
public:
    explicit HeldLock(const QString &statement)
    {
        const QSqlDatabase session = TestServer::connectionAt(TestServer::shared().port(), u"product"_s, kName);
        m_query.emplace(session);
        m_held = m_query->exec(u"BEGIN"_s) && m_query->exec(statement) && m_query->exec(u"SELECT pg_backend_pid()"_s)
            && m_query->next();
        m_pid = m_query->value(0).toString();
    }
    ~HeldLock()
    {
        end();
        m_query.reset();
        QSqlDatabase::removeDatabase(kName);
    }
    HeldLock(const HeldLock &) = delete;
    HeldLock &operator=(const HeldLock &) = delete;

    // Until end().
    bool held() const { return m_held; }
    QString pid() const { return m_pid; }
    bool end(const QString &how = u"ROLLBACK"_s)
    {
        const bool ended = m_held && m_query->exec(how);
        m_held = false;
        return ended;
    }

private:
    static constexpr const char *kName = "holder";
    std::optional<QSqlQuery> m_query;
    bool m_held = false;
    QString m_pid;
};

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
        // The roles some cases run the tool as, gone with the database that held their grants.
        server().sql(u"DROP ROLE IF EXISTS timed, limited, verifier"_s, u"postgres"_s);
        sql(TestServer::productSchema());
        m_sandbox.writeConfig(QByteArray());
        QDir().mkpath(m_sandbox.dataDirectory() + QStringLiteral("/logs"));
        ASSERT_TRUE(m_sandbox.provision(server().port(), QStringLiteral("product")));
    }

    static TestServer &server() { return TestServer::shared(); }
    static QStringList sql(const QString &statements) { return server().sql(statements); }
    // A setup that runs the statements.
    static std::function<void()> running(const QString &statements)
    {
        return [statements] { sql(statements); };
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
        sql(trigger(u"refuse_two"_s,
            u"IF NEW.instance_id = 2 THEN RAISE EXCEPTION 'instance two is locked'; END IF; RETURN NEW;"_s));
    }
    // Units of one block, so that a run lasts long enough to be met half way.
    void startInSmallUnits(QProcess &tool, const QStringList &arguments) const
    {
        qputenv(UnitSizer::kBlocksVariable, "1");
        m_sandbox.startTool(tool, arguments);
        qunsetenv(UnitSizer::kBlocksVariable);
    }
    // A killed run's statement is finished or abandoned by the server on its own: either way whole.
    static void waitForItsStatementsToEnd()
    {
        ASSERT_TRUE(eventually([] {
            return sql(u"SELECT count(*) FROM pg_stat_activity WHERE query LIKE 'UPDATE scan.file%' OR query LIKE "
                       "'WITH%'"_s)
                == QStringList({u"0"_s});
        }));
    }
    // Each line of the run log is a stamped entry of its own: no console line, no second line of a text.
    QStringList unstampedLines() const
    {
        static const QRegularExpression entry(u"^\\[(INFO\\t|WARNING|ERROR\\t)\\] \\d{4}\\.\\d\\d\\.\\d\\d "_s);
        QStringList lines
            = QString::fromUtf8(ToolSandbox::read(m_sandbox.runLogPath())).split(u'\n', Qt::SkipEmptyParts);
        lines.removeIf([](const QString &line) { return entry.match(line).hasMatch(); });
        return lines;
    }
    QByteArray fileLogLine() const { return "File log: " + m_sandbox.runLogPath().toUtf8() + "\n"; }
    static QByteArray doneLine(int instance)
    {
        return "Data normalization is done, data: filetype_details, instance id: " + QByteArray::number(instance)
            + "\n";
    }

    ToolSandbox m_sandbox;
};
