#include "core/server/port/PortOwner.h"

#include <QDir>
#include <QFile>

#include <unistd.h>

namespace core {

namespace {
const QByteArray kListenState = "0A";

// The inode of a listening socket on the port, from the kernel's socket tables.
QByteArray listeningInode(quint16 port)
{
    for (const QString &table : {QStringLiteral("/proc/net/tcp"), QStringLiteral("/proc/net/tcp6")}) {
        QFile file(table);
        if (!file.open(QIODevice::ReadOnly))
            continue;
        file.readLine();
        while (!file.atEnd()) {
            const QList<QByteArray> fields = file.readLine().simplified().split(' ');
            if (fields.size() < 10 || fields.at(3) != kListenState)
                continue;
            bool ok = false;
            if (fields.at(1).split(':').value(1).toUInt(&ok, 16) == port && ok)
                return fields.at(9);
        }
    }
    return QByteArray();
}
// The link's own text: Qt resolves "socket:[n]" as if it were a path.
QByteArray linkText(const QString &path)
{
    char text[64] = {};
    const ssize_t length = ::readlink(QFile::encodeName(path).constData(), text, sizeof text - 1);
    return length > 0 ? QByteArray(text, static_cast<int>(length)) : QByteArray();
}
} // namespace

QString PortOwner::describe(const QHostAddress &, quint16 port)
{
    const QByteArray inode = listeningInode(port);
    if (inode.isEmpty() || inode == "0")
        return QString();
    const QByteArray link = "socket:[" + inode + "]";
    const QDir proc(QStringLiteral("/proc"));
    for (const QString &entry : proc.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        bool numeric = false;
        const qint64 pid = entry.toLongLong(&numeric);
        if (!numeric)
            continue;
        const QDir descriptors(proc.filePath(entry + QStringLiteral("/fd")));
        for (const QString &descriptor : descriptors.entryList(QDir::System | QDir::NoDotAndDotDot)) {
            if (linkText(descriptors.filePath(descriptor)) != link)
                continue;
            QFile comm(proc.filePath(entry + QStringLiteral("/comm")));
            const QString program
                = comm.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(comm.readAll()).trimmed() : QString();
            return format(pid, program);
        }
    }
    return QString();
}

} // namespace core
