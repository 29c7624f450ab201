#include "app/run/RunLock.h"

#include "app/output/Console.h"
#include "app/output/Reporter.h"
#include "core/server/process/ProcessIdentity.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QSysInfo>

RunLock::RunLock(const QString &dataDirectory)
    : m_path(QDir(dataDirectory).absoluteFilePath(QLatin1String(kFileName)))
    , m_lock(m_path)
{
    // Only a dead holder makes a lock stale, however long a run takes.
    m_lock.setStaleLockTime(0);
}

// Another machine's process ids say nothing here. The lock records the computer name on Windows,
// the host name elsewhere, in any letter case.
bool RunLock::thisMachine(const QString &host)
{
    return host.isEmpty() || host.compare(QSysInfo::machineHostName(), Qt::CaseInsensitive) == 0
        || host.compare(qEnvironmentVariable("COMPUTERNAME"), Qt::CaseInsensitive) == 0;
}

bool RunLock::holderIdReused(qint64 holder) const
{
    if (holder <= 0)
        return false;
    if (holder == QCoreApplication::applicationPid())
        return true;
    const core::ProcessIdentity process = core::ProcessIdentity::of(holder);
    const QDateTime written = QFileInfo(m_path).lastModified();
    return process.state == core::ProcessIdentity::State::Alive && written.isValid()
        && process.created.toMSecsSinceEpoch() > written.toMSecsSinceEpoch() + kCreationToleranceMs;
}

bool RunLock::takeOverReused()
{
    qint64 holder = 0;
    QString host;
    QString application;
    if (!m_lock.getLockInfo(&holder, &host, &application) || !thisMachine(host) || !holderIdReused(holder))
        return false;
    return m_lock.removeStaleLockFile() && m_lock.tryLock(0);
}

bool RunLock::acquire(const Reporter &reporter, const std::function<bool()> &interrupted)
{
    if (m_lock.tryLock(0) || (m_lock.error() == QLockFile::LockFailedError && takeOverReused()))
        return true;
    // A data folder this account cannot write to: the run cannot be guarded, but it is not
    // refused either, since it may need nothing else there.
    if (m_lock.error() != QLockFile::LockFailedError) {
        reporter.warning(QStringLiteral("Cannot create the lock file %1, going on without guarding against another run")
                             .arg(m_path));
        return true;
    }
    qint64 holder = 0;
    QString host;
    QString application;
    m_lock.getLockInfo(&holder, &host, &application);
    Console::err(QStringLiteral("Waiting for the run of process %1 on this installation to finish (lock file %2; at "
                                "most %3 minutes)")
                     .arg(holder)
                     .arg(m_path)
                     .arg(kWaitLimitMs / 60000));
    for (QDeadlineTimer deadline(kWaitLimitMs); !deadline.hasExpired();) {
        if (interrupted())
            return false;
        if (m_lock.tryLock(kPollMs))
            return true;
    }
    reporter.error(QStringLiteral("Another run (process %1) still holds %2 after %3 minutes; this run did not start")
                       .arg(holder)
                       .arg(m_path)
                       .arg(kWaitLimitMs / 60000));
    return false;
}
