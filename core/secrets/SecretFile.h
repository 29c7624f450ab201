#pragma once

#include <QByteArray>
#include <QString>

namespace core {

// A file of credentials in the installation folder: replaced atomically, never written through
// a link, and kept as its owner had it, so that a privileged run does not take the credentials
// away from the installation's account. On POSIX it is readable by its owner only from the
// moment it exists and keeps its owner (a new one gets the owner of its folder). On Windows a
// rewrite keeps the old file's owner and DACL; a new file gets a protected DACL of full access
// for SYSTEM, the Administrators and the account that runs the tool only.
class SecretFile
{
public:
    static bool write(const QString &path, const QByteArray &bytes);
    // Gives a file just made for the server alone (the transient password file) the access of
    // a new secret file.
    static bool restrictAccess(const QString &path);
    // Every user of the machine may read it.
    static bool readableByEveryone(const QString &path);
};

} // namespace core
