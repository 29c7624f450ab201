#include "support/TestServer.h"

#include "support/ToolSandbox.h"

#include "app/run/LibpqHandle.h"

#include <libpq-fe.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSqlDatabase>
#include <QSqlError>
#include <QTcpServer>
#include <QUuid>

using namespace Qt::StringLiterals;

namespace {
constexpr int kProgramTimeoutMs = 120000;
TestServer *s_shared = nullptr;
} // namespace

core::ServerAccount TestServer::unprivilegedAccount()
{
    const core::ServerAccount current = core::ServerAccount::current();
    return current.isSuperuser() ? core::ServerAccount::named(u"postgres"_s) : current;
}

TestServer::TestServer(const QStringList &settings)
    : m_settings(settings)
    , m_account(unprivilegedAccount())
{
    m_port = qEnvironmentVariableIntValue(kExternalPortVariable);
    m_external = m_port != 0;
    if (!prepare())
        return;
    const QString passwordFile = m_root.filePath(u"pw"_s);
    ToolSandbox::write(passwordFile, kPassword);
    m_account.handOver(passwordFile);
    m_error = run(u"initdb"_s,
        {u"-D"_s, dataDirectory(), u"-U"_s, QLatin1String(kUser), u"--pwfile="_s + passwordFile, u"-A"_s,
            u"scram-sha-256"_s, u"-E"_s, u"UTF8"_s, u"--locale=C"_s, u"--no-sync"_s});
    if (m_error.isEmpty())
        start();
}

TestServer::TestServer(const TestServer &primary, const QStringList &settings)
    : m_settings(settings)
    , m_account(unprivilegedAccount())
{
    if (primary.isExternal())
        m_error = u"the primary is run by someone else"_s;
    if (!prepare())
        return;
    m_error = run(u"pg_basebackup"_s,
        {u"-d"_s,
            u"host=127.0.0.1 port=%1 user=%2 password=%3"_s.arg(primary.port())
                .arg(QLatin1String(kUser), QLatin1String(kPassword)),
            u"-D"_s, dataDirectory(), u"-R"_s, u"-X"_s, u"stream"_s, u"-c"_s, u"fast"_s, u"--no-sync"_s});
    if (m_error.isEmpty())
        start();
}

bool TestServer::prepare()
{
    if (m_external || !m_error.isEmpty())
        return false;
    if (!m_account.isValid())
        m_error = u"running as root and no unprivileged 'postgres' account exists"_s;
    else if (binDirectory().isEmpty())
        m_error = u"PostgreSQL's programs were not found (set ZENTRIX_PG_BINDIR)"_s;
    if (!m_error.isEmpty())
        return false;
    m_account.handOver(m_root.path());
    return true;
}

TestServer::~TestServer()
{
    stop(u"immediate"_s);
}

TestServer &TestServer::shared()
{
    if (!s_shared)
        s_shared = new TestServer;
    return *s_shared;
}

void TestServer::releaseShared()
{
    delete s_shared;
    s_shared = nullptr;
}

QString TestServer::binDirectory()
{
    const QString configured = qEnvironmentVariable("ZENTRIX_PG_BINDIR");
    if (!configured.isEmpty())
        return configured;
    const QDir versions(u"/usr/lib/postgresql"_s);
    const QStringList found = versions.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    return found.isEmpty() ? QString() : versions.filePath(found.last() + u"/bin"_s);
}

int TestServer::freePort()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost, 0) ? probe.serverPort() : 0;
}

QString TestServer::run(const QString &program, const QStringList &arguments) const
{
    QProcess process;
    process.setWorkingDirectory(m_root.path());
    process.setProcessChannelMode(QProcess::MergedChannels);
    m_account.applyTo(process);
    process.start(QDir(binDirectory()).filePath(program), arguments);
    if (process.waitForFinished(kProgramTimeoutMs) && process.exitStatus() == QProcess::NormalExit
        && process.exitCode() == 0)
        return QString();
    process.kill();
    process.waitForFinished();
    return program + u" failed: "_s + QString::fromLocal8Bit(process.readAll());
}

bool TestServer::start()
{
    if (m_external)
        return false;
    // A restart keeps the port, so clients configured for it find the server again.
    if (m_port == 0)
        m_port = freePort();
    QString options = u"-p %1 -k '' -c listen_addresses=127.0.0.1 -c fsync=off"_s.arg(m_port);
    for (const QString &setting : m_settings)
        options += u" -c "_s + setting;
    m_error = run(u"pg_ctl"_s,
        {u"start"_s, u"-D"_s, dataDirectory(), u"-w"_s, u"-l"_s, m_root.filePath(u"server.log"_s), u"-o"_s, options});
    return m_error.isEmpty();
}

void TestServer::stop(const QString &mode)
{
    if (m_external)
        return;
    if (QFile::exists(dataDirectory() + u"/postmaster.pid"_s))
        run(u"pg_ctl"_s, {u"stop"_s, u"-D"_s, dataDirectory(), u"-m"_s, mode, u"-w"_s});
}

void TestServer::freshProductDatabase() const
{
    sql(u"DROP DATABASE IF EXISTS product WITH (FORCE)"_s, u"postgres"_s);
    sql(u"CREATE DATABASE product"_s, u"postgres"_s);
}

QString TestServer::productSchema()
{
    QFile file(QStringLiteral(ZENTRIX_FIXTURES_PATH "/product-schema.sql"));
    if (!file.open(QIODevice::ReadOnly))
        ADD_FAILURE() << "no fixture: " << file.fileName().toStdString();
    return QString::fromUtf8(file.readAll());
}

QStringList TestServer::sql(const QString &statements, const QString &database) const
{
    return sqlAt(m_port, statements, database);
}

QSqlDatabase TestServer::connectionAt(int port, const QString &database, const QString &name)
{
    QSqlDatabase db = QSqlDatabase::addDatabase(u"QPSQL"_s, name);
    db.setHostName(u"127.0.0.1"_s);
    db.setPort(port);
    db.setDatabaseName(database);
    db.setUserName(QLatin1String(kUser));
    db.setPassword(QLatin1String(kPassword));
    db.open();
    return db;
}

// Through libpq itself: Qt's driver reports a script whose middle statement fails as a success.
QStringList TestServer::sqlAt(int port, const QString &statements, const QString &database)
{
    const QString name = QUuid::createUuid().toString(QUuid::Id128);
    QStringList rows;
    {
        QSqlDatabase db = connectionAt(port, database, name);
        PGconn *const connection = LibpqHandle::of(db);
        PGresult *const result = connection ? PQexec(connection, statements.toUtf8().constData()) : nullptr;
        const ExecStatusType status = result ? PQresultStatus(result) : PGRES_FATAL_ERROR;
        if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK)
            ADD_FAILURE() << statements.left(200).toStdString() << ": " << db.lastError().text().toStdString()
                          << (connection ? PQerrorMessage(connection) : "");
        for (int row = 0; status == PGRES_TUPLES_OK && row < PQntuples(result); ++row) {
            QStringList columns;
            for (int column = 0; column < PQnfields(result); ++column)
                columns << QString::fromUtf8(PQgetvalue(result, row, column));
            rows << columns.join(QLatin1Char('|'));
        }
        PQclear(result);
    }
    QSqlDatabase::removeDatabase(name);
    return rows;
}
