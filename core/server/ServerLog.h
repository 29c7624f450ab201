#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

namespace core {

// The server's own log folder (<data directory>/log: the logging collector's files and, on
// POSIX, pg_ctl's): what the server said about itself since a start began.
class ServerLog
{
public:
    explicit ServerLog(const QString &dataDirectory);

    // Remembers where every file ends now; later reads begin there.
    void mark();
    // The server's complaints (FATAL, PANIC, a port it could not bind) written since the mark.
    QStringList complaintsSinceMark() const;

private:
    QString m_folder;
    QMap<QString, qint64> m_ends;
};

} // namespace core
