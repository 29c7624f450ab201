#include "core/server/control/PosixServiceControl.h"
#include "core/server/process/QProcessRunner.h"
#include "support/QtPrinters.h"
#include "support/TestServer.h"
#include "support/ToolSandbox.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>

using namespace Qt::StringLiterals;

namespace {

// An installation whose "postgres/bin" holds Debian's PostgreSQL programs and whose
// information file asks for a local server, which the tool then manages itself.
class LocalInstallation : public ToolSandbox
{
public:
    LocalInstallation()
        : m_port(TestServer::freePort())
    {
        const QString bin = installation() + u"/postgres/bin"_s;
        QDir().mkpath(bin);
        const QDir programs(TestServer::binDirectory());
        for (const QString &program : programs.entryList(QDir::Files))
            QFile::link(programs.filePath(program), bin + QLatin1Char('/') + program);
        // The server account must reach the data folder and own the installation.
        QFile::setPermissions(root(), QFile::permissions(root()) | QFileDevice::ExeOther | QFileDevice::ReadOther);
        handOverInstallation();
    }
    ~LocalInstallation() { serverCtl({u"stop"_s, u"-m"_s, u"immediate"_s}); }

    int port() const { return m_port; }
    QString pgData() const { return dataDirectory() + u"/pg_data"_s; }
    bool running() const { return QFile::exists(pgData() + u"/postmaster.pid"_s); }
    core::ServerAccount account() const { return core::ServerAccount::forInstallation(installation()); }

    void handOverInstallation() const
    {
        if (core::ServerAccount::current().isSuperuser())
            QProcess::execute(
                u"chown"_s, {u"-hR"_s, TestServer::unprivilegedAccount().name() + u":"_s, installation()});
    }

    // pg_ctl as the server account, as an operator would run it.
    int serverCtl(const QStringList &arguments) const
    {
        QStringList all = arguments + QStringList{u"-D"_s, pgData()};
        if (arguments.value(0) == QLatin1String("start"))
            all << u"-w"_s << u"-o"_s << u"-p %1 -k ''"_s.arg(m_port) << u"-l"_s << pgData() + u"/manual.log"_s;
        return core::QProcessRunner(account(), installation())
            .run(TestServer::binDirectory() + u"/pg_ctl"_s, all, 60000)
            .exitCode;
    }

    QStringList sql(const QString &statements, const QString &database = u"product"_s) const
    {
        return TestServer::sqlAt(m_port, statements, database);
    }

private:
    int m_port;
};

class LocalServerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (TestServer::binDirectory().isEmpty() || !TestServer::unprivilegedAccount().isValid())
            GTEST_SKIP() << "needs PostgreSQL's programs and, as root, an unprivileged 'postgres' account";
        ASSERT_TRUE(m_installation.provision(m_installation.port(), u"product"_s, u"local"_s));
    }

    LocalInstallation m_installation;
};

} // namespace

TEST_F(LocalServerTest, LifecycleOfAManagedCluster)
{
    // Links planted where the tool writes files for the server must not lead it elsewhere.
    const QString victim = m_installation.root() + u"/victim"_s;
    ToolSandbox::write(victim, "precious");
    const QString passwordLink = m_installation.installation() + u"/postgres/password.data"_s;
    ASSERT_TRUE(QFile::link(victim, passwordLink));

    // First run on an empty installation: cluster and configuration made, server stopped again.
    ToolSandbox::Result result = m_installation.runTool();
    EXPECT_EQ(result.exitCode, 1) << "the product database does not exist yet";
    EXPECT_EQ(m_installation.runLog(), u"[ERROR\t] <ts>: Cannot connect to Postgres server: product\n"_s);
    const QString configPath = m_installation.pgData() + u"/postgresql.conf"_s;
    const QByteArray config = ToolSandbox::read(configPath);
    EXPECT_TRUE(config.endsWith("\nport = " + QByteArray::number(m_installation.port()))) << config.constData();
    EXPECT_TRUE(config.contains("log_directory = '" + m_installation.pgData().toUtf8() + "/log'\n"));
    EXPECT_FALSE(QFileInfo(passwordLink).exists() || QFileInfo(passwordLink).isSymLink());
    EXPECT_EQ(ToolSandbox::read(victim), "precious");
    EXPECT_FALSE(m_installation.running()) << "the server this run started is stopped again";
    // The run saved a generated value; the files stay the installation's, not root's.
    const QFileInfo folder(m_installation.installation());
    for (const QFileInfo &secret : {QFileInfo(m_installation.information()), QFileInfo(m_installation.key())})
        EXPECT_EQ(
            std::make_pair(secret.ownerId(), secret.groupId()), std::make_pair(folder.ownerId(), folder.groupId()));
    const QByteArray information = ToolSandbox::read(m_installation.information());

    // The product creates its database, as it would on its own first start.
    ASSERT_EQ(m_installation.serverCtl({u"start"_s}), 0);
    m_installation.sql(u"CREATE DATABASE product"_s, u"postgres"_s);
    m_installation.sql(
        u"CREATE SCHEMA warehouse; CREATE TABLE warehouse.control_refresh (instance_id int, last_request_id bigint);"
        "CREATE SCHEMA scan; CREATE TABLE scan.file (id serial, instance_id int, request_id bigint, "
        "filetype_details text); INSERT INTO warehouse.control_refresh VALUES (1, 0);"
        "INSERT INTO scan.file (instance_id, request_id, filetype_details) VALUES (1, 2, '{\"a\":\"\\ud800\"}');"_s);
    ASSERT_EQ(m_installation.serverCtl({u"stop"_s}), 0);

    // A stopped cluster whose stale lock file names a live, unrelated process of the server's
    // account (even one working in the data directory) is started, used and stopped, and that
    // process is never signalled.
    QProcess stranger;
    m_installation.account().applyTo(stranger);
    stranger.setWorkingDirectory(m_installation.pgData());
    stranger.start(u"sleep"_s, {u"300"_s});
    ASSERT_TRUE(stranger.waitForStarted());
    const QString lock = m_installation.pgData() + u"/postmaster.pid"_s;
    ToolSandbox::write(lock, QByteArray::number(stranger.processId()) + "\n" + m_installation.pgData().toUtf8() + "\n");
    QFile::remove(configPath);
    ASSERT_TRUE(QFile::link(victim, configPath));
    m_installation.handOverInstallation();
    result = m_installation.runTool();
    EXPECT_EQ(result.exitCode, 0) << result.err.constData();
    EXPECT_TRUE(result.out.endsWith("Data normalization is done, data: filetype_details, instance id: 1\n"));
    EXPECT_FALSE(m_installation.running());
    EXPECT_FALSE(stranger.waitForFinished(100)) << "the process named in the lock file lives";
    EXPECT_TRUE(QFile::exists(lock + u".stale"_s));
    EXPECT_EQ(ToolSandbox::read(victim), "precious");
    EXPECT_FALSE(QFileInfo(configPath).isSymLink());
    EXPECT_EQ(ToolSandbox::read(m_installation.information()), information) << "a later run generates nothing";
    stranger.kill();
    stranger.waitForFinished();

    // A server that was already running is used and left running, even by a privileged run
    // on an installation folder that belongs to root.
    ASSERT_EQ(m_installation.serverCtl({u"start"_s}), 0);
    EXPECT_EQ(m_installation.sql(u"SELECT filetype_details FROM scan.file"_s), QStringList({uR"({"a":"\\ud800"})"_s}));
    core::ServerAccount::current().handOver(m_installation.installation());
    result = m_installation.runTool();
    m_installation.handOverInstallation();
    EXPECT_EQ(result.exitCode, 0) << m_installation.runLog().toStdString();
    EXPECT_TRUE(m_installation.running());
}

