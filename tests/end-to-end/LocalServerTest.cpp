#include "app/run/Interrupts.h"
#include "core/server/control/PosixServiceControl.h"
#include "core/server/process/QProcessRunner.h"
#include "support/Eventually.h"
#include "support/QtPrinters.h"
#include "support/TestServer.h"
#include "support/ToolSandbox.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>

#include <csignal>
#include <unistd.h>

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

    // pg_ctl as the server account, as an operator would run it; a start listens on the
    // installation's port unless told another.
    int serverCtl(const QStringList &arguments, int port = 0) const
    {
        QStringList all = arguments + QStringList{u"-D"_s, pgData()};
        if (arguments.value(0) == QLatin1String("start"))
            all << u"-w"_s << u"-o"_s << u"-p %1 -k ''"_s.arg(port ? port : m_port) << u"-l"_s
                << pgData() + u"/manual.log"_s;
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

    // The product creates its database on the tool's cluster, as it would on its own first
    // start, with a row of damage per instance; the server is stopped again.
    void createProductDatabase(const QString &more = QString())
    {
        ASSERT_EQ(m_installation.serverCtl({u"start"_s}), 0);
        m_installation.sql(u"CREATE DATABASE product"_s, u"postgres"_s);
        m_installation.sql(TestServer::productSchema()
            + u"INSERT INTO warehouse.control_refresh VALUES (1, 0), (2, 0), (3, 0); INSERT INTO scan.file "
              "(instance_id, request_id, filetype_details) SELECT i, 5, '{\"a\":\"\\ud800\"}' FROM "
              "generate_series(1, 3) i;"_s
            + more);
        ASSERT_EQ(m_installation.serverCtl({u"stop"_s}), 0);
    }

    // A run on the installation as it is now that fails without a wait that could not succeed.
    void failsAtOnce()
    {
        m_installation.handOverInstallation();
        QElapsedTimer elapsed;
        elapsed.start();
        EXPECT_EQ(m_installation.runFresh().exitCode, 1);
        EXPECT_LT(elapsed.elapsed(), 30000);
    }

    LocalInstallation m_installation;
};

// A tool run of its own, in a process group of its own, so that a test can signal or kill it
// as a terminal or a service manager would; unless it joins a run under way, the run log is its alone.
class ToolProcess : public QProcess
{
public:
    explicit ToolProcess(const ToolSandbox &sandbox, const QStringList &arguments = {}, bool freshLog = true)
    {
        if (freshLog)
            QFile::remove(sandbox.runLogPath());
        setChildProcessModifier([] { ::setpgid(0, 0); });
        setWorkingDirectory(sandbox.workDirectory());
        start(QStringLiteral(ZENTRIX_TOOL_PATH), arguments);
        waitForStarted();
    }
    ~ToolProcess() override
    {
        if (state() != NotRunning)
            ::kill(-static_cast<pid_t>(processId()), SIGKILL);
        waitForFinished();
    }
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
    // The password file is created exclusively, so a link planted after any removal fails it.
    const QString trace = m_installation.root() + u"/trace"_s;
    const bool traced = !QStandardPaths::findExecutable(u"strace"_s).isEmpty();
    ToolSandbox::Result result = traced ? ToolSandbox::run(u"strace"_s,
                                     {u"-e"_s, u"trace=open,openat,creat"_s, u"-E"_s, u"ASAN_OPTIONS=detect_leaks=0"_s,
                                         u"-o"_s, trace, QStringLiteral(ZENTRIX_TOOL_PATH)},
                                     m_installation.workDirectory())
                                        : m_installation.runTool();
    if (traced) {
        int creates = 0;
        for (const QByteArray &line : ToolSandbox::read(trace).split('\n')) {
            if (!line.contains("password.data\", O_WRONLY"))
                continue;
            ++creates;
            EXPECT_TRUE(line.contains("O_CREAT|O_EXCL")) << line.constData();
        }
        EXPECT_EQ(creates, 1);
    }
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

    createProductDatabase();

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
    EXPECT_TRUE(result.out.endsWith("Data normalization is done, data: filetype_details, instance id: 3\n"));
    EXPECT_FALSE(m_installation.running());
    EXPECT_FALSE(stranger.waitForFinished(100)) << "the process named in the lock file lives";
    EXPECT_TRUE(QFile::exists(lock + u".stale"_s));
    EXPECT_TRUE(has(m_installation.runLog(),
        u"[WARNING] <ts>: Stale lock file set aside as postmaster.pid.stale: process %1 is not a server of this data "
        "directory"_s.arg(stranger.processId())));
    EXPECT_EQ(ToolSandbox::read(victim), "precious");
    EXPECT_FALSE(QFileInfo(configPath).isSymLink());
    EXPECT_EQ(ToolSandbox::read(m_installation.information()), information) << "a later run generates nothing";
    // A stop asked for directly must not even reach pg_ctl, which would signal that process.
    ToolSandbox::write(lock, QByteArray::number(stranger.processId()) + "\n");
    core::ServiceContext context;
    context.pgCtlPath = TestServer::binDirectory() + u"/pg_ctl"_s;
    context.dataDirectory = m_installation.pgData();
    context.account = m_installation.account();
    core::PosixServiceControl(context, std::make_unique<core::QProcessRunner>(context.account, QString())).stop();
    EXPECT_FALSE(stranger.waitForFinished(200)) << "the process named in the lock file lives after a stop";
    stranger.kill();
    stranger.waitForFinished();

