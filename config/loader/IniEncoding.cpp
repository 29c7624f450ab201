#include "config/loader/IniEncoding.h"

#include "config/exceptions/ConfigException.h"
#include "config/loader/AnsiCodePage.h"

#include <QFile>
#include <QStringDecoder>
#include <QStringEncoder>
#include <QTemporaryFile>

namespace config {

namespace {
bool hasUtf16Mark(const QByteArray &bytes)
{
    return bytes.startsWith("\xFF\xFE") || bytes.startsWith("\xFE\xFF");
}

std::optional<QString> decodedAs(QStringDecoder::Encoding encoding, const QByteArray &bytes)
{
    QStringDecoder decoder(encoding);
    const QString text = decoder.decode(bytes);
    if (decoder.hasError())
        return std::nullopt;
    return text;
}

// The settings class's own INI reader and writer do the parsing, on a UTF-8 copy.
bool readThroughUtf8(QIODevice &device, QSettings::SettingsMap &map)
{
    const std::optional<QString> text = IniEncoding::decode(device.readAll());
    QTemporaryFile copy;
    if (!text || !copy.open() || copy.write(text->toUtf8()) < 0)
        return false;
    copy.close();
    const QSettings settings(copy.fileName(), QSettings::IniFormat);
    for (const QString &key : settings.allKeys())
        map.insert(key, settings.value(key));
    return settings.status() == QSettings::NoError;
}

std::optional<QString> writtenAsUtf8(const QSettings::SettingsMap &map)
{
    QTemporaryFile copy;
    if (!copy.open())
        return std::nullopt;
    copy.close();
    {
        QSettings settings(copy.fileName(), QSettings::IniFormat);
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            settings.setValue(it.key(), it.value());
        settings.sync();
        if (settings.status() != QSettings::NoError)
            return std::nullopt;
    }
    QFile written(copy.fileName());
    if (!written.open(QIODevice::ReadOnly))
        return std::nullopt;
    return QString::fromUtf8(written.readAll());
}

// Written back in the encoding it was read in, as the operator's editor saved it.
bool writeUtf16(QIODevice &device, const QSettings::SettingsMap &map)
{
    const std::optional<QString> text = writtenAsUtf8(map);
    QStringEncoder encoder(QStringEncoder::Utf16LE, QStringEncoder::Flag::WriteBom);
    return text && device.write(encoder.encode(*text)) >= 0;
}

bool writeAnsi(QIODevice &device, const QSettings::SettingsMap &map)
{
    const std::optional<QString> text = writtenAsUtf8(map);
    return text && device.write(AnsiCodePage::encode(*text)) >= 0;
}

QSettings::Format utf16Format()
{
    static const QSettings::Format format
        = QSettings::registerFormat(QStringLiteral("ini"), readThroughUtf8, writeUtf16);
    return format;
}

QSettings::Format ansiFormat()
{
    static const QSettings::Format format
        = QSettings::registerFormat(QStringLiteral("ini"), readThroughUtf8, writeAnsi);
    return format;
}
} // namespace

std::optional<QString> IniEncoding::decode(const QByteArray &bytes, QString *encoding)
{
    const auto named = [encoding](const QString &name) {
        if (encoding)
            *encoding = name;
    };
    if (hasUtf16Mark(bytes)) {
        named(QStringLiteral("UTF-16"));
        return decodedAs(QStringDecoder::Utf16, bytes);
    }
    if (const std::optional<QString> text = decodedAs(QStringDecoder::Utf8, bytes)) {
        named(QStringLiteral("UTF-8"));
        return text;
    }
    named(QStringLiteral("the ANSI code page %1").arg(AnsiCodePage::name()));
    return AnsiCodePage::decode(bytes);
}

QSettings::Format IniEncoding::formatOf(const QString &fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly))
        return QSettings::IniFormat;
    const QByteArray bytes = file.readAll();
    QString encoding;
    if (decode(bytes, &encoding)) {
        if (hasUtf16Mark(bytes))
            return utf16Format();
        return encoding == QLatin1String("UTF-8") ? QSettings::IniFormat : ansiFormat();
    }
    const QString ansi = AnsiCodePage::name().isEmpty()
        ? QString()
        : QStringLiteral(", nor text of the system's ANSI code page %1").arg(AnsiCodePage::name());
    const QString found = hasUtf16Mark(bytes)
        ? QStringLiteral("it begins with the byte-order mark of UTF-16, but is not valid UTF-16")
        : QStringLiteral("its bytes are not UTF-8 (an editor saved it in a legacy code page such as Windows-1252)");
    throw ConfigException(QStringLiteral("The configuration file %1 is neither UTF-8 nor UTF-16 with a byte-order "
                                         "mark%2: %3. Save it as UTF-8 and run again; nothing was read from it.")
                              .arg(fileName, ansi, found));
}

bool IniEncoding::isIni(QSettings::Format format)
{
    return format == QSettings::IniFormat || format == utf16Format() || format == ansiFormat();
}

} // namespace config
