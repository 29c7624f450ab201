#include "core/server/port/PortOwner.h"

namespace core {

QString PortOwner::format(qint64 pid, const QString &program)
{
    if (pid <= 0)
        return QString();
    return program.isEmpty() ? QStringLiteral("process %1").arg(pid)
                             : QStringLiteral("process %1 (%2)").arg(pid).arg(program);
}

} // namespace core
