#pragma once

#include "core/relay/PostgresLogRelay.h"
#include "core/server/process/ServerAccount.h"

#include <QString>

#include <functional>

namespace core {

// Creates the database cluster with initdb: the product's user as superuser, password
// authentication, the password passed through a short-lived file. All or nothing: initdb
// writes into a folder beside the data directory that is renamed into place only when initdb
// succeeded, so a run killed meanwhile leaves no half-made cluster behind.
class ClusterCreator
{
public:
    static constexpr int kStartTimeoutMs = 5000;
    static constexpr int kWaitSliceMs = 3000;
    // How often a running initdb is checked for an interrupt of the run.
    static constexpr int kInterruptPollMs = 100;
    // How long the work folder of a stopped initdb may take to come off the disk: its bootstrap
    // server ends as soon as it finds initdb, which feeds its input, gone.
    static constexpr int kWorkRemovalLimitMs = 5000;
    static constexpr const char *kPasswordFileName = "password.data";
    // Appended to the data directory's path: the folder initdb works in. Whatever stands
    // there is the tool's own, left by a killed run.
    static constexpr const char *kWorkSuffix = ".creating";

    struct Settings {
        QString initdbPath;
        QString installDirectory;
        QString dataDirectory;
        QString user;
        QString password;
        // Asked while initdb runs; true stops it and removes what it made.
        std::function<bool()> interrupted;
    };

    ClusterCreator(const Settings &settings, const ServerAccount &account, const PostgresLogRelay &relay);

    // Expects removeLeftovers() to have run first.
    bool create();
    // After create(): why initdb made no cluster, with its output; empty when it made one or
    // was interrupted.
    QString failure() const { return m_failure; }
    // The transient password file and the work folder of a run that was killed.
    static void removeLeftovers(const QString &installDirectory, const QString &dataDirectory);
    static QString passwordPath(const QString &installDirectory);
    static QString workDirectory(const QString &dataDirectory);

private:
    Settings m_settings;
    ServerAccount m_account;
    const PostgresLogRelay &m_relay;
    QString m_failure;
};

} // namespace core
