#include "config/loader/CommonConfigLoader.h"

#include <QCoreApplication>
#include <QDir>
#include <QStandardPaths>

namespace config {

namespace {
const QString kInstallationFolderKey = QStringLiteral("InstallationFolder");
}

CommonConfigLoader::CommonConfigLoader(const QSettings &settings, const QString &configLocation, QObject *parent)
    : ConfigLoader(settings, parent)
    , m_configLocation(configLocation)
{ }

CommonConfigLoader::~CommonConfigLoader() = default;

void CommonConfigLoader::sync()
{
    ConfigLoader::sync();
}

QString CommonConfigLoader::productName() const
{
    return QStringLiteral("zentrix");
}

QString CommonConfigLoader::defaultRuntimeDirectory() const
{
    QDir temp = QDir::temp();
    temp.mkdir(productName());
    return temp.absoluteFilePath(productName());
}

QString CommonConfigLoader::defaultDataDirectory() const
{
    const QString configRoot
        = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QLatin1Char('/') + productName();
    const QString folder = value(kInstallationFolderKey, configRoot).toString();
    // The trailing separator is kept on purpose: derived paths add their own leading "/".
    return QDir(folder).absoluteFilePath(QStringLiteral("data")) + QLatin1Char('/');
}

QString CommonConfigLoader::legacyConfigPath() const
{
    return QStringLiteral("c:\\tarvex\\%1.conf").arg(productName());
}

QString CommonConfigLoader::executableDirectory()
{
    return QCoreApplication::instance() ? QCoreApplication::applicationDirPath() : QString();
}

QString CommonConfigLoader::installationFolder() const
{
    return value(kInstallationFolderKey, executableDirectory()).toString();
}

QString CommonConfigLoader::libraryPath() const
{
    const QString absoluteInstallation = QDir(installationFolder()).absolutePath();
    return value(QStringLiteral("internal/library_path"), absoluteInstallation).toString();
}

QString CommonConfigLoader::dataDirectory() const
{
    return value(QStringLiteral("internal/data_directory"), defaultDataDirectory()).toString();
}

QString CommonConfigLoader::runtimeDirectory() const
{
    const QString key = QStringLiteral("internal/runtime_directory");
    if (settings().contains(key))
        return value(key).toString();
    return defaultRuntimeDirectory();
}

QString CommonConfigLoader::consoleLevel() const
{
    return readValue(QStringLiteral("internal/console_level")).toString();
}

QString CommonConfigLoader::logLevel() const
{
    return readValue(QStringLiteral("logger/loglevel")).toString();
}

QString CommonConfigLoader::logFile() const
{
    return readValue(QStringLiteral("logger/logfile")).toString();
}

QString CommonConfigLoader::syslogLevel() const
{
    return readValue(QStringLiteral("logger/syslog_level")).toString();
}

QString CommonConfigLoader::winEventLogLevel() const
{
    return readValue(QStringLiteral("logger/wineventlog_level")).toString();
}

QStringList CommonConfigLoader::syslogTargets() const
{
    return readValue(QStringLiteral("logger/syslog")).toStringList();
}

QStringList CommonConfigLoader::logOverride() const
{
    return readValue(QStringLiteral("logger/override")).toStringList();
}

bool CommonConfigLoader::cefEnabled() const
{
    return readBool(QStringLiteral("logger/cef"), false);
}

bool CommonConfigLoader::localTimezone() const
{
    return readBool(QStringLiteral("logger/local_timezone"), false);
}

bool CommonConfigLoader::logRotation() const
{
    return readBool(QStringLiteral("logger/log_rotation"), false);
}

bool CommonConfigLoader::hasConsoleLevel() const
{
    return settings().contains(QStringLiteral("internal/console_level"));
}

bool CommonConfigLoader::hasLogFile() const
{
    return settings().contains(QStringLiteral("logger/logfile"));
}

bool CommonConfigLoader::hasLogOverride() const
{
    return settings().contains(QStringLiteral("logger/override"));
}

bool CommonConfigLoader::hasSyslog() const
{
    return settings().contains(QStringLiteral("logger/syslog"));
}

bool CommonConfigLoader::hasWinEventLogLevel() const
{
    return settings().contains(QStringLiteral("logger/wineventlog_level"));
}

QString CommonConfigLoader::configDatabasePath() const
{
    return dataDirectory() + QStringLiteral("/config.db.sqlite");
}

QString CommonConfigLoader::auditLogPath() const
{
    return dataDirectory() + QStringLiteral("/auditlog.sqlite");
}

} // namespace config
