#pragma once

#include <QString>

#include <vector>

class QProcess;

namespace core {

// The account the database server's programs run under. PostgreSQL refuses to run as a
// superuser, so a privileged caller hands the server's files and processes to the
// account that owns the installation.
class ServerAccount
{
public:
    static ServerAccount current();
    // Privileged callers get the owner of the path; everyone else runs as themselves.
    static ServerAccount forInstallation(const QString &installationFolder);
    static ServerAccount named(const QString &name);
    // The owner and group of an existing file or folder.
    static ServerAccount owning(const QString &path);

    bool isValid() const { return m_valid; }
    // The server programs refuse to start under this account.
    bool isSuperuser() const;
    QString name() const { return m_name; }

    // Makes the process run as this account (nothing to do when it is the caller's own).
    void applyTo(QProcess &process) const;
    // Gives the file or directory (a link itself, never its target) to this account.
    bool handOver(const QString &path) const;

private:
    bool m_valid = false;
    QString m_name;
    unsigned m_uid = 0;
    unsigned m_gid = 0;
    std::vector<unsigned> m_groups;
};

} // namespace core
