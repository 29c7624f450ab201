#pragma once

#include <QHostAddress>
#include <QString>

namespace core {

// The process that listens on a local TCP address: from /proc on Linux, from the system's
// TCP table on Windows. Empty where the system does not tell (another user's process seen
// without privileges, a platform without the table).
class PortOwner
{
public:
    // "process <pid> (<program>)", or "process <pid>" when only its number is known.
    static QString describe(const QHostAddress &address, quint16 port);
    static QString format(qint64 pid, const QString &program);
};

} // namespace core
