#include "config/validator/ConfigValidator.h"

#include "config/exceptions/MissingKeyException.h"
#include "config/exceptions/UnknownKeyException.h"
#include "config/loader/IniEncoding.h"

namespace config {

ConfigValidator::ConfigValidator(const QSettings &settings)
    : m_settings(settings)
    , m_optionalKeys({
          QStringLiteral("installed"),
          QStringLiteral("InstallationFolder"),
          QStringLiteral("logger/wineventlog_level"),
          QStringLiteral("logger/log_rotation"),
          QStringLiteral("logger/logfile"),
          QStringLiteral("logger/loglevel"),
          QStringLiteral("logger/syslog"),
          QStringLiteral("logger/syslog_level"),
          QStringLiteral("logger/override"),
          QStringLiteral("logger/cef"),
          QStringLiteral("logger/local_timezone"),
          QStringLiteral("logger/nginx_logfile"),
          QStringLiteral("internal/console_level"),
          QStringLiteral("internal/runtime_directory"),
          QStringLiteral("internal/data_directory"),
          QStringLiteral("internal/ignition_file_location"),
          QStringLiteral("global/use_proxy"),
          QStringLiteral("internal/library_path"),
      })
{ }

ConfigValidator::~ConfigValidator() = default;

void ConfigValidator::validate()
{
    QStringList keys = m_settings.allKeys();
    for (const QString &required : qAsConst(m_requiredKeys)) {
        if (!keys.contains(required))
            throw MissingKeyException(QStringLiteral("Required key missing from config: %1").arg(required));
        keys.removeAll(required);
    }
    for (const QString &optional : qAsConst(m_optionalKeys))
        keys.removeAll(optional);
    for (const QString &ignored : qAsConst(m_ignoredKeys))
        keys.removeAll(ignored);
    checkUnknownKeys(keys);
}

void ConfigValidator::checkUnknownKeys(const QStringList &remaining) const
{
    if (remaining.isEmpty())
        return;
    const QString message = QStringLiteral("Unknown keys in config: %1");
    if (!config::IniEncoding::isIni(m_settings.format()))
        throw UnknownKeyException(message.arg(remaining.join(QLatin1Char(','))), remaining);
    // INI files may carry commented-out entries ("section/#key"); the loader drops them.
    for (const QString &key : remaining) {
        if (!key.contains(QLatin1String("/#")))
            throw UnknownKeyException(message.arg(key), remaining);
    }
}

void ConfigValidator::checkAllOrNone(const QStringList &group) const
{
    if (group.isEmpty())
        return;
    const QStringList keys = m_settings.allKeys();
    const bool expected = keys.contains(group.first());
    for (const QString &key : group) {
        if (keys.contains(key) != expected)
            throw MissingKeyException(
                QStringLiteral("All or none of '%1' must be set!").arg(group.join(QLatin1String(", "))));
    }
}

} // namespace config
