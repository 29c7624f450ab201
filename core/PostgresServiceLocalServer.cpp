#include "core/PostgresService.h"

#include "config/loader/CoreConfigLoader.h"
#include "core/server/ClusterCreator.h"
#include "core/server/ServerAnswer.h"
#include "core/server/ServerConfigFile.h"
#include "core/server/port/PortProbe.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QThread>

namespace core {

namespace {
const QString kMaintenanceDatabase = QStringLiteral("postgres");
} // namespace

// Checked only where the server's programs must run: a server that already answers is
// used whoever owns the installation.
bool PostgresService::accountMayRunServer() const
{
    if (!m_account.isSuperuser())
        return true;
    logPostgres(QStringLiteral("The database server cannot run as root; give the installation folder to an "
                               "unprivileged account"),
        m_configuration->installationFolder(), PostgresLogLevel::Error);
    m_relay.reason(QStringLiteral("run the database server"),
        QStringLiteral("the installation folder %1 belongs to root, and PostgreSQL refuses to run as root")
            .arg(m_configuration->installationFolder()));
    return false;
}

bool PostgresService::prepareLocalServer(bool writeServerConfig)
{
    if (!pathsWorkable(!holdsCompleteCluster()) || !ensureCluster())
        return false;
    if (writeServerConfig) {
        QFile::remove(m_dataDir + QStringLiteral("/postgresql.conf"));
        if (!createConfigFile())
            return false;
    }
    return ensureRunning() && waitUntilReady();
}

// Refused before anything is made in folders where the server's programs would fail.
bool PostgresService::pathsWorkable(bool creatingCluster)
{
    const QString refusal = m_control->unworkablePaths(creatingCluster);
    if (refusal.isEmpty())
        return true;
    m_operatorAdvice = refusal;
    logPostgres(m_operatorAdvice, m_dataDir, PostgresLogLevel::Error);
    return false;
}

bool PostgresService::holdsCompleteCluster() const
{
    return QFileInfo(m_dataDir + QStringLiteral("/PG_VERSION")).isFile()
        && QFileInfo(m_dataDir + QStringLiteral("/global/pg_control")).isFile();
}

bool PostgresService::ensureCluster()
{
    // Hidden and system entries do not count: such a directory holds no cluster. One that
    // holds files but no complete cluster is never removed, and no server can start in it.
    const QDir dataDir(m_dataDir);
    if (dataDir.exists() && !dataDir.entryList(QDir::AllEntries | QDir::NoDotAndDotDot).isEmpty()) {
        if (holdsCompleteCluster())
            return true;
        m_operatorAdvice = QStringLiteral("The data folder %1 holds files but no complete database cluster (PG_VERSION "
                                          "or global/pg_control is missing). Move it aside, or remove it once it "
                                          "holds nothing you need; the next run then creates the cluster anew.")
                               .arg(m_dataDir);
        logPostgres(m_operatorAdvice, m_dataDir, PostgresLogLevel::Error);
        return false;
    }
    if (!accountMayRunServer())
        return false;
    // A link is never followed to remove what it points to.
    if (dataDir.exists() && (QFileInfo(m_dataDir).isSymLink() || !QDir(m_dataDir).removeRecursively()))
        logPostgres(QStringLiteral("Could not cleanup postgres data folder"), m_dataDir, PostgresLogLevel::Error);
    return createCluster();
}

bool PostgresService::ensureRunning()
{
    const int status = serviceStatus();
    if (status == 0)
        return true;
    if (!accountMayRunServer() || status != ServiceControl::kNotRunning || serviceTakenByAnother()
        || portTakenByAnother())
        return false;
    if (serviceExists()) {
        logPostgres(QStringLiteral("Unregistering old postgres service..."), QString(), PostgresLogLevel::Info);
        unregisterService();
    }
    registerService();
    return startService();
}

// The server this run started is gone again (it could not bind its port, say): no try can
// reach it any more.
bool PostgresService::startFailed()
{
    const QString failure = m_control->startFailure();
    if (failure.isEmpty())
        return false;
    m_operatorAdvice = QStringLiteral("The database server started by this run stopped at once: %1").arg(failure);
    m_relay.reason(QStringLiteral("start the database server in ") + m_dataDir, failure);
    return true;
}

bool PostgresService::answers()
{
    return checkConnection(kMaintenanceDatabase);
}

// The service's name is the installation's only while the service runs its data directory;
// another installation's is never stopped, unregistered or replaced.
bool PostgresService::serviceTakenByAnother()
{
    const QString refusal = m_control->serviceOfAnother();
    if (refusal.isEmpty())
        return false;
    m_operatorAdvice = refusal;
    logPostgres(m_operatorAdvice, m_dataDir, PostgresLogLevel::Error);
    return true;
}

// The installation's own server is not running, so whatever answers on its port is another
// program: the run must neither start a server that cannot bind there nor talk to that one.
bool PostgresService::portTakenByAnother()
{
    const PortProbe::Listener listener = PortProbe::find(m_information.host, m_information.port);
    if (!listener.found)
        return false;
    m_operatorAdvice = QStringLiteral("Another program already listens on %1:%2%3, where this installation's database "
                                      "server must start; the run connected to nothing there. Stop that program, or "
                                      "give this installation another port.")
                           .arg(m_information.host)
                           .arg(m_information.port)
                           .arg(listener.process.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(listener.process));
    logPostgres(m_operatorAdvice, m_dataDir, PostgresLogLevel::Error);
    return true;
}

// Judged on the maintenance database, which every cluster has: the product's database may
// rightly not exist yet.
bool PostgresService::refusedForGood(const QString &maintenanceError)
{
    if (!ServerAnswer::isFinalRefusal(maintenanceError))
        return false;
    m_operatorAdvice = QStringLiteral("The database server at %1:%2 refused the connection, and trying again cannot "
                                      "change that: %3")
                           .arg(m_information.host)
                           .arg(m_information.port)
                           .arg(maintenanceError.simplified());
    return true;
}

bool PostgresService::waitUntilReady()
{
    QElapsedTimer elapsed;
    elapsed.start();
    for (int tries = 1; !answers(); ++tries) {
        if (interrupted())
            return false;
        if (refusedForGood(m_lastConnectionError))
            break;
        logPostgres(QStringLiteral("Trying to connect to database, try count: %1").arg(tries), QString(),
            PostgresLogLevel::Info);
        m_relay.note(QStringLiteral("waiting for the server to answer, try %1 of %2").arg(tries).arg(kReadyTries));
        if (tries >= kReadyTries || elapsed.elapsed() > kReadyTimeoutMs)
            break;
        QThread::msleep(kReadyRetryIntervalMs);
    }
    if (answers()) {
        logPostgres(QStringLiteral("Postgresql server is ready"), QString(), PostgresLogLevel::Info);
        return true;
    }
    if (interrupted())
        return false;
    logPostgres(QStringLiteral("Failed to connect to postgres server, trying to restart the service..."), QString(),
        PostgresLogLevel::Error);
    m_relay.reason(QStringLiteral("connect to database %1").arg(kMaintenanceDatabase), m_lastConnectionError);
    stopService();
    return startService();
}

QString PostgresService::readConfigTemplate() const
{
    bool ok = false;
    const QString text = ServerConfigFile::readTemplate(&ok);
    logPostgres(ok ? QStringLiteral("Opened Postgres config file template")
                   : QStringLiteral("Opened Postgres config file template fail"),
        QString(), ok ? PostgresLogLevel::Info : PostgresLogLevel::Error);
    return text;
}

bool PostgresService::createConfigFile()
{
    ServerConfigFile::Values values;
    values.sharedMemoryType = m_control->dynamicSharedMemoryType();
    values.dataDirectory = m_dataDir;
    values.installDirectory = m_installDir.absolutePath();
    values.timeZone = ServerConfigFile::systemTimeZone();
    values.port = m_information.port;
    const QString path = ServerConfigFile::outputPath(m_dataDir);
    if (!ServerConfigFile::write(path, m_control->serverText(ServerConfigFile::render(readConfigTemplate(), values)))) {
        logPostgres(QStringLiteral("Can't create postgres config file"), path, PostgresLogLevel::Error);
        return false;
    }
    m_account.handOver(path);
    return true;
}

bool PostgresService::createCluster()
{
    ClusterCreator::Settings settings;
    settings.initdbPath = m_initdbPath;
    settings.installDirectory = m_installDir.path();
    settings.dataDirectory = m_dataDir;
    settings.user = m_information.user;
    settings.password = m_information.password;
    settings.interrupted = m_interrupted;
    ClusterCreator creator(settings, m_account, m_relay);
    const bool created = creator.create();
    // The product counts a started initdb as a success; the status check that follows fails.
    if (!creator.failure().isEmpty())
        m_operatorAdvice = QStringLiteral("initdb made no database cluster in %1: %2. Nothing was kept; remove the "
                                          "cause it names and run again.")
                               .arg(m_dataDir, creator.failure());
    return created;
}

void PostgresService::registerService()
{
    m_control->registerService();
}

bool PostgresService::startService()
{
    // The doubled separator is harmless and kept.
    QFile::remove(m_dataDir + QDir::separator() + QStringLiteral("/postgresql.conf"));
    if (!createConfigFile())
        return false;
    if (answers() || checkConnection(m_databaseName)) {
        logPostgres(QStringLiteral("Postgres server is already started"), QString(), PostgresLogLevel::Info);
        return true;
    }
    if (!accountMayRunServer())
        return false;
    logPostgres(QStringLiteral("Starting zentrix postgresql service..."), QString(), PostgresLogLevel::Info);
    m_control->start();
    bool connected = false;
    QElapsedTimer elapsed;
    elapsed.start();
    for (int tries = 1; tries <= kStartTries && elapsed.elapsed() < kStartTimeoutMs && !interrupted(); ++tries) {
        const bool maintenanceAnswers = answers();
        const QString maintenanceError = m_lastConnectionError;
        connected = maintenanceAnswers || checkConnection(m_databaseName);
        if (connected || refusedForGood(maintenanceError) || startFailed())
            break;
        logPostgres(QStringLiteral("Trying to connect to database, try count: %1").arg(tries), QString(),
            PostgresLogLevel::Info);
        m_relay.note(QStringLiteral("waiting for the server to start, try %1 of %2").arg(tries).arg(kStartTries));
        QThread::msleep(kStartRetryIntervalMs);
    }
    // Set whether or not the server came up, so the destructor stops what was started.
    m_started = true;
    if (connected)
        logPostgres(QStringLiteral("Starting postgres service successful"), QString(), PostgresLogLevel::Info);
    else
        logPostgres(
            QStringLiteral("Failed to connect to postgres server, giving up"), QString(), PostgresLogLevel::Error);
    if (!connected)
        m_relay.reason(QStringLiteral("connect to the started server"), m_lastConnectionError);
    return connected;
}

void PostgresService::stopService()
{
    m_control->stop();
}

void PostgresService::unregisterService()
{
    m_control->unregisterService();
}

int PostgresService::serviceStatus()
{
    return m_control->status();
}

bool PostgresService::serviceExists()
{
    return m_control->exists();
}

bool PostgresService::connectionFailedPermanently_slot()
{
    if (startService())
        return true;
    logPostgres(QStringLiteral("Cannot start service. Unregister and register service again then try to start"),
        QString(), PostgresLogLevel::Info);
    unregisterService();
    registerService();
    return startService();
}

} // namespace core
