#pragma once

#include "core/relay/PostgresLogLevel.h"
#include "core/relay/PostgresLogRelay.h"
#include "core/secrets/InformationFile.h"
#include "core/secrets/PostgresInformation.h"
#include "core/server/control/ServiceControl.h"
#include "core/server/process/ServerAccount.h"

#include <QDir>
#include <QMap>
#include <QObject>
#include <QProcess>
#include <QSqlDatabase>
#include <QString>
#include <QVariantMap>

#include <functional>
#include <memory>

namespace core {

class CoreConfigLoader;

// Owns everything the product knows about its local PostgreSQL server: the stored
// connection data, the server's programs and directories, and the service that runs it.
class PostgresService : public QObject
{
    Q_OBJECT

public:
    // Schema name to the lowest version this build works with, walked in name order.
    static const QMap<QString, int> requiredSchemaVersions;
    static constexpr int kRequiredControlVersion = 3;
    // After the start command: 150 tries, 200 ms apart, at most about 30 s.
    static constexpr int kStartTries = 150;
    static constexpr int kStartRetryIntervalMs = 200;
    static constexpr int kStartTimeoutMs = 30000;
    // Waiting for a running server: 120 tries, 500 ms apart, at most 180 s.
    static constexpr int kReadyTries = 120;
    static constexpr int kReadyRetryIntervalMs = 500;
    static constexpr int kReadyTimeoutMs = 180000;
    // Bounds every connection attempt (libpq's connect_timeout), so that a program that
    // accepts connections but never answers cannot hold a wait; PGCONNECT_TIMEOUT wins.
    static constexpr int kConnectTimeoutSeconds = 10;

    using ServiceControlFactory
        = std::function<std::unique_ptr<ServiceControl>(const ServiceContext &, const ServerAccount &)>;

    PostgresService(CoreConfigLoader *configuration, bool useLogger, bool stopAlways, QObject *parent = nullptr);
    ~PostgresService() override;

    // Makes the server usable: information, generated names, cluster, service, readiness
    // and the upgrade check. False (with a logged reason) when the server is not usable.
    bool init(bool writeServerConfig, bool loadSharedInformation, bool consoleEcho);

    void logPostgres(const QString &message, const QString &detail, const PostgresLogLevel &level) const;

    bool loadInformation(bool preferShared);
    bool saveInformation();

    PostgresInformation connectionSettings() const;
    bool openConnection(QSqlDatabase &database, const QString &dbName, QString &connectionName, bool logFailure);
    bool checkConnection(const QString &dbName);

    void checkDbUpgrade();
    bool tableExists(QSqlDatabase database, const QString &schema, const QString &table);

    QString readConfigTemplate() const;
    bool createConfigFile();
    bool createCluster();
    void registerService();
    // True once the server accepts connections.
    bool startService();
    // Stops the server, kills what is left of it and unregisters the service.
    void stopService();
    void unregisterService();
    int serviceStatus();
    bool serviceExists();

    // Told every message and the reasons of failures (see PostgresLogRelay::observer).
    void setObserver(std::function<void(const QString &line)> observer) { m_relay.observer = std::move(observer); }
    // Told what the run log must say of a run that goes on (see PostgresLogRelay::warning).
    void setWarningSink(std::function<void(const QString &line)> sink) { m_relay.warning = std::move(sink); }
    // Asked during the long waits of init (cluster creation, start, readiness): true makes
    // init give up at once and leave nothing half-made.
    void setInterruptCheck(std::function<bool()> interrupted) { m_interrupted = std::move(interrupted); }
    // Server settings ("name=value") for every session that openConnection opens from now on,
    // given at connect time after those of PGOPTIONS, so that no statement is added for them.
    void setSessionSettings(const QStringList &settings) { m_sessionSettings = settings; }
    // Set when init failed for a reason only the operator can remove: what to do about it.
    QString operatorAdvice() const { return m_operatorAdvice; }
    // Copies of information files kept before they were replaced.
    QStringList keptInformationCopies() const
    {
        return m_informationFile ? m_informationFile->keptCopies() : QStringList();
    }

    // Replaces how the platform's service backend is made (before init).
    void setServiceControlFactory(ServiceControlFactory factory) { m_controlFactory = std::move(factory); }

    bool upgradeNeeded() const { return m_upgradeNeeded; }
    bool firstSetup() const { return m_firstSetup; }
    bool isLocal() const { return m_localMode == 1; }
    bool startedServer() const { return m_started; }
    bool sharedDbMode() const { return m_sharedDbMode; }
    QString databaseName() const { return m_databaseName; }
    QString privateUserName() const { return m_privateUserName; }
    QString dataDirectory() const { return m_dataDir; }
    QString installDirectory() const { return m_installDir.path(); }

    // Set by the caller after construction; the destructor then stops a server this run
    // started once more.
    bool stopOnDestroy = false;
    bool auxiliaryStopOnDestroy = false;

public slots:
    bool connectionFailedPermanently_slot();

private:
    void applyLoadedInformation();
    void fillMissingIdentity();
    void adoptSharedInstanceName();
    void settlePrivateUserName();
    bool ensureDatabaseName();
    void ensurePrivatePassword();
    void settlePaths();
    bool accountMayRunServer() const;
    bool prepareLocalServer(bool writeServerConfig);
    bool pathsWorkable(bool creatingCluster);
    bool ensureCluster();
    bool ensureRunning();
    bool waitUntilReady();
    bool interrupted() const { return m_interrupted && m_interrupted(); }
    bool holdsCompleteCluster() const;
    bool answers();
    // Records why waiting cannot help: a refusal the server repeats on every try.
    bool refusedForGood(const QString &maintenanceError);
    bool portTakenByAnother();
    bool serviceTakenByAnother();
    bool startFailed();
    void runUpgradeCheck(QString &connectionName);
    // Why the handle cannot carry the connection's texts to the server; empty when it can.
    QString configureHandle(QSqlDatabase &database, const QString &dbName) const;
    static QString generatedSecret();

    CoreConfigLoader *m_configuration = nullptr;
    bool m_firstSetup = false;
    bool m_upgradeNeeded = false;
    bool m_secondMark = false;
    bool m_upgradeV2Status = true;
    PostgresInformation m_information;
    QVariantMap m_loadedValues;
    QString m_databaseName;
    QString m_spare;
    QDir m_installDir;
    QDir m_binDir;
    QString m_pgCtlPath;
    QString m_psqlPath;
    QString m_initdbPath;
    QString m_dataDir;
    QString m_pgDumpPath;
    std::unique_ptr<InformationFile> m_informationFile;
    int m_localMode = 0;
    PostgresLogRelay m_relay;
    bool m_stopAlways = false;
    bool m_started = false;
    QProcess m_process;
    QString m_privateUserName;
    QString m_connectionName;
    // Why the last connection check failed, for the operator.
    QString m_lastConnectionError;
    QString m_operatorAdvice;
    std::function<bool()> m_interrupted;
    QStringList m_sessionSettings;
    bool m_sharedDbMode = false;
    ServerAccount m_account;
    ServiceControlFactory m_controlFactory;
    std::unique_ptr<ServiceControl> m_control;
};

} // namespace core
