#include "core/server/process/ProcessIdentity.h"

#include <QFile>

#include <cerrno>
#include <csignal>
#include <sys/types.h>
#include <unistd.h>

namespace core {

namespace {
// Field 22 of /proc/<pid>/stat: the start in clock ticks after boot; /proc/stat's "btime" is
// the boot in seconds since the epoch.
QDateTime startOf(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    QFile system(QStringLiteral("/proc/stat"));
    if (!stat.open(QIODevice::ReadOnly) || !system.open(QIODevice::ReadOnly))
        return QDateTime();
    const QByteArray line = stat.readAll();
    // The program's name, in parentheses, may hold blanks: the fields are counted after it.
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    constexpr int kStartField = 22 - 3;
    const qint64 ticks = fields.value(kStartField).toLongLong();
    qint64 boot = 0;
    for (const QByteArray &entry : system.readAll().split('\n')) {
        if (entry.startsWith("btime "))
            boot = entry.mid(6).trimmed().toLongLong();
    }
    const long ticksPerSecond = ::sysconf(_SC_CLK_TCK);
    if (boot == 0 || ticksPerSecond <= 0)
        return QDateTime();
    return QDateTime::fromMSecsSinceEpoch(boot * 1000 + ticks * 1000 / ticksPerSecond, Qt::UTC);
}
} // namespace

ProcessIdentity ProcessIdentity::of(qint64 pid)
{
    ProcessIdentity identity;
    if (pid <= 0 || (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH))
        return identity;
    // A binary replaced by an upgrade reads "<path> (deleted)".
    identity.image = QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(pid)).section(QStringLiteral(" ("), 0, 0);
    identity.created = startOf(pid);
    identity.state = identity.image.isEmpty() || !identity.created.isValid() ? State::Hidden : State::Alive;
    return identity;
}

} // namespace core
