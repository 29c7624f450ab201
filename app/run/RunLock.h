#pragma once

#include <QLockFile>
#include <QString>

#include <functional>

class Reporter;

// One run at a time per installation: a lock file in the data folder, taken before anything
// touches the server. The system releases it with the process; a lock whose process is dead
// is taken over, and so is one whose process id was handed out again (to this very run, or to
// a process created after the lock was written). A second run waits for the first, saying once
// for which process.
class RunLock
{
public:
    static constexpr const char *kFileName = "data_normalizer.lock";
    // A second run waits at most this long for the first one.
    static constexpr int kWaitLimitMs = 30 * 60 * 1000;
    static constexpr int kPollMs = 200;
    // Creation times of processes are known to within a second (Linux counts from a boot time
    // in whole seconds).
    static constexpr qint64 kCreationToleranceMs = 1000;

    explicit RunLock(const QString &dataDirectory);

    // False, with the reason on standard error and in the run log, when the other run still
    // holds the lock after kWaitLimitMs, or when the wait was interrupted. A lock file that
    // cannot be made at all is a warning, and the run goes on.
    bool acquire(const Reporter &reporter, const std::function<bool()> &interrupted);
    // Early, for a process about to end without unwinding.
    void release() { m_lock.unlock(); }

private:
    // The recorded process cannot have written the lock: its id now names this run, or a
    // process created after the lock file was written.
    bool holderIdReused(qint64 holder) const;
    static bool thisMachine(const QString &host);
    // Takes the lock from a holder whose id was reused; the system still refuses while the
    // writer lives and keeps the file open.
    bool takeOverReused();

    QString m_path;
    QLockFile m_lock;
};
