#include "core/PostgresService.h"
#include "config/exceptions/Exception.h"
#include "core/server/control/WindowsServiceControl.h"
#include "support/CapturingLogOutput.h"
#include "support/QtPrinters.h"
#include "support/RecordingProcessRunner.h"
#include "support/ServiceSandbox.h"
#include "support/SharedServerTest.h"

#include <gtest/gtest.h>

#include <QRegularExpression>
#include <QSqlDatabase>
#include <QThread>

namespace {

const QString kProductDb = QStringLiteral("product");

// The product schemas the upgrade check reads, every version at its minimum.
QString productSchema(bool controlHasInstanceId)
{
    QString sql = QStringLiteral("CREATE SCHEMA register; CREATE TABLE register.instance (instance_id int, "
                                 "instance_name text); INSERT INTO register.instance VALUES (7, 'inst7'), "
                                 "(9, 'dep123');");
    for (auto it = core::PostgresService::requiredSchemaVersions.cbegin();
         it != core::PostgresService::requiredSchemaVersions.cend(); ++it) {
        if (it.key() != QLatin1String("register"))
            sql += QStringLiteral("CREATE SCHEMA %1;").arg(it.key());
        sql += QStringLiteral("CREATE TABLE %1.schema_version (instance_id int, version int);"
                              "INSERT INTO %1.schema_version VALUES (7, %2), (9, %2);")
                   .arg(it.key())
                   .arg(it.value());
    }
    sql += controlHasInstanceId
        ? QStringLiteral("CREATE SCHEMA warehouse; CREATE TABLE warehouse.control_schema_version "
                         "(instance_id int, version int); INSERT INTO warehouse.control_schema_version "
                         "VALUES (7, 3), (9, 3);")
        : QStringLiteral("CREATE SCHEMA warehouse; CREATE TABLE warehouse.control_schema_version "
                         "(version int); INSERT INTO warehouse.control_schema_version VALUES (3);");
    return sql;
}

} // namespace

class PostgresServiceTest : public SharedServerTest
{
protected:
    core::PostgresInformation remoteInformation(const QString &password = QLatin1String(TestPostgresServer::kPassword))
    {
        core::PostgresInformation info;
        info.host = s_server->host();
        info.port = s_server->port();
        info.user = QLatin1String(TestPostgresServer::kUser);
        info.password = password;
        info.type = QStringLiteral("remote");
        info.dbName = kProductDb;
        info.deploymentId = QStringLiteral("dep123");
        info.instanceName = QStringLiteral("inst7");
        info.privatePassword = QStringLiteral("x");
        return info;
    }

    // Schemas whose version the check read, in order, from the server's statement log.
    static QStringList queriedSchemas()
    {
        QStringList schemas;
        const QRegularExpression pattern(QStringLiteral("SELECT version from (\\w+)\\.schema_version"));
        auto it = pattern.globalMatch(s_server->serverLog());
        while (it.hasNext())
            schemas << it.next().captured(1);
        return schemas;
    }

    static QStringList allSchemas() { return core::PostgresService::requiredSchemaVersions.keys(); }

    bool runCheck(const QByteArray &config = QByteArray())
    {
        ServiceSandbox sandbox(config);
        sandbox.provision(m_information);
        auto service = sandbox.service();
        s_server->clearServerLog();
        EXPECT_TRUE(service->init(false, true, false));
        EXPECT_FALSE(QSqlDatabase::connectionNames().join(QLatin1Char(',')).contains(QStringLiteral("kvcore")));
        return service->upgradeNeeded();
    }

    ScopedLogCapture m_capture;
    core::PostgresInformation m_information = remoteInformation();
};

TEST_F(PostgresServiceTest, AllSchemasAtTheirMinimumNeedNoUpgrade)
{
    ASSERT_EQ(s_server->execute(productSchema(true), kProductDb), QString());
    EXPECT_FALSE(runCheck("instance_name=inst7\n"));
    EXPECT_EQ(queriedSchemas(), allSchemas());
    EXPECT_TRUE(s_server->serverLog().contains(
        QStringLiteral("SELECT version FROM warehouse.control_schema_version WHERE instance_id=7;")));
    EXPECT_TRUE(m_capture.output->messages().contains(QStringLiteral("Upgrade database status: 0")));
}

