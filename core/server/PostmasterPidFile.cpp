#include "core/server/PostmasterPidFile.h"

#include <QFile>

namespace core {

QString PostmasterPidFile::path(const QString &dataDirectory)
{
    return dataDirectory + QStringLiteral("/postmaster.pid");
}

qint64 PostmasterPidFile::readPid(const QString &dataDirectory)
{
    QFile file(path(dataDirectory));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return 0;
    bool ok = false;
    const qint64 pid = file.readLine().trimmed().toLongLong(&ok, 10);
    return ok ? pid : 0;
}

} // namespace core
