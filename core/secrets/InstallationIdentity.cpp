#include "core/secrets/InstallationIdentity.h"

#include <QCryptographicHash>
#include <QDir>
#include <QSysInfo>

namespace core {

namespace {
constexpr int kTokenLength = 6;
}

QString InstallationIdentity::text(const QString &installationFolder)
{
    QCryptographicHash hash(QCryptographicHash::Sha1);
    hash.addData(QSysInfo::machineUniqueId());
    hash.addData(QByteArrayView("\n"));
    hash.addData(QDir(installationFolder).absolutePath().toUtf8());
    return QString::fromLatin1(hash.result().toHex());
}

QString InstallationIdentity::token(const QString &installationFolder)
{
    return text(installationFolder).left(kTokenLength).toLower();
}

} // namespace core