    // A server that was already running is used and left running, even by a privileged run
    // on an installation folder that belongs to root.
    ASSERT_EQ(m_installation.serverCtl({u"start"_s}), 0);
    EXPECT_EQ(m_installation.sql(u"SELECT DISTINCT filetype_details FROM scan.file"_s),
        QStringList({uR"({"a":"\\ud800"})"_s}));
    core::ServerAccount::current().handOver(m_installation.installation());
    result = m_installation.runTool();
    m_installation.handOverInstallation();
    EXPECT_EQ(result.exitCode, 0) << m_installation.runLog().toStdString();
    EXPECT_TRUE(m_installation.running());

    // Credentials the running server refuses: no try can change that, so the waits end at once.
    ASSERT_EQ(m_installation.runDbInfo({u"set"_s, u"password=wrong"_s}).exitCode, 0);
    failsAtOnce();
    EXPECT_TRUE(m_installation.runLog().startsWith(
        u"[ERROR\t] <ts>: The database server at 127.0.0.1:%1 refused the "
        "connection, and trying again cannot change that: "_s.arg(m_installation.port())))
        << m_installation.runLog().toStdString();
    EXPECT_TRUE(m_installation.runLog().contains(u"password authentication failed for user \"zentrix_test\""_s));
    EXPECT_TRUE(m_installation.runLog().endsWith(u"\n[ERROR\t] <ts>: Failed to init Postgres service\n"_s));
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
    // The one that holds files but no cluster fails at once and says what to do.
    EXPECT_TRUE(m_installation.runLog().endsWith(u"[ERROR\t] <ts>: The data folder "_s + m_installation.pgData()
        + u" holds files but no complete database cluster (PG_VERSION or global/pg_control is missing). Move it "
          "aside, or remove it once it holds nothing you need; the next run then creates the cluster anew.\n"
          "[ERROR\t] <ts>: Failed to init Postgres service\n"_s));

    // A cluster that initdb refuses to make is said with initdb's reason; nothing is kept.
    QDir(m_installation.pgData()).removeRecursively();
    ASSERT_TRUE(m_installation.provision(m_installation.port(), u"product"_s, u"local"_s, {u"user=pg_refused"_s}));
    failsAtOnce();
    EXPECT_TRUE(has(m_installation.runLog(),
        QRegularExpression(
            u"^\\[ERROR\t\\] <ts>: initdb made no database cluster in %1: initdb ended with "
            "status 1: [^\n]*\"pg_refused\"[^\n]*\\. Nothing was kept; remove the cause it names and run "
            "again\\.\n\\[ERROR\t\\] <ts>: Failed to init Postgres service\n$"_s.arg(m_installation.pgData()))));
    EXPECT_FALSE(QFileInfo::exists(m_installation.pgData()));
}

