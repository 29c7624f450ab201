#include "core/server/control/PosixServiceControl.h"
#include "core/server/process/QProcessRunner.h"
#include "core/server/process/ServerAccount.h"
#include "support/QtPrinters.h"
#include "support/TestPostgresServer.h"
#include "support/ToolSandbox.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <csignal>

namespace {

const QString kUser = QStringLiteral("zentrix");
const QString kPassword = QStringLiteral("local-pw");

// An installation whose "postgres/bin" holds the Debian PostgreSQL programs and whose
// information file asks for a local server; the tool manages that server itself.
class LocalInstallation : public ToolSandbox
{
public:
    LocalInstallation()
        : m_port(TestPostgresServer::freePort())
    {
        const QString bin = installation() + QStringLiteral("/postgres/bin");
        QDir().mkpath(bin);
        const QDir programs(TestPostgresServer::binDirectory());
        for (const QString &program : programs.entryList(QDir::Files))
            QFile::link(programs.filePath(program), bin + QLatin1Char('/') + program);
        // The server account must reach the data folder and own the installation.
        QFile::setPermissions(root(), QFile::permissions(root()) | QFileDevice::ExeOther | QFileDevice::ReadOther);
        handOverInstallation();
        const ToolSandbox::Result result = runDbInfo({QStringLiteral("set"), QStringLiteral("host=127.0.0.1"),
            QStringLiteral("port=%1").arg(m_port), QStringLiteral("user=") + kUser,
            QStringLiteral("password=") + kPassword, QStringLiteral("type=local"), QStringLiteral("dbname=product")});
        m_provisioned = result.exitCode == 0;
    }

    ~LocalInstallation() { serverCtl({QStringLiteral("stop"), QStringLiteral("-m"), QStringLiteral("immediate")}); }

    bool provisioned() const { return m_provisioned; }
    int port() const { return m_port; }
    void setPort(int port) { m_port = port; }
    QString pgData() const { return dataDirectory() + QStringLiteral("/pg_data"); }
    bool running() const { return QFile::exists(pgData() + QStringLiteral("/postmaster.pid")); }
    QByteArray information() const
    {
        QFile file(installation() + QStringLiteral("/zentrix_postgres.dat"));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    core::ServerAccount account() const { return core::ServerAccount::forInstallation(installation()); }

    void handOverInstallation() const
    {
        const core::ServerAccount server = core::ServerAccount::current().isSuperuser()
            ? core::ServerAccount::named(QStringLiteral("postgres"))
            : core::ServerAccount::current();
        handOverTree(server, installation());
    }

    // pg_ctl as the server account, as an operator would run it.
    int serverCtl(const QStringList &arguments) const
    {
        core::QProcessRunner runner(account(), installation());
        QStringList all = arguments;
        all << QStringLiteral("-D") << pgData();
        if (arguments.value(0) == QLatin1String("start"))
            all << QStringLiteral("-w") << QStringLiteral("-o") << QStringLiteral("-p %1 -k ''").arg(m_port)
                << QStringLiteral("-l") << pgData() + QStringLiteral("/manual.log");
        return runner.run(TestPostgresServer::binDirectory() + QStringLiteral("/pg_ctl"), all, 60000).exitCode;
    }

    QStringList query(const QString &sql, const QString &database = QStringLiteral("product")) const
    {
        return SqlClient{QStringLiteral("127.0.0.1"), m_port, kUser, kPassword}.column(sql, database);
    }

private:
    static void handOverTree(const core::ServerAccount &account, const QString &path)
    {
        account.handOver(path);
        for (const QFileInfo &entry :
            QDir(path).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden)) {
            if (entry.isDir() && !entry.isSymLink())
                handOverTree(account, entry.filePath());
            else
                account.handOver(entry.filePath());
        }
    }

    int m_port;
    bool m_provisioned = false;
};

QString fileText(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

} // namespace

class LocalServerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (TestPostgresServer::binDirectory().isEmpty())
            GTEST_SKIP() << "PostgreSQL's programs are not installed";
        if (core::ServerAccount::current().isSuperuser()
            && !core::ServerAccount::named(QStringLiteral("postgres")).isValid())
            GTEST_SKIP() << "running as root without an unprivileged 'postgres' account";
        ASSERT_TRUE(m_installation.provisioned());
    }

    LocalInstallation m_installation;
};

