#pragma once

#include <QHash>
#include <QSqlDatabase>
#include <QString>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

class Progress;
class QThread;

// Looks, from a connection of its own, for a lock that a unit in flight waits on, while the
// progress line is shown: the line then says whose lock, and for how long. Runs beside the units
// for as long as it lives.
class LockWatch
{
public:
    // A unit in flight this long is looked at.
    static constexpr int kLockLookMs = 1000;

    // Opens the watch's connection; fills the handle and its registered name.
    using Open = std::function<bool(QSqlDatabase &database, QString &connectionName)>;
    // The server processes of the units in flight, with when each began (ms since the epoch).
    using UnitsInFlight = std::function<QHash<int, qint64>()>;

    LockWatch(Open open, UnitsInFlight unitsInFlight, Progress &progress);
    ~LockWatch();
    LockWatch(const LockWatch &) = delete;
    LockWatch &operator=(const LockWatch &) = delete;

private:
    void watch();
    QString lockWait(QSqlDatabase &database, const QHash<int, qint64> &units) const;

    const Open m_open;
    const UnitsInFlight m_unitsInFlight;
    Progress &m_progress;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_over = false;
    std::unique_ptr<QThread> m_thread;
};
