#include "core/PostgresService.h"

#include "config/Exception.h"
#include "config/InvalidValueException.h"
#include "core/ClusterCreator.h"
#include "core/CoreConfigLoader.h"
#include "core/InstallationIdentity.h"
#include "core/QProcessRunner.h"
#include "core/ServerConfigFile.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>
#include <QSqlError>
#include <QSqlQuery>
#include <QThread>
#include <QUrl>
#include <QUuid>

namespace core {

namespace {
const QString kMaintenanceDatabase = QStringLiteral("postgres");
const QString kDefaultDatabaseName = QStringLiteral("sentrova_core");
const QString kDataSubdirectory = QStringLiteral("pg_data");
const QString kConnectionName = QStringLiteral("kvcore_connection");
const QString kDriver = QStringLiteral("QPSQL");

QString executableName(const QString &name)
{
    return name + QStringLiteral(ZENTRIX_PROGRAM_SUFFIX);
}
} // namespace

const QMap<QString, int> PostgresService::requiredSchemaVersions = {
    {QStringLiteral("auditlog"), 3},
    {QStringLiteral("av"), 10},
    {QStringLiteral("cached_scan"), 8},
    {QStringLiteral("cloud"), 3},
    {QStringLiteral("config"), 68},
    {QStringLiteral("db"), 10},
    {QStringLiteral("dlp"), 6},
    {QStringLiteral("engine"), 10},
    {QStringLiteral("privileges"), 1},
    {QStringLiteral("quarantine"), 6},
    {QStringLiteral("register"), 1},
    {QStringLiteral("sanitized"), 11},
    {QStringLiteral("scan"), 39},
    {QStringLiteral("setup"), 68},
    {QStringLiteral("webhook"), 0},
    {QStringLiteral("yara"), 60},
};

PostgresService::PostgresService(CoreConfigLoader *configuration, bool useLogger, bool stopAlways, QObject *parent)
    : QObject(parent)
    , m_configuration(configuration)
    , m_stopAlways(stopAlways)
{
    m_relay.useLogger = useLogger;
    m_controlFactory = [](const ServiceContext &context, const ServerAccount &account) {
        return ServiceControl::create(context, std::make_unique<QProcessRunner>(account, context.installDirectory));
    };
    if (m_configuration) {
        const int mode = m_configuration->dbMode();
        m_sharedDbMode = mode == 2 || mode == 4;
    }
}

PostgresService::~PostgresService()
{
    if (!m_control || !(m_started || m_stopAlways))
        return;
    // Non-shared installations stop twice when stopOnDestroy is set; both stops are meant.
    if (!m_sharedDbMode)
        stopService();
    if (stopOnDestroy)
        stopService();
}

void PostgresService::logPostgres(const QString &message, const QString &detail, const PostgresLogLevel &level) const
{
    m_relay.log(message, detail, level);
}

bool PostgresService::loadInformation(bool preferShared)
{
    if (!m_informationFile)
        m_informationFile = std::make_unique<InformationFile>(
            InformationFile::pathsIn(m_configuration->installationFolder()), m_relay);
    return m_informationFile->load(preferShared, m_information, m_loadedValues);
}

bool PostgresService::saveInformation()
{
    return m_informationFile && m_informationFile->save(m_information);
}

bool PostgresService::init(bool writeServerConfig, bool loadSharedInformation, bool consoleEcho)
{
    if (!loadInformation(loadSharedInformation))
        logPostgres(QStringLiteral("Could not load postgres's information"), QString(), PostgresLogLevel::Error);
    m_relay.consoleEcho = consoleEcho;
    applyLoadedInformation();

    const int connections = m_configuration->dbConnectionCount();
    if (connections < 1)
        throw InvalidValueException(QStringLiteral("Invalid total database connections value: %1").arg(connections));
    m_information.dbConnection = connections;

    fillMissingIdentity();
    if (m_sharedDbMode)
        adoptSharedInstanceName();
    settlePrivateUserName();
    if (ensureDatabaseName())
        saveInformation();
    logPostgres(QStringLiteral("Database name"), m_databaseName, PostgresLogLevel::Info);
    if (m_information.privatePassword.isEmpty()) {
        logPostgres(
            QStringLiteral("Generating private password for the first time"), QString(), PostgresLogLevel::Info);
        ensurePrivatePassword();
        saveInformation();
    }
    settlePaths();
    if (m_localMode == 1 && !prepareLocalServer(writeServerConfig))
        return false;

    if (m_loadedValues.value(QStringLiteral("is_need_db_upgrade"), false).toBool())
        m_upgradeNeeded = true;
    else
        checkDbUpgrade();
    logPostgres(
        QStringLiteral("Upgrade database status: %1").arg(m_upgradeNeeded ? 1 : 0), QString(), PostgresLogLevel::Info);
    return true;
}

void PostgresService::applyLoadedInformation()
{
    m_databaseName = m_information.dbName;
    m_firstSetup = m_loadedValues.value(QStringLiteral("postgres_first_setup"), false).toBool();
    m_upgradeV2Status = m_information.upgradeV2Status;
    m_localMode = m_information.isLocal() ? 1 : 0;
}

void PostgresService::fillMissingIdentity()
{
    const QString token = InstallationIdentity::token(m_configuration->installationFolder());
    if (m_information.deploymentId.isEmpty())
        m_information.deploymentId = token;
    if (m_information.instanceName.isEmpty())
        m_information.instanceName = token;
}

void PostgresService::adoptSharedInstanceName()
{
    if (m_configuration->instanceName().isEmpty())
        m_configuration->setInstanceName(m_information.instanceName);
    m_information.instanceName = m_configuration->instanceName();
}

void PostgresService::settlePrivateUserName()
{
    if (!m_information.privateUserName.isEmpty()) {
        m_privateUserName = QString::fromLatin1(QUrl::toPercentEncoding(m_information.privateUserName));
        return;
    }
    const QByteArray digest
        = QCryptographicHash::hash(m_information.instanceName.toUtf8(), QCryptographicHash::Sha1).toHex();
    m_privateUserName = QStringLiteral("usr_%1").arg(QString::fromLatin1(QUrl::toPercentEncoding(digest)));
}

bool PostgresService::ensureDatabaseName()
{
    if (!m_databaseName.isEmpty())
        return false;
    m_databaseName = kDefaultDatabaseName;
    if (!m_sharedDbMode)
        m_databaseName += QLatin1Char('_') + m_information.instanceName;
    m_information.dbName = m_databaseName;
    ensurePrivatePassword();
    logPostgres(QStringLiteral("Generating database name for the first time"), m_databaseName, PostgresLogLevel::Info);
    return true;
}

void PostgresService::ensurePrivatePassword()
{
    if (m_information.privatePassword.isEmpty())
        m_information.privatePassword = generatedSecret();
}

QString PostgresService::generatedSecret()
{
    return QUuid::createUuid().toString(QUuid::Id128);
}

void PostgresService::settlePaths()
{
    m_installDir.setPath(m_configuration->installationFolder() + QStringLiteral("/postgres"));
    m_binDir.setPath(m_installDir.filePath(QStringLiteral("bin")));
    m_pgCtlPath = m_binDir.filePath(executableName(QStringLiteral("pg_ctl")));
    m_psqlPath = m_binDir.filePath(executableName(QStringLiteral("psql")));
    m_initdbPath = m_binDir.filePath(executableName(QStringLiteral("initdb")));
    m_pgDumpPath = m_binDir.filePath(executableName(QStringLiteral("pg_dump")));
    m_dataDir = QDir(m_configuration->dataDirectory()).absoluteFilePath(kDataSubdirectory);
    m_account = ServerAccount::forInstallation(m_configuration->installationFolder());
    ServiceContext context;
    context.pgCtlPath = m_pgCtlPath;
    context.dataDirectory = m_dataDir;
    context.installDirectory = m_installDir.absolutePath();
    context.port = m_information.port;
    context.account = m_account;
    context.relay = &m_relay;
    m_control = m_controlFactory(context, m_account);
}

bool PostgresService::prepareLocalServer(bool writeServerConfig)
{
    if (m_account.isSuperuser()) {
        logPostgres(QStringLiteral("The database server cannot run as root; give the installation folder to an "
                                   "unprivileged account"),
            m_configuration->installationFolder(), PostgresLogLevel::Error);
        return false;
    }
    if (!ensureCluster())
        return false;
    if (writeServerConfig) {
        QFile::remove(m_dataDir + QStringLiteral("/postgresql.conf"));
        if (!createConfigFile())
            return false;
    }
    return ensureRunning() && waitUntilReady();
}

bool PostgresService::ensureCluster()
{
    // Hidden and system entries do not count: such a directory holds no cluster.
    const QDir dataDir(m_dataDir);
    if (dataDir.exists() && !dataDir.entryList(QDir::AllEntries | QDir::NoDotAndDotDot).isEmpty())
        return true;
    if (dataDir.exists() && !QDir(m_dataDir).removeRecursively())
        logPostgres(QStringLiteral("Could not cleanup postgres data folder"), m_dataDir, PostgresLogLevel::Error);
    return createCluster();
}

bool PostgresService::ensureRunning()
{
    const int status = serviceStatus();
    if (status == 0)
        return true;
    if (status != 3)
        return false;
    if (serviceExists()) {
        logPostgres(QStringLiteral("Unregistering old postgres service..."), QString(), PostgresLogLevel::Info);
        unregisterService();
    }
    registerService();
    return startService();
}

bool PostgresService::answers()
{
    return checkConnection(kMaintenanceDatabase);
}

bool PostgresService::waitUntilReady()
{
    QElapsedTimer elapsed;
    elapsed.start();
    for (int tries = 1; !answers(); ++tries) {
        logPostgres(QStringLiteral("Trying to connect to database, try count: %1").arg(tries), QString(),
            PostgresLogLevel::Info);
        if (tries >= kReadyTries || elapsed.elapsed() > kReadyTimeoutMs)
            break;
        QThread::msleep(kReadyRetryIntervalMs);
    }
    if (answers()) {
        logPostgres(QStringLiteral("Postgresql server is ready"), QString(), PostgresLogLevel::Info);
        return true;
    }
    logPostgres(QStringLiteral("Failed to connect to postgres server, trying to restart the service..."), QString(),
        PostgresLogLevel::Error);
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
    if (!ServerConfigFile::write(path, ServerConfigFile::render(readConfigTemplate(), values))) {
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
    return ClusterCreator(settings, m_account, m_relay).create();
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
    logPostgres(QStringLiteral("Starting zentrix postgresql service..."), QString(), PostgresLogLevel::Info);
    m_control->start();
    bool connected = false;
    for (int tries = 1; tries <= kStartTries && !connected; ++tries) {
        connected = answers() || checkConnection(m_databaseName);
        if (connected)
            break;
        logPostgres(QStringLiteral("Trying to connect to database, try count: %1").arg(tries), QString(),
            PostgresLogLevel::Info);
        QThread::msleep(kStartRetryIntervalMs);
    }
    // Set whether or not the server came up, so the destructor stops what was started.
    m_started = true;
    if (connected)
        logPostgres(QStringLiteral("Starting postgres service successful"), QString(), PostgresLogLevel::Info);
    else
        logPostgres(
            QStringLiteral("Failed to connect to postgres server, giving up"), QString(), PostgresLogLevel::Error);
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

PostgresInformation PostgresService::connectionSettings() const
{
    return m_information;
}

void PostgresService::configureHandle(QSqlDatabase &database, const QString &dbName) const
{
    database.setHostName(m_information.host);
    database.setPort(m_information.port);
    database.setDatabaseName(dbName);
    database.setUserName(m_information.user);
    // The round trip through the local code page is how the product has always passed
    // the password; servers provisioned by it expect exactly these bytes.
    database.setPassword(QString::fromLocal8Bit(m_information.password.toUtf8()));
}

bool PostgresService::openConnection(
    QSqlDatabase &database, const QString &dbName, QString &connectionName, bool logFailure)
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    connectionName = kConnectionName;
    connectionName += QStringLiteral("_%1").arg(now);
    database = QSqlDatabase::addDatabase(kDriver, connectionName);
    configureHandle(database, dbName);
    if (database.open())
        return true;
    if (logFailure)
        logPostgres(QStringLiteral("Could not connecting to postgres server, dbname = %1").arg(dbName),
            m_information.host, PostgresLogLevel::Error);
    return false;
}

bool PostgresService::checkConnection(const QString &dbName)
{
    bool ok = false;
    try {
        QSqlDatabase database = QSqlDatabase::addDatabase(kDriver, kConnectionName);
        configureHandle(database, dbName);
        ok = database.open();
        database.close();
    } catch (const std::exception &) {
        // The exception text is deliberately not part of the message.
        logPostgres(QStringLiteral("Error when checking connection, dbname = %1, error = ").arg(dbName),
            m_information.host, PostgresLogLevel::Error);
        ok = false;
    } catch (...) {
        logPostgres(QStringLiteral("Error when checking connection, unknow error"), m_information.host,
            PostgresLogLevel::Error);
        ok = false;
    }
    QSqlDatabase::removeDatabase(kConnectionName);
    return ok;
}

bool PostgresService::tableExists(QSqlDatabase database, const QString &schema, const QString &table)
{
    QSqlQuery query(database);
    const QString sql
        = QStringLiteral("select exists (select from pg_tables where schemaname = '%1' and tablename = '%2');")
              .arg(schema, table);
    if (!query.exec(sql))
        throw Exception(QStringLiteral("Error while checking table existence. Table: %1.%2 Detail: %3")
                            .arg(schema, table, query.lastError().text()));
    bool exists = false;
    if (query.next()) {
        exists = query.value(0).toBool();
        query.finish();
    }
    return exists;
}

void PostgresService::checkDbUpgrade()
{
    logPostgres(QStringLiteral("Checking for database upgrade"), QString(), PostgresLogLevel::Info);
    QString connectionName;
    try {
        runUpgradeCheck(connectionName);
    } catch (const Exception &e) {
        logPostgres(e.message(), QString(), PostgresLogLevel::Info);
    }
    QSqlDatabase::removeDatabase(connectionName);
}

void PostgresService::runUpgradeCheck(QString &connectionName)
{
    QSqlDatabase database;
    if (!openConnection(database, m_databaseName, connectionName, false)) {
        m_upgradeNeeded = false;
        throw Exception(QStringLiteral("Can't create connection"));
    }
    const QString lookup = QStringLiteral("SELECT instance_id FROM register.instance where instance_name = '%1'");
    QSqlQuery query(database);
    if (!query.exec(lookup.arg(m_configuration->instanceName())) || !query.next()) {
        if (m_sharedDbMode) {
            m_upgradeNeeded = false;
            throw Exception(QStringLiteral("instance_name doesnt exist"));
        }
        logPostgres(
            QStringLiteral("DBMode is standalone, checking for deploymentId"), QString(), PostgresLogLevel::Info);
        if (!query.exec(lookup.arg(m_information.deploymentId)) || !query.next()) {
            m_upgradeNeeded = false;
            throw Exception(QStringLiteral("deploymentId doesnt exist"));
        }
    }
    const QString filter = QStringLiteral("WHERE instance_id=%1").arg(query.value(0).toInt());
    query.finish();

    for (auto it = requiredSchemaVersions.cbegin(); it != requiredSchemaVersions.cend(); ++it) {
        if (!tableExists(database, it.key(), QStringLiteral("schema_version")))
            continue;
        QSqlQuery version(QStringLiteral("SELECT version from %1.schema_version %2;").arg(it.key(), filter), database);
        if (!version.isActive() || !version.next())
            continue;
        const int current = version.value(0).toInt();
        version.finish();
        if (current < it.value()) {
            m_upgradeNeeded = true;
            break;
        }
    }

    const QString schema = QStringLiteral("warehouse");
    const QString table = QStringLiteral("control_schema_version");
    QSqlQuery columnTest(database);
    const QString columnSql = QStringLiteral("SELECT 1 FROM information_schema.columns WHERE table_schema = '%1' AND "
                                             "table_name = '%2' AND column_name = '%3';")
                                  .arg(schema, table, QStringLiteral("instance_id"));
    if (!columnTest.exec(columnSql))
        throw Exception(columnTest.lastError().text());
    const QString controlSql = columnTest.next()
        ? QStringLiteral("SELECT version FROM %1.%2 %3;").arg(schema, table, filter)
        : QStringLiteral("SELECT version FROM %1.%2;").arg(schema, table);
    columnTest.finish();
    QSqlQuery control(controlSql, database);
    if (control.isActive() && control.next() && control.value(0).toInt() < kRequiredControlVersion)
        m_upgradeNeeded = true;
    control.finish();
    database.close();
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
