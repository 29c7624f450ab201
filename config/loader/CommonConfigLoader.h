#pragma once

#include "config/loader/ConfigLoader.h"

#include <QStringList>

namespace config {

// The settings every product component shares: installation and data roots, the
// logger's keys and the paths derived from them.
class CommonConfigLoader : public ConfigLoader
{
    Q_OBJECT

public:
    CommonConfigLoader(const QSettings &settings, const QString &configLocation, QObject *parent = nullptr);
    ~CommonConfigLoader() override;

    void sync() override;
    virtual QString productName() const;
    virtual QString defaultRuntimeDirectory() const;
    virtual QString defaultDataDirectory() const;
    virtual QString legacyConfigPath() const;

    QString configLocation() const { return m_configLocation; }

    QString installationFolder() const;
    QString libraryPath() const;
    QString dataDirectory() const;
    QString runtimeDirectory() const;

    QString consoleLevel() const;
    QString logLevel() const;
    QString logFile() const;
    QString syslogLevel() const;
    QString winEventLogLevel() const;
    QStringList syslogTargets() const;
    QStringList logOverride() const;
    bool cefEnabled() const;
    bool localTimezone() const;
    bool logRotation() const;

    bool hasConsoleLevel() const;
    bool hasLogFile() const;
    bool hasLogOverride() const;
    bool hasSyslog() const;
    bool hasWinEventLogLevel() const;

    QString configDatabasePath() const;
    QString auditLogPath() const;

protected:
    // The running program's folder; empty before the application object exists, so
    // nothing read before it (data and log directories) may depend on it.
    static QString executableDirectory();

private:
    QString m_configLocation;
};

} // namespace config