// Whatever holds the installation's port while its own server is down ends the run at once,
// and the run talks to none of it: another server (even one that knows the installation's
// credentials and holds a product database), a program that accepts and never answers, and
// sockets that are bound but not listening, where only the server's own failure to bind tells.
TEST_F(LocalServerTest, APortHeldByAnotherProgramEndsTheRunAtOnceAndConnectsToNothingThere)
{
    TestServer other;
    ASSERT_EQ(other.error(), QString());
    other.freshProductDatabase();
    const QString damaged = uR"({"a":"\ud800"})"_s;
    other.sql(TestServer::productSchema()
        + u"INSERT INTO warehouse.control_refresh VALUES (1, 0); INSERT INTO scan.file (instance_id, request_id, "
          "filetype_details) VALUES (1, 5, '"_s
        + damaged + u"');"_s);
    QTcpServer silent;
    ASSERT_TRUE(silent.listen(QHostAddress::LocalHost));
    // Bound without listening: nothing answers a client there, but no server can bind it.
    const int boundPort = TestServer::freePort();
    QTcpSocket bound4;
    QTcpSocket bound6;
    bound4.bind(QHostAddress::LocalHost, static_cast<quint16>(boundPort), QAbstractSocket::DontShareAddress);
    bound6.bind(QHostAddress::LocalHostIPv6, static_cast<quint16>(boundPort), QAbstractSocket::DontShareAddress);
    const QString another = uR"(\[ERROR\t\] <ts>: Another program already listens on 127\.0\.0\.1:%1 \(process \d+ )"
                            uR"(\(%2\)\), where this installation's database server must start; the run connected )"
                            uR"(to nothing there\. Stop that program, or give this installation another port\.\n)"_s;
    const struct {
        const char *name;
        int port;
        QStringList more;
        QString firstLine;
    } cases[] = {
        {"another server, other credentials", other.port(), {u"password=other"_s},
            another.arg(other.port()).arg(u"postgres"_s)},
        {"another server, the installation's credentials", other.port(), {},
            another.arg(other.port()).arg(u"postgres"_s)},
        {"a program that never answers", silent.serverPort(), {},
            another.arg(silent.serverPort()).arg(u"local_server_te"_s)},
        {"bound, not listening", boundPort, {},
            uR"(\[ERROR\t\] <ts>: The database server started by this run stopped at once: .*could not bind IPv4 )"
            uR"(address "127\.0\.0\.1": Address already in use.*FATAL: could not create any TCP/IP sockets\n)"_s},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(m_installation.provision(c.port, u"product"_s, u"local"_s, c.more));
        failsAtOnce();
        EXPECT_TRUE(has(m_installation.runLog(),
            QRegularExpression(u'^' + c.firstLine + uR"(\[ERROR\t\] <ts>: Failed to init Postgres service\n$)"_s)));
        EXPECT_FALSE(m_installation.running());
        EXPECT_EQ(other.sql(u"SELECT filetype_details FROM scan.file"_s), QStringList{damaged});
    }
}

