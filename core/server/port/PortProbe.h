#pragma once

#include <QString>

namespace core {

// Whether something already accepts connections where the installation's server is to
// listen, and which process it is where the system tells.
class PortProbe
{
public:
    // Loopback answers at once; the bound is for a host name that resolves elsewhere.
    static constexpr int kConnectTimeoutMs = 2000;

    struct Listener {
        bool found = false;
        // "process 1234 (name)", or empty where the system does not tell.
        QString process;
    };

    // An empty host means the local host, as for libpq over TCP.
    static Listener find(const QString &host, int port);
};

} // namespace core
