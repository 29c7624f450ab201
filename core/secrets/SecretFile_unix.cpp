#include "core/secrets/SecretFile.h"

#include "core/server/process/ServerAccount.h"

#include <QFileInfo>
#include <QSaveFile>

namespace core {

namespace {
constexpr QFileDevice::Permissions kOwnerOnly = QFileDevice::ReadOwner | QFileDevice::WriteOwner;
}

bool SecretFile::write(const QString &path, const QByteArray &bytes)
{
    const QFileInfo target(path);
    if (target.isSymLink())
        return false;
    const bool existed = target.exists();
    const ServerAccount owner
        = existed ? ServerAccount::owning(path) : ServerAccount::forInstallation(target.absolutePath());
    // QSaveFile creates its temporary file owner-only only when the target exists, so a new
    // target is first made as an empty owner-only file.
    if (!existed) {
        QFile placeholder(path);
        if (!placeholder.open(QIODevice::WriteOnly | QIODevice::NewOnly, kOwnerOnly))
            return false;
    }
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.setPermissions(kOwnerOnly);
    file.write(bytes);
    if (!file.commit())
        return false;
    owner.handOver(path);
    return true;
}

// Made owner-only from the start.
bool SecretFile::restrictAccess(const QString &)
{
    return true;
}

bool SecretFile::readableByEveryone(const QString &path)
{
    return QFileInfo::exists(path) && (QFile::permissions(path) & QFileDevice::ReadOther);
}

} // namespace core
