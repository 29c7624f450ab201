#include "config/loader/CoreConfigLoader.h"

#include <QDir>

namespace core {

namespace {
const QString kInstanceNameKey = QStringLiteral("global/instance_name");
const QString kIncludedConfigMarker = QStringLiteral("%INCLUDED_CONFIG_LOCATION%");

QString joined(const QString &directory, const QString &name)
{
    return QDir(directory).absoluteFilePath(name);
}
} // namespace

CoreConfigLoader::CoreConfigLoader(const QSettings &settings, const QString &configLocation, QObject *parent)
    : config::CommonConfigLoader(settings, configLocation, parent)
{ }

CoreConfigLoader::~CoreConfigLoader() = default;

config::RestConfiguration *CoreConfigLoader::restConfiguration()
{
    return this;
}

QString CoreConfigLoader::updateUrl() const
{
    return value(QStringLiteral("internal/updateurl"), QStringLiteral("https://update.tarvex.com/zentrix")).toString();
}

QString CoreConfigLoader::quarantineDirectory() const
{
    return dataDirectory() + QStringLiteral("/quarantine");
}

QString CoreConfigLoader::sanitizedDirectory() const
{
    return dataDirectory() + QStringLiteral("/sanitized");
}

QString CoreConfigLoader::dlpDirectory() const
{
    return dataDirectory() + QStringLiteral("/dlp");
}

QString CoreConfigLoader::currentDataDirectory() const
{
    return dataDirectory();
}

QHostAddress CoreConfigLoader::restAddress() const
{
    return readAddress(QStringLiteral("global/restaddress"));
}

quint16 CoreConfigLoader::restPort() const
{
    return readPort(QStringLiteral("global/restport"));
}

QString CoreConfigLoader::restSocketPath() const
{
    return joined(runtimeDirectory(), QStringLiteral("rest.sock"));
}

QString CoreConfigLoader::nginxPrefix() const
{
    return value(QStringLiteral("internal/nginxprefix"), joined(installationFolder(), QStringLiteral("nginx")))
        .toString();
}

QString CoreConfigLoader::nginxLibraryPath() const
{
    return value(QStringLiteral("internal/nginxlibrarypath"), joined(installationFolder(), QStringLiteral("nginx/lib")))
        .toString();
}

QString CoreConfigLoader::restRuntimeDirectory() const
{
    return runtimeDirectory();
}

QString CoreConfigLoader::includedRestConfig() const
{
    return value(
        QStringLiteral("internal/included_rest_config"), webServerFolder() + QStringLiteral("/conf/included.conf"))
        .toString();
}

QString CoreConfigLoader::staticContentDirectory() const
{
    return dataDirectory() + QStringLiteral("/static-content");
}

QString CoreConfigLoader::fillIncludedConfigLocation(const QString &text) const
{
    return QString(text).replace(kIncludedConfigMarker, includedRestConfig());
}

bool CoreConfigLoader::nginxLogRotation() const
{
    return value(QStringLiteral("logger/nginx_log_rotation"), false).toBool();
}

QString CoreConfigLoader::webServerFolder() const
{
    return executableDirectory() + QStringLiteral("/nginx");
}

QString CoreConfigLoader::instanceName() const
{
    return value(kInstanceNameKey, QString()).toString();
}

void CoreConfigLoader::setInstanceName(const QString &name)
{
    settings().setValue(kInstanceNameKey, name);
    settings().sync();
}

QString CoreConfigLoader::deploymentIdPrefix() const
{
    return value(QStringLiteral("internal/deploymentid_prefix"), QString()).toString();
}

int CoreConfigLoader::dbMode() const
{
    return value(QStringLiteral("global/dbmode"), 1).toInt();
}

int CoreConfigLoader::dbConnectionCount() const
{
    return value(QStringLiteral("internal/db_connection"), 10).toInt();
}

QString CoreConfigLoader::quarantinePath() const
{
    return value(QStringLiteral("global/quarantinepath"), quarantineDirectory()).toString();
}

QString CoreConfigLoader::sanitizePath() const
{
    return value(QStringLiteral("global/sanitizepath"), sanitizedDirectory()).toString();
}

QString CoreConfigLoader::dlpPath() const
{
    return value(QStringLiteral("global/dlppath"), dlpDirectory()).toString();
}

QString CoreConfigLoader::quarantineDatabasePath() const
{
    return quarantinePath() + QStringLiteral("/quarantine.db.sqlite");
}

QString CoreConfigLoader::sanitizeDatabasePath() const
{
    return sanitizePath() + QStringLiteral("/sanitize.db.sqlite");
}

QString CoreConfigLoader::dlpDatabasePath() const
{
    return dlpPath() + QStringLiteral("/dlp.db.sqlite");
}

QVariantMap CoreConfigLoader::nasSettings() const
{
    return {
        {QStringLiteral("host"), value(QStringLiteral("nas/host"))},
        {QStringLiteral("port"), value(QStringLiteral("nas/port"))},
        {QStringLiteral("worker_count"), value(QStringLiteral("nas/worker_count"), 4)},
    };
}

QString CoreConfigLoader::stringValue(const QString &key) const
{
    return value(key, QString()).toString();
}

QString CoreConfigLoader::logDirectory() const
{
    return dataDirectory() + QStringLiteral("/logs");
}

QString CoreConfigLoader::postgresDirectory() const
{
    return libraryPath() + QStringLiteral("/postgres");
}

QString CoreConfigLoader::updatesDirectory() const
{
    return dataDirectory() + QStringLiteral("/updates/");
}

QString CoreConfigLoader::mainDatabasePath() const
{
    return joined(dataDirectory(), QStringLiteral("zentrix.db.sqlite"));
}

QString CoreConfigLoader::statInfoDatabasePath() const
{
    return dataDirectory() + QStringLiteral("/statinfo.db.sqlite");
}

QString CoreConfigLoader::sandboxDatabasePath() const
{
    return dataDirectory() + QStringLiteral("/sandbox.db.sqlite");
}

QString CoreConfigLoader::cloudDatabasePath() const
{
    return dataDirectory() + QStringLiteral("/cloud.db.sqlite");
}

QString CoreConfigLoader::migrationLogPath() const
{
    return joined(logDirectory(), QStringLiteral("migration_log.log"));
}

QString CoreConfigLoader::upgradeLogPath() const
{
    return joined(logDirectory(), QStringLiteral("upgrade.log"));
}

QString CoreConfigLoader::dbCredentialFile() const
{
    return joined(libraryPath(), QStringLiteral("zentrix_postgres.dat"));
}

QString CoreConfigLoader::dbCredentialCatalogFile() const
{
    return joined(libraryPath(), QStringLiteral("zentrix_postgres.cat"));
}

QString CoreConfigLoader::dbSharedCredentialFile() const
{
    return joined(libraryPath(), QStringLiteral("zentrix_postgres.dat.shared"));
}

QString CoreConfigLoader::migrateToolPath() const
{
    return executableDirectory() + QStringLiteral("/zentrix-migrate-db.exe");
}

QString CoreConfigLoader::upgradeToolPath() const
{
    return executableDirectory() + QStringLiteral("/zentrix-upgrade-db-v2.exe");
}

} // namespace core
