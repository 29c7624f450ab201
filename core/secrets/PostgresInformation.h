#pragma once

#include <QJsonObject>
#include <QString>
#include <QVariantMap>

namespace core {

// What the service knows about its database, persisted in the encrypted information file.
struct PostgresInformation {
    QString host;
    int port = 0;
    QString user;
    QString password;
    QString type;
    QString dbName;
    int reserved = 0;
    int dbConnection = 0;
    bool isNeedDbUpgrade = false;
    bool upgradeV2Status = true;
    QString instanceName;
    QString privatePassword;
    QString pinCode;
    QString deploymentId;
    QString coreVersion;
    QString privateUserName;
    bool retainPrivateUser = false;

    // A local cluster that the service manages itself.
    bool isLocal() const;

    // Validates every present key in ascending order and fills the record; throws
    // PostgresException "config file is invalid, %1" on the first bad value.
    static PostgresInformation fromValues(const QVariantMap &values);
    QJsonObject toJson() const;
};

} // namespace core
