#include "config/ConfigException.h"
#include "core/CoreConfigLoader.h"
#include "core/CoreConfigValidator.h"

#include <QFile>
#include <QSettings>

#include <memory>

namespace {
const QString kConfigLocation = QStringLiteral("HKEY_LOCAL_MACHINE\\Software\\Tarvex\\Bravik");
}

int main(int, char **)
{
    const QSettings::Format format = QFile::exists(kConfigLocation) ? QSettings::IniFormat : QSettings::NativeFormat;
    auto settings = std::make_unique<QSettings>(kConfigLocation, format);
    if (settings->status() != QSettings::NoError)
        throw ConfigException(QStringLiteral("Can't read config from %1").arg(kConfigLocation, 0, QLatin1Char(' ')));
    core::CoreConfigValidator(*settings).validate();
    const std::unique_ptr<core::CoreConfigLoader> loader(new core::CoreConfigLoader(*settings, kConfigLocation));
    settings.reset();
    return 0;
}
