#include "support/TestPostgresServer.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTcpServer>

namespace {
constexpr int kInitdbTimeoutMs = 120000;
constexpr int kPgCtlTimeoutMs = 60000;

} // namespace

TestPostgresServer::TestPostgresServer()
    : m_account(core::ServerAccount::current().isSuperuser() ? core::ServerAccount::named(QStringLiteral("postgres"))
                                                             : core::ServerAccount::current())
{
    if (!m_account.isValid() || m_account.isSuperuser()) {
        m_error = QStringLiteral("running as root and no unprivileged 'postgres' account exists");
        return;
    }
    if (!m_root.isValid()) {
        m_error = QStringLiteral("cannot create a temporary directory");
        return;
    }
    QFile::setPermissions(m_root.path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    m_account.handOver(m_root.path());
    if (initCluster())
        start();
}

TestPostgresServer::~TestPostgresServer()
{
    stop(QStringLiteral("immediate"));
}

QString TestPostgresServer::binDirectory()
{
    const QString configured = qEnvironmentVariable("ZENTRIX_PG_BINDIR");
    if (!configured.isEmpty())
        return configured;
    QDir versions(QStringLiteral("/usr/lib/postgresql"));
    const QStringList found = versions.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    for (auto it = found.crbegin(); it != found.crend(); ++it) {
        if (QFile::exists(versions.filePath(*it + QStringLiteral("/bin/initdb"))))
            return versions.filePath(*it + QStringLiteral("/bin"));
    }
    return QString();
}

int TestPostgresServer::freePort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        return 0;
    return probe.serverPort();
}

QString TestPostgresServer::run(const QString &program, const QStringList &arguments, int timeoutMs) const
{
    QProcess process;
    process.setWorkingDirectory(m_root.path());
    process.setProcessChannelMode(QProcess::MergedChannels);
    m_account.applyTo(process);
    process.start(QDir(binDirectory()).filePath(program), arguments);
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        return program + QStringLiteral(" did not finish: ") + QString::fromLocal8Bit(process.readAll());
    }
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return program + QStringLiteral(" failed: ") + QString::fromLocal8Bit(process.readAll());
    return QString();
}

bool TestPostgresServer::initCluster()
{
    if (binDirectory().isEmpty()) {
        m_error = QStringLiteral("PostgreSQL's programs were not found (set ZENTRIX_PG_BINDIR)");
        return false;
    }
    const QString passwordFile = m_root.filePath(QStringLiteral("pw"));
    QFile file(passwordFile);
    if (!file.open(QIODevice::WriteOnly)) {
        m_error = QStringLiteral("cannot write the password file");
        return false;
    }
    file.write(kPassword);
    file.close();
    m_account.handOver(passwordFile);
    m_error = run(QStringLiteral("initdb"),
        {QStringLiteral("-D"), dataDirectory(), QStringLiteral("-U"), QLatin1String(kUser),
            QStringLiteral("--pwfile=") + passwordFile, QStringLiteral("-A"), QStringLiteral("scram-sha-256"),
            QStringLiteral("-E"), QStringLiteral("UTF8"), QStringLiteral("--locale=C"), QStringLiteral("--no-sync")},
        kInitdbTimeoutMs);
    QFile::remove(passwordFile);
    return m_error.isEmpty();
}

bool TestPostgresServer::start()
{
    // A restart keeps the port, so clients configured for it find the server again.
    if (m_port == 0)
        m_port = freePort();
    const QString options = QStringLiteral("-p %1 -k %2 -c listen_addresses=127.0.0.1 -c fsync=off "
                                           "-c full_page_writes=off -c log_statement=all")
                                .arg(m_port)
                                .arg(m_root.path());
    m_error = run(QStringLiteral("pg_ctl"),
        {QStringLiteral("start"), QStringLiteral("-D"), dataDirectory(), QStringLiteral("-w"), QStringLiteral("-l"),
            m_root.filePath(QStringLiteral("server.log")), QStringLiteral("-o"), options},
        kPgCtlTimeoutMs);
    return m_error.isEmpty();
}

void TestPostgresServer::stop(const QString &mode)
{
    if (!QFile::exists(dataDirectory() + QStringLiteral("/postmaster.pid")))
        return;
    run(QStringLiteral("pg_ctl"),
        {QStringLiteral("stop"), QStringLiteral("-D"), dataDirectory(), QStringLiteral("-m"), mode,
            QStringLiteral("-w")},
        kPgCtlTimeoutMs);
}

SqlClient TestPostgresServer::client() const
{
    return {host(), m_port, QLatin1String(kUser), QLatin1String(kPassword)};
}

QString TestPostgresServer::execute(const QString &sql, const QString &database) const
{
    return client().execute(sql, database);
}

QStringList TestPostgresServer::column(const QString &sql, const QString &database) const
{
    return client().column(sql, database);
}

QString TestPostgresServer::serverLog() const
{
    QFile file(m_root.filePath(QStringLiteral("server.log")));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

void TestPostgresServer::clearServerLog() const
{
    QFile file(m_root.filePath(QStringLiteral("server.log")));
    if (file.open(QIODevice::ReadWrite))
        file.resize(0);
}