TEST_F(LocalServerTest, LifecycleOfAManagedCluster)
{
    // Links planted where the tool writes files for the server must not lead it elsewhere.
    const QString victim = m_installation.root() + QStringLiteral("/victim");
    QFile victimFile(victim);
    ASSERT_TRUE(victimFile.open(QIODevice::WriteOnly));
    victimFile.write("precious");
    victimFile.close();
    const QString passwordLink = m_installation.installation() + QStringLiteral("/postgres/password.data");
    ASSERT_TRUE(QFile::link(victim, passwordLink));

    // First run on an empty installation: cluster and configuration made, server stopped again.
    ToolSandbox::Result result = m_installation.runTool();
    EXPECT_EQ(result.exitCode, 1) << "the product database does not exist yet";
    EXPECT_TRUE(m_installation.runLogMasked().endsWith(
        QStringLiteral("[ERROR\t] <ts>: Cannot connect to Postgres server: product\n")));
    EXPECT_TRUE(QFile::exists(m_installation.pgData() + QStringLiteral("/PG_VERSION")));
    const QString config = fileText(m_installation.pgData() + QStringLiteral("/postgresql.conf"));
    EXPECT_EQ(config.count(QLatin1Char('\n')), 12);
    EXPECT_TRUE(config.endsWith(QStringLiteral("\nport = %1").arg(m_installation.port()))) << config.toStdString();
    EXPECT_TRUE(config.contains(QStringLiteral("log_directory = '%1/log'").arg(m_installation.pgData())));
    EXPECT_FALSE(QFileInfo::exists(passwordLink) || QFileInfo(passwordLink).isSymLink());
    EXPECT_EQ(fileText(victim), QStringLiteral("precious"));
    EXPECT_FALSE(m_installation.running()) << "the server this run started is stopped again";
    const QByteArray information = m_installation.information();
    // The run saved a generated value; the files stay the installation's, not root's.
    for (const char *name : {"/zentrix_postgres.dat", "/zentrix_postgres.cat"}) {
        const QFileInfo secret(m_installation.installation() + QLatin1String(name));
        EXPECT_EQ(secret.ownerId(), QFileInfo(m_installation.installation()).ownerId()) << name;
        EXPECT_EQ(secret.groupId(), QFileInfo(m_installation.installation()).groupId()) << name;
    }

    // The product creates its database, as it would on its own first start.
    ASSERT_EQ(m_installation.serverCtl({QStringLiteral("start")}), 0);
    EXPECT_EQ(
        m_installation.query(QStringLiteral("CREATE DATABASE product"), QStringLiteral("postgres")), QStringList());
    m_installation.query(QStringLiteral(
        "CREATE SCHEMA warehouse; CREATE TABLE warehouse.control_refresh (instance_id int, last_request_id bigint);"
        "CREATE SCHEMA scan; CREATE TABLE scan.file (id serial, instance_id int, request_id bigint, "
        "filetype_details text); INSERT INTO warehouse.control_refresh VALUES (1, 0);"
        "INSERT INTO scan.file (instance_id, request_id, filetype_details) VALUES (1, 2, '{\"a\":\"\\ud800\"}');"));
    ASSERT_EQ(m_installation.serverCtl({QStringLiteral("stop")}), 0);

    // A stopped cluster whose stale lock file names a live, unrelated process of the server's
    // account (even one working in the data directory) is started, used and stopped, and that
    // process is never signalled.
    QProcess stranger;
    m_installation.account().applyTo(stranger);
    stranger.setWorkingDirectory(m_installation.pgData());
    stranger.start(QStringLiteral("sleep"), {QStringLiteral("300")});
    ASSERT_TRUE(stranger.waitForStarted());
    QFile lock(m_installation.pgData() + QStringLiteral("/postmaster.pid"));
    ASSERT_TRUE(lock.open(QIODevice::WriteOnly));
    lock.write(QByteArray::number(stranger.processId()) + "\n" + m_installation.pgData().toUtf8() + "\n");
    lock.close();
    const QString configPath = m_installation.pgData() + QStringLiteral("/postgresql.conf");
    QFile::remove(configPath);
    ASSERT_TRUE(QFile::link(victim, configPath));
    m_installation.handOverInstallation();
    result = m_installation.runTool();
    EXPECT_EQ(result.exitCode, 0) << result.err.constData();
    EXPECT_TRUE(result.out.endsWith("Data normalization is done, data: filetype_details, instance id: 1\n"));
    EXPECT_FALSE(m_installation.running());
    EXPECT_EQ(stranger.state(), QProcess::Running);
    EXPECT_FALSE(stranger.waitForFinished(100)) << "the process named in the lock file lives";
    EXPECT_TRUE(QFile::exists(lock.fileName() + QStringLiteral(".stale")));
    EXPECT_EQ(fileText(victim), QStringLiteral("precious"));
    EXPECT_FALSE(QFileInfo(configPath).isSymLink());
    EXPECT_EQ(m_installation.information(), information) << "a later run generates nothing";
    stranger.kill();
    stranger.waitForFinished();

    // A server that was already running is used and left running, even by a privileged run
    // on an installation folder that belongs to root.
    ASSERT_EQ(m_installation.serverCtl({QStringLiteral("start")}), 0);
    EXPECT_EQ(m_installation.query(QStringLiteral("SELECT filetype_details FROM scan.file")),
        QStringList({QStringLiteral(R"({"a":"\\ud800"})")}));
    core::ServerAccount::current().handOver(m_installation.installation());
    result = m_installation.runTool();
    m_installation.handOverInstallation();
    EXPECT_EQ(result.exitCode, 0) << m_installation.runLog().constData();
    EXPECT_TRUE(m_installation.running());
    EXPECT_EQ(m_installation.query(QStringLiteral("SELECT 1")), QStringList({QStringLiteral("1")}));
    EXPECT_EQ(m_installation.information(), information);
}

