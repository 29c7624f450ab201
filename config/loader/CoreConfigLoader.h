#pragma once

#include "config/loader/CommonConfigLoader.h"
#include "config/loader/RestConfiguration.h"

#include <QVariantMap>

namespace core {

// The core server's keys and the directory layout derived from the installation
// folder (I) and the data directory (D).
class CoreConfigLoader : public config::CommonConfigLoader, public config::RestConfiguration
{
    Q_OBJECT

public:
    CoreConfigLoader(const QSettings &settings, const QString &configLocation, QObject *parent = nullptr);
    ~CoreConfigLoader() override;

    virtual config::RestConfiguration *restConfiguration();
    virtual QString updateUrl() const;
    virtual QString quarantineDirectory() const;
    virtual QString sanitizedDirectory() const;
    virtual QString dlpDirectory() const;
    virtual QString currentDataDirectory() const;

    // config::RestConfiguration
    QHostAddress restAddress() const override;
    quint16 restPort() const override;
    QString restSocketPath() const override;
    QString nginxPrefix() const override;
    QString nginxLibraryPath() const override;
    QString restRuntimeDirectory() const override;
    QString includedRestConfig() const override;
    QString staticContentDirectory() const override;
    QString fillIncludedConfigLocation(const QString &text) const override;
    bool nginxLogRotation() const override;
    QString webServerFolder() const override;

    QString instanceName() const;
    void setInstanceName(const QString &name);
    QString deploymentIdPrefix() const;
    int dbMode() const;
    int dbConnectionCount() const;
    QString quarantinePath() const;
    QString sanitizePath() const;
    QString dlpPath() const;
    QString quarantineDatabasePath() const;
    QString sanitizeDatabasePath() const;
    QString dlpDatabasePath() const;
    QVariantMap nasSettings() const;
    QString stringValue(const QString &key) const;

    QString logDirectory() const;
    QString postgresDirectory() const;
    QString updatesDirectory() const;
    QString mainDatabasePath() const;
    QString statInfoDatabasePath() const;
    QString sandboxDatabasePath() const;
    QString cloudDatabasePath() const;
    QString migrationLogPath() const;
    QString upgradeLogPath() const;
    QString dbCredentialFile() const;
    QString dbCredentialCatalogFile() const;
    QString dbSharedCredentialFile() const;
    QString migrateToolPath() const;
    QString upgradeToolPath() const;
};

} // namespace core
