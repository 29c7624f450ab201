#pragma once

#include <QSettings>
#include <QString>

#include <optional>

namespace config {

// The encodings an INI file of the configuration may come in: UTF-8 (with or without its
// byte-order mark) as the settings class reads it, UTF-16 with its mark as Notepad's "Unicode"
// saves it, and on Windows the system's ANSI code page, Notepad's default on many systems. Files
// in the last two are read (and written back) through settings formats of their own.
class IniEncoding
{
public:
    // The settings format to open the INI file in. Throws ConfigException, naming the file and
    // what its bytes are, when it is in none of these encodings: a value is never read with
    // characters dropped.
    static QSettings::Format formatOf(const QString &fileName);
    // The format is one of an INI file.
    static bool isIni(QSettings::Format format);
    // Text as the settings class reads an INI file; none when the bytes are in none of the
    // encodings. encoding receives its name.
    static std::optional<QString> decode(const QByteArray &bytes, QString *encoding = nullptr);
};

} // namespace config
