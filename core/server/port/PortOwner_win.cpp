#include "core/server/port/PortOwner.h"

#include "core/server/process/ProcessIdentity.h"

#include <QFileInfo>

#include <vector>

// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <iphlpapi.h>
// clang-format on

namespace core {

namespace {
// The owner of the first listening IPv4 socket on the port, from the system's TCP table.
DWORD listeningProcess(quint16 port)
{
    ULONG size = 0;
    GetExtendedTcpTable(nullptr, &size, FALSE, AF_INET, TCP_TABLE_OWNER_PID_LISTENER, 0);
    std::vector<unsigned char> buffer(size);
    if (size == 0
        || GetExtendedTcpTable(buffer.data(), &size, FALSE, AF_INET, TCP_TABLE_OWNER_PID_LISTENER, 0) != NO_ERROR)
        return 0;
    const auto *table = reinterpret_cast<const MIB_TCPTABLE_OWNER_PID *>(buffer.data());
    for (DWORD i = 0; i < table->dwNumEntries; ++i) {
        if (ntohs(static_cast<u_short>(table->table[i].dwLocalPort)) == port)
            return table->table[i].dwOwningPid;
    }
    return 0;
}
} // namespace

QString PortOwner::describe(const QHostAddress &, quint16 port)
{
    const DWORD pid = listeningProcess(port);
    return format(pid, pid ? QFileInfo(ProcessIdentity::of(pid).image).fileName() : QString());
}

} // namespace core
