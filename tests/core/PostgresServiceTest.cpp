#include "core/PostgresService.h"
#include "config/loader/CoreConfigLoader.h"
#include "core/ConnectionText.h"
#include "core/server/control/WindowsServiceControl.h"
#include "support/QtPrinters.h"
#include "support/RecordingProcessRunner.h"
#include "support/TestServer.h"
#include "support/ToolSandbox.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QSettings>
#include <QSqlError>
#include <QSqlQuery>

using namespace Qt::StringLiterals;

namespace {

// The service object over a sandbox provisioned for the test server, with the given changes.
struct ServiceUnderTest {
    ServiceUnderTest(const QByteArray &config, const QStringList &changes)
        : sandbox(config)
    {
        EXPECT_TRUE(sandbox.provision(TestServer::shared().port(), u"product"_s, u"remote"_s,
            QStringList{u"deployment_id=dep123"_s, u"private_password=x"_s} + changes));
        loader = std::make_unique<core::CoreConfigLoader>(QSettings(sandbox.configPath(), QSettings::IniFormat), u""_s);
        service = std::make_unique<core::PostgresService>(loader.get(), false, false);
    }

    ToolSandbox sandbox;
    std::unique_ptr<core::CoreConfigLoader> loader;
    std::unique_ptr<core::PostgresService> service;
};

class PostgresServiceTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!server().error().isEmpty())
            GTEST_SKIP() << "no test server: " << server().error().toStdString();
        server().freshProductDatabase();
    }

    static TestServer &server() { return TestServer::shared(); }
};

// Instance 7 ("inst7") has every schema at its minimum; instance 9 ("dep123") has auditlog behind.
QString productSchemas()
{
    QString sql = u"CREATE SCHEMA register; CREATE TABLE register.instance (instance_id int, instance_name text);"
                  "INSERT INTO register.instance VALUES (7, 'inst7'), (9, 'dep123'); CREATE SCHEMA warehouse;"
                  "CREATE TABLE warehouse.control_schema_version (instance_id int, version int);"
                  "INSERT INTO warehouse.control_schema_version VALUES (7, 3), (9, 3);"_s;
    for (auto it = core::PostgresService::requiredSchemaVersions.cbegin();
         it != core::PostgresService::requiredSchemaVersions.cend(); ++it) {
        if (it.key() != QLatin1String("register"))
            sql += u"CREATE SCHEMA %1;"_s.arg(it.key());
        sql += u"CREATE TABLE %1.schema_version (instance_id int, version int);"
               "INSERT INTO %1.schema_version VALUES (7, %2), (9, %3);"_s.arg(it.key())
                   .arg(it.value())
                   .arg(it.key() == QLatin1String("auditlog") ? it.value() - 1 : it.value());
    }
    return sql;
}

} // namespace