TEST_F(PostgresServiceTest, WalkStopsAtTheFirstSchemaBehindAndStillChecksTheControlTable)
{
    ASSERT_EQ(s_server->execute(
                  productSchema(true) + QStringLiteral("UPDATE dlp.schema_version SET version = 5;"), kProductDb),
        QString());
    EXPECT_TRUE(runCheck("instance_name=inst7\n"));
    const QStringList expected = allSchemas().mid(0, allSchemas().indexOf(QStringLiteral("dlp")) + 1);
    EXPECT_EQ(queriedSchemas(), expected);
    EXPECT_TRUE(s_server->serverLog().contains(QStringLiteral("SELECT version FROM warehouse.control_schema_version")));
    EXPECT_TRUE(m_capture.output->messages().contains(QStringLiteral("Upgrade database status: 1")));
}

TEST_F(PostgresServiceTest, SchemaWithoutVersionTableIsSkipped)
{
    ASSERT_EQ(s_server->execute(productSchema(true) + QStringLiteral("DROP TABLE cloud.schema_version;"), kProductDb),
        QString());
    EXPECT_FALSE(runCheck("instance_name=inst7\n"));
    QStringList expected = allSchemas();
    expected.removeAll(QStringLiteral("cloud"));
    EXPECT_EQ(queriedSchemas(), expected);
}

TEST_F(PostgresServiceTest, ControlTableWithoutInstanceColumnIsReadUnfiltered)
{
    ASSERT_EQ(s_server->execute(
                  productSchema(false) + QStringLiteral("UPDATE warehouse.control_schema_version SET version = 2;"),
                  kProductDb),
        QString());
    EXPECT_TRUE(runCheck("instance_name=inst7\n"));
    EXPECT_TRUE(
        s_server->serverLog().contains(QStringLiteral("SELECT version FROM warehouse.control_schema_version;")));
}

TEST_F(PostgresServiceTest, SharedModeWithoutInstanceRowStopsTheCheck)
{
    ASSERT_EQ(s_server->execute(productSchema(true), kProductDb), QString());
    m_information.isNeedDbUpgrade = false;
    EXPECT_FALSE(runCheck("instance_name=unknown\ndbmode=2\n"));
    EXPECT_TRUE(queriedSchemas().isEmpty());
    EXPECT_TRUE(m_capture.output->messages().contains(QStringLiteral("instance_name doesnt exist")));
    EXPECT_FALSE(
        m_capture.output->messages().contains(QStringLiteral("DBMode is standalone, checking for deploymentId")));
}

TEST_F(PostgresServiceTest, SharedModeWithoutInstanceTableEndsLikeAMissingRow)
{
    EXPECT_FALSE(runCheck("instance_name=inst7\ndbmode=4\n"));
    EXPECT_TRUE(m_capture.output->messages().contains(QStringLiteral("instance_name doesnt exist")));
}

TEST_F(PostgresServiceTest, StandaloneFallsBackToTheDeploymentId)
{
    ASSERT_EQ(s_server->execute(productSchema(true), kProductDb), QString());
    EXPECT_FALSE(runCheck());
    EXPECT_TRUE(
        m_capture.output->messages().contains(QStringLiteral("DBMode is standalone, checking for deploymentId")));
    EXPECT_TRUE(s_server->serverLog().contains(
        QStringLiteral("SELECT instance_id FROM register.instance where instance_name = 'dep123'")));
    EXPECT_EQ(queriedSchemas(), allSchemas());
    EXPECT_TRUE(s_server->serverLog().contains(QStringLiteral("WHERE instance_id=9")));
}

TEST_F(PostgresServiceTest, StandaloneWithoutDeploymentRowStopsTheCheck)
{
    ASSERT_EQ(s_server->execute(productSchema(true), kProductDb), QString());
    m_information.deploymentId = QStringLiteral("nobody");
    EXPECT_FALSE(runCheck());
    EXPECT_TRUE(m_capture.output->messages().contains(QStringLiteral("deploymentId doesnt exist")));
    EXPECT_TRUE(queriedSchemas().isEmpty());
}

