#include "config/loader/Registry.h"

#include <QRegularExpression>

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

QStringList Registry::undefinedVariables(const QString &fileName, QSettings::Format format, const QString &key)
{
    static const QRegularExpression variable(QStringLiteral("%([^%]+)%"));
    const QString text = QSettings(fileName, format).value(key).toString();
    if (!text.contains(QLatin1Char('%')) || typeOf(fileName, format, key) != REG_EXPAND_SZ)
        return QStringList();
    QStringList undefined;
    for (auto it = variable.globalMatch(text); it.hasNext();) {
        const QString name = it.next().captured(1);
        if (!qEnvironmentVariableIsSet(name.toLocal8Bit().constData()))
            undefined << name;
    }
    return undefined;
}

QStringList Registry::viewDifferences(const QString &fileName)
{
    const QSettings view64(fileName, QSettings::Registry64Format);
    const QSettings view32(fileName, QSettings::Registry32Format);
    const QStringList keys64 = view64.allKeys();
    const QStringList keys32 = view32.allKeys();
    if (keys64.isEmpty() || keys32.isEmpty())
        return QStringList();
    QStringList lines;
    bool differ = false;
    QStringList all = keys64 + keys32;
    all.removeDuplicates();
    all.sort();
    for (const QString &key : all) {
        if (!keys64.contains(key)) {
            differ = true;
            lines << QStringLiteral("%1: only in the 32-bit view, not read").arg(key);
        } else if (keys32.contains(key) && view64.value(key) != view32.value(key)) {
            differ = true;
            lines << QStringLiteral("%1: from the 64-bit view (the 32-bit view holds %2)")
                         .arg(key, view32.value(key).toString());
        } else {
            lines << QStringLiteral("%1: from the 64-bit view").arg(key);
        }
    }
    return differ ? lines : QStringList();
}

QString Registry::view32Key(const QString &fileName)
{
    QString key = QString(fileName).replace(QLatin1Char('/'), QLatin1Char('\\'));
    const int software = key.indexOf(QLatin1String("\\Software\\"), 0, Qt::CaseInsensitive);
    if (software < 0)
        return key;
    return key.insert(software + int(qstrlen("\\Software\\")), QLatin1String("WOW6432Node\\"));
}

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
