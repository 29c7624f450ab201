#include "app/run/ConfigurationReader.h"

#include "config/exceptions/ConfigException.h"
#include "config/exceptions/MissingKeyException.h"
#include "config/loader/IniEncoding.h"
#include "config/loader/Registry.h"
#include "config/validator/CoreConfigValidator.h"

#include <QFile>
#include <QSettings>

const QString ConfigurationReader::kLocation = QStringLiteral("HKEY_LOCAL_MACHINE\\Software\\Tarvex\\Bravik");

namespace {
// The values that name the folders a run works in.
const QStringList kPathKeys = {QStringLiteral("InstallationFolder"), QStringLiteral("internal/data_directory"),
    QStringLiteral("internal/library_path")};

// Expansion leaves an undefined variable as it is, which names no folder.
void refuseUndefinedVariables(QSettings::Format format)
{
    for (const QString &key : kPathKeys) {
        const QStringList undefined = config::Registry::undefinedVariables(ConfigurationReader::kLocation, format, key);
        if (!undefined.isEmpty())
            throw ConfigException(QStringLiteral("The registry value %1 of %2 is a REG_EXPAND_SZ that names the "
                                                 "environment variable %3, which is not defined for this run; define "
                                                 "it, or write the folder out, and run again.")
                                      .arg(key, ConfigurationReader::kLocation, undefined.first()));
    }
}

QString bothKeys()
{
    return QStringLiteral("the registry's 64-bit view %1 was read, and its 32-bit view %2 holds other values")
        .arg(ConfigurationReader::kLocation, config::Registry::view32Key(ConfigurationReader::kLocation));
}

void validateSettings(const QSettings &settings, const QStringList &viewDifferences)
{
    try {
        core::CoreConfigValidator(settings).validate();
    } catch (const MissingKeyException &e) {
        if (viewDifferences.isEmpty())
            throw;
        throw MissingKeyException(QStringLiteral("%1 (%2)").arg(e.message(), bothKeys()));
    }
}
} // namespace

std::unique_ptr<core::CoreConfigLoader> ConfigurationReader::load(bool validate, QString *note)
{
    const bool iniFile = QFile::exists(kLocation);
    const QSettings::Format format = iniFile ? config::IniEncoding::formatOf(kLocation)
                                             : config::Registry::viewOf(kLocation, QSettings::NativeFormat);
    // Anything but the native format asked for is the registry's 32-bit view.
    if (note && !iniFile && format != QSettings::NativeFormat)
        *note = QStringLiteral("the registry's 64-bit view holds no %1; read the 32-bit view's, as a 32-bit "
                               "installer wrote it (HKEY_LOCAL_MACHINE\\Software\\WOW6432Node)")
                    .arg(kLocation);
    const QStringList viewDifferences = iniFile ? QStringList() : config::Registry::viewDifferences(kLocation);
    if (note && !viewDifferences.isEmpty())
        *note = QStringLiteral("%1: %2").arg(bothKeys(), viewDifferences.join(QStringLiteral("; ")));
    const QSettings settings(kLocation, format);
    if (settings.status() != QSettings::NoError)
        throw ConfigException(QStringLiteral("Can't read config from %1").arg(kLocation, 0, QLatin1Char(' ')));
    if (!iniFile)
        refuseUndefinedVariables(format);
    if (validate)
        validateSettings(settings, viewDifferences);
    return std::make_unique<core::CoreConfigLoader>(settings, kLocation);
}
