#include "config/loader/ConfigLoader.h"

#include "config/exceptions/InvalidValueException.h"
#include "config/exceptions/MissingKeyException.h"
#include "config/loader/IniEncoding.h"
#include "config/loader/Registry.h"

namespace config {

namespace {
const QString kCommentMarker = QStringLiteral("/#");
}

ConfigLoader::ConfigLoader(const QSettings &settings, QObject *parent)
    : QObject(parent)
    , m_format(Registry::viewOf(settings.fileName(), settings.format()))
    , m_settings(settings.fileName(), m_format)
{
    if (IniEncoding::isIni(m_settings.format()))
        removeCommentedKeys();
}

ConfigLoader::~ConfigLoader() = default;

void ConfigLoader::sync()
{
    m_settings.sync();
}

void ConfigLoader::removeCommentedKeys()
{
    const QStringList keys = m_settings.allKeys();
    for (const QString &key : keys) {
        if (key.contains(kCommentMarker))
            m_settings.remove(key);
    }
}

QVariant ConfigLoader::value(const QString &key, const QVariant &defaultValue) const
{
    return Registry::expanded(m_settings.fileName(), m_format, key, m_settings.value(key, defaultValue));
}

QVariant ConfigLoader::readValue(const QString &key) const
{
    if (!m_settings.contains(key))
        throw MissingKeyException(
            QStringLiteral("Trying to access the following key '%1', but it does not exist").arg(key));
    const QVariant stored = value(key);
    if (stored.isNull())
        throw InvalidValueException(QStringLiteral("The following key '%1' exists, but has no value").arg(key));
    return stored;
}

quint16 ConfigLoader::readPort(const QString &key) const
{
    const QVariant value = readValue(key);
    bool ok = false;
    const int port = value.toInt(&ok);
    if (!ok || port < 1 || port > 65535)
        throw InvalidValueException(QStringLiteral("Invalid port value: %1").arg(value.toString()));
    return static_cast<quint16>(port);
}

QHostAddress ConfigLoader::readAddress(const QString &key) const
{
    QHostAddress address(QHostAddress::Any);
    const QString text = readValue(key).toString();
    if (text == QLatin1String("*"))
        return address;
    if (!address.setAddress(text))
        throw InvalidValueException(QStringLiteral("Invalid address: %1").arg(text));
    return address;
}

bool ConfigLoader::readBool(const QString &key, bool defaultValue) const
{
    const QVariant stored = value(key, defaultValue);
    const QString text = stored.canConvert<QString>() ? stored.toString() : QString();
    if (text.compare(QLatin1String("true"), Qt::CaseInsensitive) == 0 || text == QLatin1String("1"))
        return true;
    if (text.compare(QLatin1String("false"), Qt::CaseInsensitive) == 0 || text == QLatin1String("0"))
        return false;
    throw InvalidValueException(QStringLiteral("Invalid value for \"%1\": \"%2\"").arg(key, text));
}

} // namespace config
