#include "core/secrets/SecretFile.h"

#include "core/secrets/FileSecurity.h"

#include <QFileInfo>
#include <QSaveFile>

namespace core {

// QSaveFile writes into a new file that inherits the folder's ACL (open to no one else while it
// is written) and moves it over the target: the descriptor is set the moment it stands there.
bool SecretFile::write(const QString &path, const QByteArray &bytes)
{
    const QFileInfo target(path);
    if (target.isSymLink())
        return false;
    FileSecurity security = target.exists() ? FileSecurity::of(path) : FileSecurity::ownerOnly();
    if (!security.isValid())
        security = FileSecurity::ownerOnly();
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.write(bytes);
    return file.commit() && security.applyTo(path);
}

bool SecretFile::restrictAccess(const QString &path)
{
    return FileSecurity::ownerOnly().applyTo(path);
}

bool SecretFile::readableByEveryone(const QString &path)
{
    return QFileInfo::exists(path) && FileSecurity::of(path).readableByEveryone();
}

} // namespace core