TEST_F(PostgresServiceTest, StoredUpgradeMarkSkipsTheCheck)
{
    m_information.isNeedDbUpgrade = true;
    EXPECT_TRUE(runCheck());
    EXPECT_FALSE(m_capture.output->messages().contains(QStringLiteral("Checking for database upgrade")));
}

TEST_F(PostgresServiceTest, UnreachableDatabaseEndsTheCheckQuietly)
{
    m_information.dbName = QStringLiteral("no_such_db");
    EXPECT_FALSE(runCheck());
    EXPECT_TRUE(m_capture.output->messages().contains(QStringLiteral("Can't create connection")));
}

TEST_F(PostgresServiceTest, TableExistsAnswersAndThrowsOnAFailedQuery)
{
    ASSERT_EQ(s_server->execute(QStringLiteral("CREATE SCHEMA s; CREATE TABLE s.t (a int);"), kProductDb), QString());
    ServiceSandbox sandbox;
    auto service = sandbox.loadedService(m_information);
    ASSERT_TRUE(service);
    QString name;
    {
        QSqlDatabase db;
        ASSERT_TRUE(service->openConnection(db, kProductDb, name, true));
        EXPECT_TRUE(service->tableExists(db, QStringLiteral("s"), QStringLiteral("t")));
        EXPECT_FALSE(service->tableExists(db, QStringLiteral("s"), QStringLiteral("u")));
        db.close();
        try {
            service->tableExists(db, QStringLiteral("s"), QStringLiteral("t"));
            ADD_FAILURE() << "no exception on a closed connection";
        } catch (const Exception &e) {
            EXPECT_TRUE(
                e.message().startsWith(QStringLiteral("Error while checking table existence. Table: s.t Detail: ")));
        }
    }
    QSqlDatabase::removeDatabase(name);
}

TEST_F(PostgresServiceTest, OpenConnectionNamesEveryCallAndKeepsTheRegistration)
{
    ServiceSandbox sandbox;
    auto service = sandbox.loadedService(m_information);
    ASSERT_TRUE(service);
    QString first;
    QString second;
    {
        QSqlDatabase a;
        QSqlDatabase b;
        ASSERT_TRUE(service->openConnection(a, kProductDb, first, true));
        QThread::msleep(5);
        ASSERT_TRUE(service->openConnection(b, kProductDb, second, false));
        EXPECT_TRUE(QRegularExpression(QStringLiteral("^kvcore_connection_\\d+$")).match(first).hasMatch());
        EXPECT_NE(first, second);
        EXPECT_TRUE(QSqlDatabase::contains(first));
        EXPECT_TRUE(QSqlDatabase::contains(second));
    }
    QSqlDatabase::removeDatabase(first);
    QSqlDatabase::removeDatabase(second);
    const core::PostgresInformation copy = service->connectionSettings();
    EXPECT_EQ(copy.port, m_information.port);
    EXPECT_EQ(copy.dbName, kProductDb);
}

