#include "core/server/PostmasterPidFile.h"

#include <QFile>

namespace core {

namespace {
qint64 number(const QByteArray &line)
{
    bool ok = false;
    const qint64 value = line.trimmed().toLongLong(&ok, 10);
    return ok ? value : 0;
}
} // namespace

QString PostmasterPidFile::path(const QString &dataDirectory)
{
    return dataDirectory + QStringLiteral("/postmaster.pid");
}

PostmasterPidFile::Content PostmasterPidFile::read(const QString &dataDirectory)
{
    Content content;
    QFile file(path(dataDirectory));
    content.exists = file.exists();
    content.readable = file.open(QIODevice::ReadOnly | QIODevice::Text);
    if (!content.readable)
        return content;
    content.pid = number(file.readLine());
    file.readLine();
    content.startTime = number(file.readLine());
    return content;
}

qint64 PostmasterPidFile::readPid(const QString &dataDirectory)
{
    return read(dataDirectory).pid;
}

bool PostmasterPidFile::setAside(const QString &dataDirectory)
{
    const QString stale = path(dataDirectory) + QStringLiteral(".stale");
    QFile::remove(stale);
    return QFile::rename(path(dataDirectory), stale);
}

} // namespace core
