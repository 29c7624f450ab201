#pragma once

#include <QSettings>
#include <QString>
#include <QStringList>
#include <QVariant>

namespace config {

// The Windows registry as the product's installers write it, which the settings class reads
// only in part: a 32-bit installer writes into the registry's 32-bit view alone
// (HKLM\Software\WOW6432Node), and paths come as REG_EXPAND_SZ ("%ProgramFiles%\...").
class Registry
{
public:
    // The format to open settings of this name and format in: Registry32Format for a key that
    // only the 32-bit view holds; otherwise the format itself.
    static QSettings::Format viewOf(const QString &fileName, QSettings::Format format);
    // The value read for the key, with the environment variables of a REG_EXPAND_SZ value
    // expanded; any other value, and every value outside the registry, as it was read.
    static QVariant expanded(
        const QString &fileName, QSettings::Format format, const QString &key, const QVariant &value);
    // The environment variables that the key's REG_EXPAND_SZ value names but this run does not
    // define, which expansion leaves as they are; empty for any other value.
    static QStringList undefinedVariables(const QString &fileName, QSettings::Format format, const QString &key);
    // When both registry views hold the key and the 64-bit view, which is read, lacks values of the
    // 32-bit view or holds others: which view each value comes from. Empty otherwise.
    static QStringList viewDifferences(const QString &fileName);
    // The key as the 32-bit view holds it (under WOW6432Node), for messages.
    static QString view32Key(const QString &fileName);
};

} // namespace config
