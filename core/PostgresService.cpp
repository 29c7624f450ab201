#include "core/PostgresService.h"

#include "config/exceptions/InvalidValueException.h"
#include "config/loader/CoreConfigLoader.h"
#include "core/secrets/InstallationIdentity.h"
#include "core/server/ClusterCreator.h"
#include "core/server/process/QProcessRunner.h"

#include <QCryptographicHash>
#include <QUrl>
#include <QUuid>

namespace core {

namespace {
const QString kDefaultDatabaseName = QStringLiteral("sentrova_core");
const QString kDataSubdirectory = QStringLiteral("pg_data");

QString executableName(const QString &name)
{
    return name + QStringLiteral(ZENTRIX_PROGRAM_SUFFIX);
}
} // namespace

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
    // Left only by a killed run: nothing else makes them, and only one run works at a time.
    ClusterCreator::removeLeftovers(m_installDir.path(), m_dataDir);
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

} // namespace core
