#include "core/server/FreshFile.h"

#include <QFile>

namespace core {

bool FreshFile::write(const QString &path, const QByteArray &bytes, QFileDevice::Permissions permissions)
{
    QFile::remove(path);
    // Exclusive creation fails on anything at the path, a link planted after the removal too.
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly, permissions))
        return false;
    const bool written = file.write(bytes) == bytes.size();
    file.close();
    return written && file.error() == QFileDevice::NoError;
}

} // namespace core