TEST_F(LocalServerTest, ADataDirectoryWithOnlyHiddenEntriesIsMadeAnewAndANonEmptyOneNeverRemoved)
{
    const struct {
        const char *entry;
        bool kept;
    } cases[] = {{".leftover", false}, {"keep.txt", true}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.entry);
        QDir(m_installation.pgData()).removeRecursively();
        QDir().mkpath(m_installation.pgData());
        const QString entry = m_installation.pgData() + QLatin1Char('/') + QLatin1String(c.entry);
        ToolSandbox::write(entry, "operator data");
        EXPECT_EQ(m_installation.runTool().exitCode, 1);
        EXPECT_EQ(QFile::exists(entry), c.kept);
        EXPECT_EQ(QFile::exists(m_installation.pgData() + u"/PG_VERSION"_s), !c.kept);
        EXPECT_FALSE(m_installation.running());
    }
    EXPECT_TRUE(m_installation.runLog().endsWith(u"[ERROR\t] <ts>: Failed to init Postgres service\n"_s));
}

TEST_F(LocalServerTest, PortHeldByAnotherServerFailsWithinTheBoundedWaitAndLeavesItAlone)
{
    TestServer other;
    ASSERT_EQ(other.error(), QString());
    ASSERT_TRUE(m_installation.provision(other.port(), u"product"_s, u"local"_s));
    // Credentials that the other server does not know.
    ASSERT_EQ(m_installation.runDbInfo({u"set"_s, u"password=other"_s}).exitCode, 0);
    m_installation.handOverInstallation();
    QElapsedTimer elapsed;
    elapsed.start();
    EXPECT_EQ(m_installation.runTool().exitCode, 1);
    EXPECT_LT(elapsed.elapsed(), 120000);
    EXPECT_EQ(m_installation.runLog(), u"[ERROR\t] <ts>: Failed to init Postgres service\n"_s);
    EXPECT_FALSE(m_installation.running());
    EXPECT_EQ(other.sql(u"SELECT 1"_s, u"postgres"_s), QStringList({u"1"_s}));
}

TEST_F(LocalServerTest, StopNeverSignalsAnUnrelatedProcessNamedInTheLockFile)
{
    // The stop must not even reach pg_ctl, which would signal the process named in the lock file.
    QDir().mkpath(m_installation.pgData());
    ToolSandbox::write(m_installation.pgData() + u"/PG_VERSION"_s, "15");
    QProcess other;
    m_installation.account().applyTo(other);
    other.start(u"sleep"_s, {u"60"_s});
    ASSERT_TRUE(other.waitForStarted());
    ToolSandbox::write(m_installation.pgData() + u"/postmaster.pid"_s, QByteArray::number(other.processId()) + "\n");
    m_installation.handOverInstallation();
    core::ServiceContext context;
    context.pgCtlPath = TestServer::binDirectory() + u"/pg_ctl"_s;
    context.dataDirectory = m_installation.pgData();
    context.account = m_installation.account();
    core::PosixServiceControl(context, std::make_unique<core::QProcessRunner>(context.account, QString())).stop();
    EXPECT_FALSE(other.waitForFinished(200)) << "the unrelated process lives";
    other.kill();
    other.waitForFinished();
}