TEST_F(LocalServerTest, DataDirectoryWithOnlyHiddenEntriesIsMadeAnew)
{
    QDir().mkpath(m_installation.pgData());
    QFile hidden(m_installation.pgData() + QStringLiteral("/.leftover"));
    ASSERT_TRUE(hidden.open(QIODevice::WriteOnly));
    hidden.close();
    m_installation.runTool();
    EXPECT_FALSE(QFile::exists(hidden.fileName()));
    EXPECT_TRUE(QFile::exists(m_installation.pgData() + QStringLiteral("/PG_VERSION")));
    EXPECT_FALSE(m_installation.running());
}

TEST_F(LocalServerTest, NonEmptyDataDirectoryIsNeverRemoved)
{
    QDir().mkpath(m_installation.pgData());
    QFile keep(m_installation.pgData() + QStringLiteral("/keep.txt"));
    ASSERT_TRUE(keep.open(QIODevice::WriteOnly));
    keep.write("operator data");
    keep.close();
    const ToolSandbox::Result result = m_installation.runTool();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(m_installation.runLogMasked(), QStringLiteral("[ERROR\t] <ts>: Failed to init Postgres service\n"));
    EXPECT_EQ(fileText(keep.fileName()), QStringLiteral("operator data"));
    EXPECT_FALSE(QFile::exists(m_installation.pgData() + QStringLiteral("/PG_VERSION")));
}

TEST_F(LocalServerTest, PortHeldByAnotherServerFailsWithinTheBoundedWait)
{
    TestPostgresServer other;
    ASSERT_EQ(other.error(), QString());
    m_installation.setPort(other.port());
    ASSERT_EQ(
        m_installation.runDbInfo({QStringLiteral("set"), QStringLiteral("port=%1").arg(other.port())}).exitCode, 0);
    m_installation.handOverInstallation();
    QElapsedTimer elapsed;
    elapsed.start();
    const ToolSandbox::Result result = m_installation.runTool();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_LT(elapsed.elapsed(), 120000);
    EXPECT_EQ(m_installation.runLogMasked(), QStringLiteral("[ERROR\t] <ts>: Failed to init Postgres service\n"));
    EXPECT_FALSE(m_installation.running());
    EXPECT_EQ(other.column(QStringLiteral("SELECT 1")), QStringList({QStringLiteral("1")})) << "the other server lives";
}

TEST(PosixServiceControlTest, StopNeverKillsAnUnrelatedProcessNamedInTheLockFile)
{
    if (!core::ServerAccount::current().isSuperuser())
        GTEST_SKIP() << "needs root: pg_ctl itself signals a process of its own user named in the lock file";
    TestPostgresServer server;
    if (!server.error().isEmpty())
        GTEST_SKIP() << "no test server: " << server.error().toStdString();
    server.stop();
    QProcess other;
    other.start(QStringLiteral("sleep"), {QStringLiteral("60")});
    ASSERT_TRUE(other.waitForStarted());
    QFile lock(server.dataDirectory() + QStringLiteral("/postmaster.pid"));
    ASSERT_TRUE(lock.open(QIODevice::WriteOnly));
    lock.write(QByteArray::number(other.processId()) + "\n");
    lock.close();
    core::PostgresLogRelay relay;
    core::ServiceContext context;
    context.pgCtlPath = TestPostgresServer::binDirectory() + QStringLiteral("/pg_ctl");
    context.dataDirectory = server.dataDirectory();
    context.account = server.account();
    context.relay = &relay;
    core::PosixServiceControl control(context, std::make_unique<core::QProcessRunner>(server.account(), QString()));
    control.stop();
    EXPECT_EQ(other.state(), QProcess::Running);
    EXPECT_FALSE(other.waitForFinished(200));
    other.kill();
    other.waitForFinished();
}