TEST_F(PostgresServiceTest, FailedConnectionsAreReportedAsWritten)
{
    const struct {
        const char *name;
        QString password;
        QString database;
        bool stopServer;
    } cases[] = {
        {"wrong password", QStringLiteral("wrong"), kProductDb, false},
        {"missing database", QLatin1String(TestPostgresServer::kPassword), QStringLiteral("missing_db"), false},
        {"stopped server", QLatin1String(TestPostgresServer::kPassword), kProductDb, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        m_capture.output->entries.clear();
        if (c.stopServer)
            s_server->stop();
        ServiceSandbox sandbox;
        auto service = sandbox.loadedService(remoteInformation(c.password));
        ASSERT_TRUE(service);

        EXPECT_FALSE(service->checkConnection(c.database));
        EXPECT_FALSE(QSqlDatabase::contains(QStringLiteral("kvcore_connection")));
        EXPECT_TRUE(m_capture.output->entries.empty()) << "a failed check is silent";

        QString name;
        {
            QSqlDatabase db;
            EXPECT_FALSE(service->openConnection(db, c.database, name, false));
            EXPECT_TRUE(m_capture.output->entries.empty());
            EXPECT_FALSE(service->openConnection(db, c.database, name, true));
            EXPECT_TRUE(QSqlDatabase::contains(name)) << "the caller removes a failed registration";
        }
        QSqlDatabase::removeDatabase(name);
        ASSERT_EQ(m_capture.output->entries.size(), 1u);
        EXPECT_EQ(m_capture.output->entries[0]->eventId, 4084);
        EXPECT_EQ(m_capture.output->messages(),
            QStringList({QStringLiteral("Could not connecting to postgres server, dbname = %1").arg(c.database)}));
        EXPECT_EQ(m_capture.output->entries[0]->parameters.value(1).second, s_server->host());
        if (c.stopServer) {
            ASSERT_TRUE(s_server->start()) << s_server->error().toStdString();
        }
    }
}

TEST_F(PostgresServiceTest, CheckConnectionSucceedsAndLeavesNoName)
{
    ServiceSandbox sandbox;
    auto service = sandbox.loadedService(m_information);
    ASSERT_TRUE(service);
    EXPECT_TRUE(service->checkConnection(QStringLiteral("postgres")));
    EXPECT_TRUE(service->checkConnection(kProductDb));
    EXPECT_FALSE(QSqlDatabase::contains(QStringLiteral("kvcore_connection")));
}

TEST_F(PostgresServiceTest, NonAsciiPasswordGoesThroughTheLocalCodePageRoundTrip)
{
    ASSERT_EQ(s_server->execute(QStringLiteral("CREATE ROLE umlaut LOGIN PASSWORD 'pässwörd'")), QString());
    core::PostgresInformation info = remoteInformation(QStringLiteral("pässwörd"));
    info.user = QStringLiteral("umlaut");
    ServiceSandbox sandbox;
    auto service = sandbox.loadedService(info);
    ASSERT_TRUE(service);
    // With a UTF-8 locale the round trip is the identity.
    EXPECT_TRUE(service->checkConnection(QStringLiteral("postgres")));
    s_server->execute(QStringLiteral("DROP ROLE umlaut"));
}

class ManagedServiceTest : public PostgresServiceTest
{
protected:
    // A service on a "local" record whose Windows service commands are recorded; the
    // data directory already holds a cluster, so only the service commands are exercised.
    std::unique_ptr<core::PostgresService> localService(ServiceSandbox &sandbox)
    {
        core::PostgresInformation info = m_information;
        info.type = QStringLiteral("local");
        sandbox.provision(info);
        QDir().mkpath(sandbox.dataDirectory() + QStringLiteral("/pg_data"));
        QFile marker(sandbox.dataDirectory() + QStringLiteral("/pg_data/PG_VERSION"));
        marker.open(QIODevice::WriteOnly);
        // The server never runs as root: as root, the installation belongs to the test server's account.
        s_server->account().handOver(sandbox.installation());
        auto service = sandbox.service();
        service->setServiceControlFactory([this](const core::ServiceContext &context, const core::ServerAccount &) {
            return std::make_unique<core::WindowsServiceControl>(
                context, std::make_unique<RecordingProcessRunner>(m_script));
        });
        return service;
    }

    QStringList commands() const
    {
        QStringList programs;
        for (const QString &line : qAsConst(m_script->lines)) {
            QStringList parts = line.section(QLatin1Char(' '), 0, -2).split(QLatin1Char('|'));
            parts.first() = parts.first().section(QLatin1Char('/'), -1);
            programs << parts.join(QLatin1Char('|'));
        }
        return programs;
    }

    static QStringList stopCommands()
    {
        return {QStringLiteral("net|stop|zentrix-postgresql"), QStringLiteral("net|stop|zentrix-postgresql"),
            QStringLiteral("pg_ctl|unregister|-N|zentrix-postgresql")};
    }

    std::shared_ptr<RecordingProcessRunner::Script> m_script = std::make_shared<RecordingProcessRunner::Script>();
};

TEST_F(ManagedServiceTest, StoppedRegisteredServiceIsRegisteredAnewAndARunningServerIsNotStarted)
{
    m_script->exitCodes.insert(QStringLiteral("pg_ctl status"), 3);
    m_script->exitCodes.insert(QStringLiteral("sc query"), 0);
    ServiceSandbox sandbox;
    {
        auto service = localService(sandbox);
        ASSERT_TRUE(service->init(false, true, false));
        EXPECT_FALSE(service->startedServer());
        EXPECT_TRUE(m_capture.output->messages().contains(QStringLiteral("Postgres server is already started")));
        EXPECT_TRUE(m_capture.output->messages().contains(QStringLiteral("Postgresql server is ready")));
    }
    EXPECT_EQ(commands(),
        QStringList({QStringLiteral("pg_ctl|status|-D|%1").arg(sandbox.dataDirectory() + QStringLiteral("/pg_data")),
            QStringLiteral("sc|query|zentrix-postgresql"), QStringLiteral("net|stop|zentrix-postgresql"),
            QStringLiteral("pg_ctl|unregister|-N|zentrix-postgresql"),
            QStringLiteral("pg_ctl|register|-N|zentrix-postgresql|-D|%1|--options=-p%2")
                .arg(sandbox.dataDirectory() + QStringLiteral("/pg_data"))
                .arg(s_server->port()),
            QStringLiteral("sc|failure|zentrix-postgresql|reset=86400|"
                           "actions=restart/60000/restart/60000//"),
            QStringLiteral("sc|description|zentrix-postgresql|Sentrova Core PostgreSQL "
                           "Service"),
            QStringLiteral("sc|config|zentrix-postgresql|displayname=|Tarvex Sentrova "
                           "Core PostgreSQL")}))
        << "no net start, and nothing stopped at the end";
    QFile config(sandbox.dataDirectory() + QStringLiteral("/pg_data/postgresql.conf"));
    ASSERT_TRUE(config.open(QIODevice::ReadOnly));
    EXPECT_TRUE(config.readAll().contains("dynamic_shared_memory_type = windows"));
}

TEST_F(ManagedServiceTest, AServerThisRunStartedIsStoppedOnDestruction)
{
    const struct {
        const char *config;
        bool stopOnDestroy;
        int stops;
    } cases[] = {{"", true, 2}, {"", false, 1}, {"dbmode=2\n", true, 1}, {"dbmode=4\n", false, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.config) + (c.stopOnDestroy ? " stopOnDestroy" : ""));
        m_script->lines.clear();
        m_script->exitCodes.insert(QStringLiteral("pg_ctl status"), 3);
        m_script->hooks.insert(QStringLiteral("net start"), [] { s_server->start(); });
        m_script->hooks.insert(QStringLiteral("net stop"), [] { s_server->stop(); });
        s_server->stop();
        ServiceSandbox sandbox(c.config);
        {
            auto service = localService(sandbox);
            service->stopOnDestroy = c.stopOnDestroy;
            ASSERT_TRUE(service->init(false, true, false));
            EXPECT_TRUE(service->startedServer());
            m_script->lines.clear();
        }
        QStringList expected;
        for (int i = 0; i < c.stops; ++i)
            expected += stopCommands();
        EXPECT_EQ(commands(), expected);
        m_script->hooks.clear();
        if (c.stops == 0)
            s_server->stop();
        ASSERT_TRUE(s_server->start()) << s_server->error().toStdString();
    }
}

TEST_F(ManagedServiceTest, ConnectionFailureSlotStartsTheServiceOnce)
{
    m_script->exitCodes.insert(QStringLiteral("pg_ctl status"), 0);
    ServiceSandbox sandbox;
    auto service = localService(sandbox);
    ASSERT_TRUE(service->init(false, true, false));
    m_script->lines.clear();
    bool result = false;
    ASSERT_TRUE(QMetaObject::invokeMethod(
        service.get(), "connectionFailedPermanently_slot", Qt::DirectConnection, Q_RETURN_ARG(bool, result)));
    EXPECT_TRUE(result);
    EXPECT_EQ(commands(), QStringList()) << "a server that answers needs no service command";
}
