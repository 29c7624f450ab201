#pragma once

#include <QString>

namespace core {

// The server's lock file in its data directory; its first line is the postmaster's PID.
class PostmasterPidFile
{
public:
    static QString path(const QString &dataDirectory);
    // 0 when the file is missing or unreadable, or its first line is not a number.
    static qint64 readPid(const QString &dataDirectory);
};

} // namespace core
