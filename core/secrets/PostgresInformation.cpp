#include "core/secrets/PostgresInformation.h"

#include "config/exceptions/Exception.h"
#include "core/PostgresException.h"

#include <QStringList>

namespace core {

namespace {

const QStringList &keysThatMayBeEmpty()
{
    static const QStringList keys = {
        QStringLiteral("dbname"),
        QStringLiteral("is_need_db_upgrade"),
        QStringLiteral("private_password"),
        QStringLiteral("instance_name"),
        QStringLiteral("upgrade_v2_status"),
        QStringLiteral("pin_code"),
        QStringLiteral("deployment_id"),
        QStringLiteral("core_version"),
        QStringLiteral("private_username"),
        QStringLiteral("dbserver/") + QStringLiteral("private_username"),
        QStringLiteral("dbserver/") + QStringLiteral("private_password"),
        QStringLiteral("retain_private_user"),
    };
    return keys;
}

const QStringList &validTypes()
{
    static const QStringList types
        = {QStringLiteral("local"), QStringLiteral("remote"), QStringLiteral("1"), QStringLiteral("2")};
    return types;
}

void validate(const QVariantMap &values)
{
    // QVariantMap iterates in ascending key order.
    for (auto it = values.cbegin(); it != values.cend(); ++it) {
        const QString text = it.value().toString();
        if (text.isEmpty() && !keysThatMayBeEmpty().contains(it.key()))
            throw Exception(QStringLiteral("%1 is empty").arg(it.key()));
        if (it.key() == QLatin1String("type") && !validTypes().contains(text))
            throw Exception(QStringLiteral("%1 is invalid").arg(it.key()));
    }
}

} // namespace

bool PostgresInformation::isLocal() const
{
    return type == QLatin1String("local") || type == QLatin1String("1");
}

PostgresInformation PostgresInformation::fromValues(const QVariantMap &values)
{
    try {
        validate(values);
    } catch (const Exception &e) {
        throw PostgresException(QStringLiteral("config file is invalid, %1").arg(e.message()));
    }
    PostgresInformation info;
    info.host = values.value(QStringLiteral("host")).toString();
    info.port = values.value(QStringLiteral("port")).toInt();
    info.user = values.value(QStringLiteral("user")).toString();
    info.password = values.value(QStringLiteral("password")).toString();
    info.type = values.value(QStringLiteral("type")).toString();
    info.isNeedDbUpgrade = values.value(QStringLiteral("is_need_db_upgrade")).toBool();
    info.upgradeV2Status = values.value(QStringLiteral("upgrade_v2_status"), true).toBool();
    info.dbName = values.value(QStringLiteral("dbname")).toString();
    info.dbConnection = values.value(QStringLiteral("db_connection")).toInt();
    info.instanceName = values.value(QStringLiteral("instance_name")).toString();
    info.privatePassword = values.value(QStringLiteral("private_password")).toString();
    info.pinCode = values.value(QStringLiteral("pin_code")).toString();
    info.deploymentId = values.value(QStringLiteral("deployment_id")).toString();
    info.coreVersion = values.value(QStringLiteral("core_version")).toString();
    info.privateUserName = values.value(QStringLiteral("private_username")).toString();
    info.retainPrivateUser = values.value(QStringLiteral("retain_private_user")).toBool();
    return info;
}

QJsonObject PostgresInformation::toJson() const
{
    return {
        {QStringLiteral("host"), host},
        {QStringLiteral("port"), port},
        {QStringLiteral("user"), user},
        {QStringLiteral("password"), password},
        {QStringLiteral("type"), type},
        {QStringLiteral("is_need_db_upgrade"), isNeedDbUpgrade},
        {QStringLiteral("upgrade_v2_status"), upgradeV2Status},
        {QStringLiteral("dbname"), dbName},
        {QStringLiteral("db_connection"), dbConnection},
        {QStringLiteral("instance_name"), instanceName},
        {QStringLiteral("private_password"), privatePassword},
        {QStringLiteral("pin_code"), pinCode},
        {QStringLiteral("deployment_id"), deploymentId},
        {QStringLiteral("core_version"), coreVersion},
        {QStringLiteral("private_username"), privateUserName},
        {QStringLiteral("retain_private_user"), retainPrivateUser},
    };
}

} // namespace core
