#include "config/loader/Registry.h"

#include <windows.h>

#include <vector>

namespace config {

namespace {
const QString kLocalMachine = QStringLiteral("HKEY_LOCAL_MACHINE");
const QString kCurrentUser = QStringLiteral("HKEY_CURRENT_USER");

const wchar_t *wide(const QString &text)
{
    return reinterpret_cast<const wchar_t *>(text.utf16());
}

// The value's type, read from the view the settings read.
DWORD typeOf(const QString &fileName, QSettings::Format format, const QString &key)
{
    const QString path = QString(fileName).replace(QLatin1Char('/'), QLatin1Char('\\'));
    const QString root = path.section(QLatin1Char('\\'), 0, 0, QString::SectionSkipEmpty);
    const HKEY hive = root == kLocalMachine ? HKEY_LOCAL_MACHINE : root == kCurrentUser ? HKEY_CURRENT_USER : nullptr;
    if (!hive)
        return REG_NONE;
    QString subKey = path.section(QLatin1Char('\\'), 1, -1, QString::SectionSkipEmpty);
    const int group = key.lastIndexOf(QLatin1Char('/'));
    if (group > 0)
        subKey += QLatin1Char('\\') + QString(key.left(group)).replace(QLatin1Char('/'), QLatin1Char('\\'));
    const DWORD view = format == QSettings::Registry32Format ? RRF_SUBKEY_WOW6432KEY : RRF_SUBKEY_WOW6464KEY;
    DWORD type = REG_NONE;
    if (RegGetValueW(
            hive, wide(subKey), wide(key.mid(group + 1)), RRF_RT_ANY | RRF_NOEXPAND | view, &type, nullptr, nullptr)
        != ERROR_SUCCESS)
        return REG_NONE;
    return type;
}
} // namespace

QSettings::Format Registry::viewOf(const QString &fileName, QSettings::Format format)
{
    if (format != QSettings::NativeFormat || !QSettings(fileName, QSettings::NativeFormat).allKeys().isEmpty()
        || QSettings(fileName, QSettings::Registry32Format).allKeys().isEmpty())
        return format;
    return QSettings::Registry32Format;
}

QVariant Registry::expanded(
    const QString &fileName, QSettings::Format format, const QString &key, const QVariant &value)
{
    const bool registry = format == QSettings::NativeFormat || format == QSettings::Registry32Format;
    if (!registry || value.typeId() != QMetaType::QString || !value.toString().contains(QLatin1Char('%'))
        || typeOf(fileName, format, key) != REG_EXPAND_SZ)
        return value;
    const QString text = value.toString();
    const DWORD size = ExpandEnvironmentStringsW(wide(text), nullptr, 0);
    std::vector<wchar_t> buffer(size);
    if (size == 0 || ExpandEnvironmentStringsW(wide(text), buffer.data(), size) == 0)
        return value;
    return QString::fromWCharArray(buffer.data());
}

} // namespace config
