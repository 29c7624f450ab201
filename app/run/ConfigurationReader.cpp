#include "app/run/ConfigurationReader.h"

#include "config/exceptions/ConfigException.h"
#include "config/loader/IniEncoding.h"
#include "config/loader/Registry.h"
#include "config/validator/CoreConfigValidator.h"

#include <QFile>
#include <QSettings>

const QString ConfigurationReader::kLocation = QStringLiteral("HKEY_LOCAL_MACHINE\\Software\\Tarvex\\Bravik");

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
    const QSettings settings(kLocation, format);
    if (settings.status() != QSettings::NoError)
        throw ConfigException(QStringLiteral("Can't read config from %1").arg(kLocation, 0, QLatin1Char(' ')));
    if (validate)
        core::CoreConfigValidator(settings).validate();
    return std::make_unique<core::CoreConfigLoader>(settings, kLocation);
}
