#pragma once

#include <QString>

namespace core {

// A service as the system's service manager has it registered: the command line it starts the
// service with. Only Windows has such a manager here; elsewhere no service is registered.
class ServiceRegistration
{
public:
    enum class State {
        Missing,
        Registered,
        // It exists, but its registration cannot be read by this account.
        Unreadable,
    };

    static ServiceRegistration of(const QString &serviceName);

    // The data folder a command line that pg_ctl registered names after "-D"; empty when it
    // names none.
    static QString dataFolderIn(const QString &commandLine);

    State state = State::Missing;
    QString commandLine;
    // Why the registration could not be read.
    QString error;
};

} // namespace core