// Runs that are stopped, interrupted or started twice. Interrupted while initdb runs, a first
// run stops it and removes what it made; killed with its process group, it leaves leftovers,
// which the next run removes before it makes the cluster. An interrupt during the pass cancels
// the UPDATE in flight (rolled back whole), starts no further instance and ends the run as usual,
// stopping the server it started. Two runs started together take turns, and both repair.
TEST_F(LocalServerTest, KilledInterruptedAndOverlappingRuns)
{
    const QString password = m_installation.installation() + u"/postgres/password.data"_s;
    for (const int signal : {SIGINT, SIGKILL}) {
        SCOPED_TRACE(signal);
        {
            ToolProcess run(m_installation);
            ASSERT_TRUE(eventually([this] {
                return QFileInfo::exists(m_installation.pgData() + u".creating/global"_s);
            })) << "initdb never began";
            const pid_t pid = static_cast<pid_t>(run.processId());
            ::kill(signal == SIGKILL ? -pid : pid, signal);
            ASSERT_TRUE(run.waitForFinished(30000));
        }
        const bool killed = signal == SIGKILL;
        EXPECT_EQ(QFile::exists(password), killed);
        EXPECT_EQ(QFileInfo::exists(m_installation.pgData() + u".creating"_s), killed);
        EXPECT_FALSE(QFileInfo::exists(m_installation.pgData() + u"/PG_VERSION"_s)) << "no half-made cluster in place";
        EXPECT_EQ(m_installation.runLog().contains(u"The run was interrupted by SIGINT"_s), !killed);
    }
    EXPECT_EQ(m_installation.runFresh().exitCode, 1) << "the product database does not exist yet";
    EXPECT_EQ(m_installation.runLog(), u"[ERROR\t] <ts>: Cannot connect to Postgres server: product\n"_s);
    for (const QString &file : {u"/PG_VERSION"_s, u"/global/pg_control"_s})
        EXPECT_TRUE(QFileInfo::exists(m_installation.pgData() + file));
    EXPECT_FALSE(QFileInfo::exists(m_installation.pgData() + u".creating"_s));
    EXPECT_FALSE(QFile::exists(password));
    EXPECT_FALSE(m_installation.running());

    createProductDatabase(u"CREATE FUNCTION slow() RETURNS trigger AS $$ BEGIN IF NEW.instance_id = 2 THEN PERFORM "
                          "pg_sleep(600); END IF; RETURN NEW; END $$ LANGUAGE plpgsql; CREATE TRIGGER slow BEFORE "
                          "UPDATE ON scan.file FOR EACH ROW EXECUTE FUNCTION slow();"_s);
    const QString updates = u"SELECT count(*) FROM pg_stat_activity WHERE query LIKE 'UPDATE scan.file%'"_s;
    const QString lengths = u"SELECT string_agg(instance_id || ':' || length(filetype_details), ' ' ORDER BY "
                            "instance_id) FROM scan.file"_s;
    {
        ToolProcess tool(m_installation);
        QByteArray out;
        ASSERT_TRUE(eventually([&] {
            tool.waitForReadyRead(10);
            out += tool.readAllStandardOutput();
            return out.contains("instance id: 1\n");
        }));
        ASSERT_TRUE(eventually([&] { return m_installation.sql(updates, u"postgres"_s) == QStringList{u"1"_s}; }));
        ::kill(static_cast<pid_t>(tool.processId()), SIGTERM);
        ASSERT_TRUE(tool.waitForFinished(30000));
        EXPECT_EQ(tool.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(tool.exitCode(), 1);
        EXPECT_TRUE(has(m_installation.runLog(), u"[ERROR\t] <ts>: The run was interrupted by SIGTERM"_s));
        EXPECT_FALSE(m_installation.running()) << "the server the run started is stopped again";
    }
    ASSERT_EQ(m_installation.serverCtl({u"start"_s}), 0);
    EXPECT_EQ(m_installation.sql(updates, u"postgres"_s), QStringList{u"0"_s});
    EXPECT_EQ(m_installation.sql(lengths), QStringList{u"1:15 2:14 3:14"_s})
        << "instance 1 done, 2 rolled back, 3 never started";
    m_installation.sql(u"DROP TRIGGER slow ON scan.file"_s);
    ASSERT_EQ(m_installation.serverCtl({u"stop"_s}), 0);

    // Interrupted while it waits for its own running server to answer (running elsewhere here),
    // the wait gives up at once. Stuck inside a connection attempt to a program that never
    // answers, the run is ended by the watchdog, which first says so and releases the lock.
    // Either way the password file of a killed run is gone, though no cluster was made.
    ASSERT_EQ(m_installation.serverCtl({u"start"_s}, TestServer::freePort()), 0);
    QTcpServer silent;
    const QString lockFile = m_installation.dataDirectory() + u"/data_normalizer.lock"_s;
    const struct {
        int signal;
        const char *name;
        bool stuck;
    } waits[] = {{SIGINT, "SIGINT", false}, {SIGTERM, "SIGTERM", true}};
    for (const auto &c : waits) {
        SCOPED_TRACE(c.name);
        if (c.stuck) {
            ASSERT_TRUE(silent.listen(QHostAddress::LocalHost, static_cast<quint16>(m_installation.port())));
            qputenv("PGCONNECT_TIMEOUT", "600");
        }
        ToolSandbox::write(password, "left by a killed run");
        ToolProcess tool(m_installation, {u"--verbose"_s});
        QByteArray err;
        if (c.stuck) {
            ASSERT_TRUE(silent.waitForNewConnection(60000));
        } else {
            ASSERT_TRUE(eventually([&] {
                tool.waitForReadyRead(10);
                err += tool.readAllStandardError();
                return err.contains("waiting for the server to answer, try 2 of 120");
            }));
        }
        QElapsedTimer elapsed;
        elapsed.start();
        ::kill(static_cast<pid_t>(tool.processId()), c.signal);
        ASSERT_TRUE(tool.waitForFinished(30000));
        EXPECT_EQ(tool.exitCode(), 1);
        if (!c.stuck) {
            EXPECT_LT(elapsed.elapsed(), Interrupts::kEndLimitMs) << "the wait gave up before the watchdog";
        }
        err += tool.readAllStandardError();
        const QString line = u"The run was interrupted by "_s + c.name;
        EXPECT_TRUE(has(err, "ERROR: " + line.toUtf8()));
        EXPECT_TRUE(m_installation.runLog().contains(u"[ERROR\t] <ts>: "_s + line));
        EXPECT_FALSE(QFile::exists(lockFile));
        EXPECT_FALSE(QFile::exists(password));
        EXPECT_TRUE(m_installation.running()) << "a server the run did not start keeps running";
    }
    qunsetenv("PGCONNECT_TIMEOUT");
    silent.close();
    ASSERT_EQ(m_installation.serverCtl({u"stop"_s}), 0);

    // Nothing but the tool's own lines reach the console.
    ToolProcess first(m_installation);
    ToolProcess second(m_installation, {}, false);
    QByteArray errors;
    for (ToolProcess *run : {&first, &second}) {
        ASSERT_TRUE(run->waitForFinished(120000));
        EXPECT_EQ(run->exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(run->exitCode(), 0);
        errors += run->readAllStandardError();
    }
    EXPECT_TRUE(errors.startsWith("Waiting for the run of process ")) << errors.constData();
    EXPECT_EQ(errors.count('\n'), 1) << errors.constData();
    EXPECT_EQ(m_installation.runLog().count(u"Data normalization is done"_s), 6);
    EXPECT_FALSE(m_installation.running());
    ASSERT_EQ(m_installation.serverCtl({u"start"_s}), 0);
    EXPECT_EQ(m_installation.sql(lengths), QStringList{u"1:15 2:15 3:15"_s}) << "both runs repaired";
    ASSERT_EQ(m_installation.serverCtl({u"stop"_s}), 0);
}
