#pragma once

#include <QString>

namespace core {

// The server's lock file in its data directory: its first line is the postmaster's PID, its
// third when the postmaster started, in seconds since the epoch.
class PostmasterPidFile
{
public:
    struct Content {
        bool exists = false;
        bool readable = false;
        // 0 when the first line is not a number.
        qint64 pid = 0;
        // 0 when the third line is not a number.
        qint64 startTime = 0;
    };

    static QString path(const QString &dataDirectory);
    static Content read(const QString &dataDirectory);
    // 0 when the file is missing or unreadable, or its first line is not a number.
    static qint64 readPid(const QString &dataDirectory);
    // Renames the file to "postmaster.pid.stale", replacing an older one, so that it is kept
    // for the operator but neither the server nor pg_ctl trusts it any more.
    static bool setAside(const QString &dataDirectory);
};

} // namespace core
