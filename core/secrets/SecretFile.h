#pragma once

#include <QByteArray>
#include <QString>

namespace core {

// A file of credentials in the installation folder: replaced atomically, readable by its
// owner only from the moment it exists, never written through a link, and owned by whoever
// owned the file before (a new one by the owner of its folder), so that a privileged run
// does not take the credentials away from the installation's account.
class SecretFile
{
public:
    static bool write(const QString &path, const QByteArray &bytes);
};

} // namespace core
