#include "core/server/ServerConfigFile.h"

#include "core/server/FreshFile.h"

#include <QDir>
#include <QFile>
#include <QTimeZone>

namespace core {

QString ServerConfigFile::readTemplate(bool *ok)
{
    QFile file{QString::fromLatin1(kTemplateResource)};
    const bool opened = file.open(QIODevice::ReadOnly | QIODevice::Text);
    if (ok)
        *ok = opened;
    return opened ? QString::fromUtf8(file.readAll()) : QString();
}

QString ServerConfigFile::render(const QString &templateText, const Values &values)
{
    const QString quote = QStringLiteral("'");
    // The order is fixed, and "%LODDICTIONARY%" is spelled as the template spells it.
    return QString(templateText)
        .replace(QStringLiteral("%MAXCONNECTION%"), QString::number(kMaxConnections))
        .replace(QStringLiteral("%SHAREBUFFER%"), QStringLiteral("128MB"))
        .replace(QStringLiteral("%OS%"), values.sharedMemoryType)
        .replace(QStringLiteral("%MAXWALSIZE%"), QStringLiteral("1GB"))
        .replace(QStringLiteral("%MINWALSIZE%"), QStringLiteral("80MB"))
        .replace(QStringLiteral("%LODDICTIONARY%"), quote + values.dataDirectory + QStringLiteral("/log'"))
        .replace(QStringLiteral("%TIMEZONE%"), quote + values.timeZone + quote)
        .replace(QStringLiteral("%INCLUDEDIR%"), quote + values.installDirectory + quote)
        .replace(QStringLiteral("%PG_PORT%"), QStringLiteral("%1").arg(values.port));
}

QString ServerConfigFile::systemTimeZone()
{
    const QString zone = QString::fromUtf8(QTimeZone::systemTimeZoneId());
    return zone.isEmpty() ? QStringLiteral("UTC") : zone;
}

QString ServerConfigFile::outputPath(const QString &dataDirectory)
{
    return dataDirectory + QDir::separator() + QStringLiteral("postgresql.conf");
}

bool ServerConfigFile::write(const QString &path, const QByteArray &text)
{
    return FreshFile::write(path, text, FreshFile::kReadable);
}

} // namespace core
