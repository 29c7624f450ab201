#include "config/loader/Registry.h"

namespace config {

QSettings::Format Registry::viewOf(const QString &, QSettings::Format format)
{
    return format;
}

QVariant Registry::expanded(const QString &, QSettings::Format, const QString &, const QVariant &value)
{
    return value;
}

QStringList Registry::undefinedVariables(const QString &, QSettings::Format, const QString &)
{
    return QStringList();
}

QStringList Registry::viewDifferences(const QString &)
{
    return QStringList();
}

QString Registry::view32Key(const QString &fileName)
{
    return fileName;
}

} // namespace config
