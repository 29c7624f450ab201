#include "app/run/ConfigurationReader.h"

#include "config/exceptions/ConfigException.h"
#include "config/validator/CoreConfigValidator.h"

#include <QFile>
#include <QSettings>

const QString ConfigurationReader::kLocation = QStringLiteral("HKEY_LOCAL_MACHINE\\Software\\Tarvex\\Bravik");

std::unique_ptr<core::CoreConfigLoader> ConfigurationReader::load(bool validate)
{
    const QSettings::Format format = QFile::exists(kLocation) ? QSettings::IniFormat : QSettings::NativeFormat;
    const QSettings settings(kLocation, format);
    if (settings.status() != QSettings::NoError)
        throw ConfigException(QStringLiteral("Can't read config from %1").arg(kLocation, 0, QLatin1Char(' ')));
    if (validate)
        core::CoreConfigValidator(settings).validate();
    return std::make_unique<core::CoreConfigLoader>(settings, kLocation);
}