TEST_F(PostgresServiceTest, UpgradeCheckOutcomes)
{
    const struct {
        const char *name;
        QByteArray config;
        const char *sql;
        QStringList changes;
        bool upgradeNeeded;
    } cases[] = {
        {"every schema at its minimum", "instance_name=inst7\n", "", {}, false},
        {"standalone falls back to the deployment id", "", "", {}, true},
        {"standalone without a deployment row", "", "", {"deployment_id=nobody"}, false},
        {"shared mode without an instance row", "instance_name=dep\ndbmode=2\n", "", {}, false},
        {"control table without instance column, behind", "instance_name=inst7\n",
            "ALTER TABLE warehouse.control_schema_version DROP COLUMN instance_id;"
            "UPDATE warehouse.control_schema_version SET version = 2;",
            {}, true},
        {"stored upgrade mark", "instance_name=inst7\n", "", {"is_need_db_upgrade=true"}, true},
        {"unreachable database", "", "", {"dbname=missing"}, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        server().sql(productSchemas() + QLatin1String(c.sql));
        ServiceUnderTest under(c.config, c.changes);
        ASSERT_TRUE(under.service->init(false, true, false));
        EXPECT_EQ(under.service->upgradeNeeded(), c.upgradeNeeded);
        EXPECT_FALSE(QSqlDatabase::connectionNames().join(QLatin1Char(',')).contains(u"kvcore"_s));
    }
}

// A registered but stopped service is unregistered and registered anew and, unless the server
// already answers, started; a server this run started is stopped at destruction, twice in
// standalone mode with stopOnDestroy. The Windows backend's commands are recorded and the
// real test server answers for the service.
TEST_F(PostgresServiceTest, ServiceCommandsOfTheInitSequenceAndTheDestructor)
{
    if (server().isExternal())
        GTEST_SKIP() << "the service commands start and stop the test server, which a test script runs here";
    const auto script = std::make_shared<RecordingProcessRunner::Script>();
    // The program and its first argument of each command line.
    const auto commands = [&script] {
        QStringList programs;
        for (const QString &line : qAsConst(script->lines))
            programs << line.section(QLatin1Char('|'), 0, 1).section(QLatin1Char('/'), -1);
        return programs;
    };
    const QStringList registration = {u"net|stop"_s, u"pg_ctl|unregister"_s, u"pg_ctl|register"_s, u"sc|failure"_s,
        u"sc|description"_s, u"sc|config"_s};
    const QStringList stop = {u"net|stop"_s, u"net|stop"_s, u"pg_ctl|unregister"_s};
    const struct {
        QByteArray config;
        bool alreadyAnswering;
        bool stopOnDestroy;
        int stops;
    } cases[] = {{"", true, true, 0}, {"", false, true, 2}, {"", false, false, 1}, {"dbmode=2\n", false, true, 1},
        {"dbmode=4\n", false, false, 0}};
    script->exitCodes.insert(u"pg_ctl status"_s, 3);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.config.constData() + std::to_string(c.alreadyAnswering) + std::to_string(c.stopOnDestroy));
        script->hooks.clear();
        if (!c.alreadyAnswering) {
            server().stop();
            script->hooks.insert(u"net start"_s, [] { server().start(); });
            script->hooks.insert(u"net stop"_s, [] { server().stop(); });
        }
        script->lines.clear();
        auto under = std::make_unique<ServiceUnderTest>(c.config, QStringList{u"type=local"_s});
        // An existing cluster, so that only the service commands are exercised.
        QDir().mkpath(under->sandbox.dataDirectory() + u"/pg_data/global"_s);
        for (const QString &file : {u"PG_VERSION"_s, u"global/pg_control"_s})
            ToolSandbox::write(under->sandbox.dataDirectory() + u"/pg_data/"_s + file, "15");
        server().account().handOver(under->sandbox.installation());
        under->service->setServiceControlFactory([&script](const core::ServiceContext &context, const auto &) {
            return std::make_unique<core::WindowsServiceControl>(
                context, std::make_unique<RecordingProcessRunner>(script));
        });
        under->service->stopOnDestroy = c.stopOnDestroy;
        // Something that answers where the service is not running is not the installation's own
        // server: init refuses it before any service command, while a start asked for directly
        // takes it as already started and issues none.
        EXPECT_EQ(under->service->init(false, true, false), !c.alreadyAnswering);
        EXPECT_EQ(commands(),
            (QStringList{u"pg_ctl|status"_s}
                + (c.alreadyAnswering ? QStringList()
                                      : QStringList{u"sc|query"_s} + registration
                            + QStringList{u"net|start"_s, u"pg_ctl|status"_s, u"sc|query"_s})));
        EXPECT_EQ(under->service->operatorAdvice().startsWith(u"Another program already listens on 127.0.0.1:"_s),
            c.alreadyAnswering);
        if (c.alreadyAnswering) {
            script->lines.clear();
            EXPECT_TRUE(under->service->startService());
            EXPECT_EQ(commands(), QStringList());
        }
        script->lines.clear();
        under.reset();
        EXPECT_EQ(commands(), (stop + stop).mid(0, c.stops * stop.size()));
        server().stop();
        ASSERT_TRUE(server().start()) << server().error().toStdString();
    }
}

// Every text of a connection reaches the server as UTF-8, and the server talks UTF-8 from the
// first message on, whatever the environment asks for.
TEST_F(PostgresServiceTest, ConnectionTextsReachTheServerAsUtf8)
{
    const QString database = u"Datenbank Größe"_s;
    const QString user = u"Bénutzer Ä"_s;
    const QString password = u"pässwort €"_s;
    for (const QString &statement : {u"DROP DATABASE IF EXISTS \"%1\""_s.arg(database),
             u"DROP ROLE IF EXISTS \"%1\""_s.arg(user), u"CREATE ROLE \"%1\" LOGIN PASSWORD '%2'"_s.arg(user, password),
             u"CREATE DATABASE \"%1\" OWNER \"%2\""_s.arg(database, user)})
        server().sql(statement, u"postgres"_s);
    ServiceUnderTest under(QByteArray(), {u"user="_s + user, u"password="_s + password, u"dbname="_s + database});
    ASSERT_TRUE(under.service->init(false, true, false));
    qputenv("PGCLIENTENCODING", "LATIN1");
    QSqlDatabase connection;
    QString name;
    const bool opened = under.service->openConnection(connection, database, name, true);
    qunsetenv("PGCLIENTENCODING");
    ASSERT_TRUE(opened) << connection.lastError().text().toStdString();
    QSqlQuery query(u"SELECT current_database(), current_user, reset_val "
                    "FROM pg_settings WHERE name = 'client_encoding'"_s,
        connection);
    ASSERT_TRUE(query.next()) << query.lastError().text().toStdString();
    EXPECT_EQ(query.value(0).toString(), database);
    EXPECT_EQ(query.value(1).toString(), user);
    EXPECT_EQ(query.value(2).toString(), u"UTF8"_s) << "the encoding the connection started with";
    query.finish();
    connection.close();
    connection = QSqlDatabase();
    QSqlDatabase::removeDatabase(name);
}

// What the driver's local 8-bit conversion makes of a text is its UTF-8 bytes, in every code page
// that can carry them (on Windows the ANSI code page: 1252 under the Wine tests).
TEST(ConnectionTextTest, TheDriverPassesUtf8Bytes)
{
    for (const QString &text : {u"sentrova_core_abc123"_s, u"Datenbank Größe"_s, u"pässwort €"_s, u"Ÿ‰ÿ"_s}) {
        const std::optional<QString> carried = core::ConnectionText::forDriver(text);
        ASSERT_TRUE(carried.has_value()) << text.toStdString();
        EXPECT_EQ(carried->toLocal8Bit(), text.toUtf8()) << text.toStdString();
    }
}
