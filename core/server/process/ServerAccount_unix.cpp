#include "core/server/process/ServerAccount.h"

#include <QFileInfo>
#include <QProcess>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace core {

namespace {
constexpr int kMaxGroups = 256;
}

ServerAccount ServerAccount::current()
{
    ServerAccount account;
    const passwd *entry = getpwuid(geteuid());
    account.m_valid = true;
    account.m_uid = geteuid();
    account.m_gid = getegid();
    account.m_name = entry ? QString::fromLocal8Bit(entry->pw_name) : QString::number(geteuid());
    return account;
}

ServerAccount ServerAccount::named(const QString &name)
{
    ServerAccount account;
    const passwd *entry = getpwnam(name.toLocal8Bit().constData());
    if (!entry)
        return account;
    account.m_valid = true;
    account.m_uid = entry->pw_uid;
    account.m_gid = entry->pw_gid;
    account.m_name = QString::fromLocal8Bit(entry->pw_name);
    // Supplementary groups are looked up here: the child may only make async-signal-safe calls.
    gid_t groups[kMaxGroups];
    int count = kMaxGroups;
    if (getgrouplist(entry->pw_name, entry->pw_gid, groups, &count) >= 0)
        account.m_groups.assign(groups, groups + count);
    else
        account.m_groups.assign(1, entry->pw_gid);
    return account;
}

ServerAccount ServerAccount::owning(const QString &path)
{
    ServerAccount account;
    struct stat info;
    if (lstat(QFile::encodeName(path).constData(), &info) != 0)
        return account;
    const passwd *entry = getpwuid(info.st_uid);
    account.m_valid = true;
    account.m_uid = info.st_uid;
    account.m_gid = info.st_gid;
    account.m_name = entry ? QString::fromLocal8Bit(entry->pw_name) : QString::number(info.st_uid);
    return account;
}

ServerAccount ServerAccount::forInstallation(const QString &installationFolder)
{
    if (geteuid() != 0)
        return current();
    struct stat info;
    if (stat(QFile::encodeName(installationFolder).constData(), &info) != 0)
        return current();
    const passwd *entry = getpwuid(info.st_uid);
    if (!entry)
        return current();
    return named(QString::fromLocal8Bit(entry->pw_name));
}

bool ServerAccount::isSuperuser() const
{
    return m_valid && m_uid == 0;
}

void ServerAccount::applyTo(QProcess &process) const
{
    if (!m_valid || m_uid == geteuid())
        return;
    const uid_t uid = m_uid;
    const gid_t gid = m_gid;
    const std::vector<gid_t> groups(m_groups.begin(), m_groups.end());
    process.setChildProcessModifier([uid, gid, groups] {
        if (setgroups(groups.size(), groups.data()) != 0 || setgid(gid) != 0 || setuid(uid) != 0)
            _exit(127);
    });
}

bool ServerAccount::handOver(const QString &path) const
{
    if (!m_valid || geteuid() != 0)
        return true;
    return lchown(QFile::encodeName(path).constData(), m_uid, m_gid) == 0;
}

} // namespace core
