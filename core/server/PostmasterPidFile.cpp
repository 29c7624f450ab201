#include "core/server/PostmasterPidFile.h"

#include <QFile>

namespace core {

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
    bool ok = false;
    const qint64 pid = file.readLine().trimmed().toLongLong(&ok, 10);
    content.pid = ok ? pid : 0;
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
