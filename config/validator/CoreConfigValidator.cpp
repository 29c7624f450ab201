#include "config/validator/CoreConfigValidator.h"

#include "config/exceptions/InvalidValueException.h"
#include "config/exceptions/UnknownKeyException.h"

namespace core {

CoreConfigValidator::CoreConfigValidator(const QSettings &settings)
    : config::CommonConfigValidator(settings)
{
    m_optionalKeys << QStringLiteral("global/address") << QStringLiteral("global/port")
                   << QStringLiteral("internal/nginxlibrarypath") << QStringLiteral("internal/nginxprefix")
                   << QStringLiteral("logger/nginx_log_rotation") << QStringLiteral("global/no_cleanup_installfolder")
                   << QStringLiteral("internal/included_rest_config") << QStringLiteral("internal/updateurl")
                   << QStringLiteral("global/quarantinepath") << QStringLiteral("global/sanitizepath")
                   << QStringLiteral("internal/prefer_archive_in_queue")
                   << QStringLiteral("internal/body_transfer_method")
                   << QStringLiteral("internal/body_transfer_chunk_size") << QStringLiteral("internal/db_optimization")
                   << QStringLiteral("internal/scheduled_db_optimization_time")
                   << QStringLiteral("internal/db_connection") << QStringLiteral("dbserver/type")
                   << QStringLiteral("dbserver/host") << QStringLiteral("dbserver/current_host")
                   << QStringLiteral("dbserver/port") << QStringLiteral("dbserver/user")
                   << QStringLiteral("dbserver/password") << QStringLiteral("global/dbmode")
                   << QStringLiteral("dbserver/private_password") << QStringLiteral("global/instance_name")
                   << QStringLiteral("global/dlppath") << QStringLiteral("internal/sanitizepath_old")
                   << QStringLiteral("internal/dlppath_old") << QStringLiteral("internal/quarantinepath_old")
                   << QStringLiteral("internal/skip_upgrade_scan_data") << QStringLiteral("internal/cleanupfreq")
                   << QStringLiteral("internal/parallelcount") << QStringLiteral("global/tempdirectory")
                   << QStringLiteral("global/tempdirectory_create_timeout")
                   << QStringLiteral("internal/deploymentid_prefix") << QStringLiteral("internal/db_credential_path")
                   << QStringLiteral("dbserver/private_username") << QStringLiteral("logger/engine_debug")
                   << QStringLiteral("broker/host") << QStringLiteral("broker/port") << QStringLiteral("broker/user")
                   << QStringLiteral("broker/password") << QStringLiteral("broker/secure")
                   << QStringLiteral("cache/host") << QStringLiteral("cache/port") << QStringLiteral("cache/password")
                   << QStringLiteral("nas/host") << QStringLiteral("nas/port") << QStringLiteral("nas/worker_count");
    m_requiredKeys << QStringLiteral("global/restaddress") << QStringLiteral("global/restport");
    m_ignoredKeys << QStringLiteral("global/report_engine_issue");
}

CoreConfigValidator::~CoreConfigValidator() = default;

void CoreConfigValidator::validate()
{
    // Installations carry numbered variants such as internal/parallelcount_2.
    validateBaseTolerating(QStringLiteral("internal/parallelcount"));
    checkAllOrNone({QStringLiteral("global/address"), QStringLiteral("global/port")});
    checkUnsignedRange(
        QStringLiteral("internal/body_transfer_chunk_size"), 1, 1, 60, QStringLiteral("%1 must be between 1 and 60"));
    checkUnsignedRange(
        QStringLiteral("internal/body_transfer_method"), 0, 0, 1, QStringLiteral("%1 must be between 0 and 1"));
    checkDbMode();
}

void CoreConfigValidator::validateBaseTolerating(const QString &prefix)
{
    try {
        config::CommonConfigValidator::validate();
    } catch (const UnknownKeyException &e) {
        QStringList remaining = e.keys();
        remaining.erase(std::remove_if(remaining.begin(), remaining.end(),
                            [&prefix](const QString &key) { return key.startsWith(prefix); }),
            remaining.end());
        if (!remaining.isEmpty())
            throw UnknownKeyException(
                QStringLiteral("Unknown keys in config: %1").arg(remaining.join(QLatin1Char(','))), remaining);
    }
}

void CoreConfigValidator::checkUnsignedRange(
    const QString &key, qulonglong defaultValue, qulonglong low, qulonglong high, const QString &message) const
{
    bool ok = false;
    const qulonglong value = m_settings.value(key, defaultValue).toULongLong(&ok);
    if (!ok || value < low || value > high)
        throw InvalidValueException(message.arg(key));
}

void CoreConfigValidator::checkDbMode() const
{
    const QString key = QStringLiteral("global/dbmode");
    bool ok = false;
    m_settings.value(key, 1).toUInt(&ok);
    // Only convertibility is checked; an unlisted number such as 2 passes.
    if (!ok)
        throw InvalidValueException(QStringLiteral("%1 must be standalone(%2), non-persistence(%3) or shared(%4)")
                                        .arg(key, QStringLiteral("1"), QStringLiteral("3"), QStringLiteral("4")));
}

} // namespace core
