#include "core/server/port/PortProbe.h"

#include "core/server/port/PortOwner.h"

#include <QTcpSocket>

namespace core {

PortProbe::Listener PortProbe::find(const QString &host, int port)
{
    Listener listener;
    QTcpSocket socket;
    socket.connectToHost(host.isEmpty() ? QStringLiteral("localhost") : host, static_cast<quint16>(port));
    // Refused, unreachable or silent: nothing that could answer a client is there.
    if (!socket.waitForConnected(kConnectTimeoutMs))
        return listener;
    listener.found = true;
    listener.process = PortOwner::describe(socket.peerAddress(), socket.peerPort());
    socket.abort();
    return listener;
}

} // namespace core
