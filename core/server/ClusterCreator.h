#pragma once

#include "core/relay/PostgresLogRelay.h"
#include "core/server/process/ServerAccount.h"

#include <QString>

namespace core {

// Creates the database cluster with initdb: the product's user as superuser, password
// authentication, the password passed through a short-lived file.
class ClusterCreator
{
public:
    static constexpr int kStartTimeoutMs = 5000;
    static constexpr int kWaitSliceMs = 3000;
    static constexpr const char *kPasswordFileName = "password.data";

    struct Settings {
        QString initdbPath;
        QString installDirectory;
        QString dataDirectory;
        QString user;
        QString password;
    };

    ClusterCreator(const Settings &settings, const ServerAccount &account, const PostgresLogRelay &relay);

    bool create();

private:
    Settings m_settings;
    ServerAccount m_account;
    const PostgresLogRelay &m_relay;
};

} // namespace core
