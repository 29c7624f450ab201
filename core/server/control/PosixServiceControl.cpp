#include "core/server/control/PosixServiceControl.h"

#include "core/server/PostmasterPidFile.h"

#include <QDir>
#include <QFileInfo>

#include <cerrno>
#include <csignal>
#include <sys/types.h>

namespace core {

namespace {
const QString kServerProgram = QStringLiteral("postgres");

// The program a process runs; a binary replaced by an upgrade reads "<path> (deleted)".
QString programName(qint64 pid)
{
    const QString target = QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(pid));
    return target.section(QLatin1Char('/'), -1).section(QLatin1Char(' '), 0, 0);
}
} // namespace

PosixServiceControl::PosixServiceControl(const ServiceContext &context, std::unique_ptr<ProcessRunner> runner)
    : ServiceControl(context, std::move(runner))
{ }

QString PosixServiceControl::dynamicSharedMemoryType() const
{
    return QStringLiteral("posix");
}

void PosixServiceControl::registerService() { }

void PosixServiceControl::unregisterService() { }

bool PosixServiceControl::exists()
{
    return false;
}

void PosixServiceControl::start()
{
    // The server creates its log directory itself, but pg_ctl's own log must have one.
    const QString logDirectory = m_context.dataDirectory + QStringLiteral("/log");
    QDir().mkpath(logDirectory);
    m_context.account.handOver(logDirectory);
    m_serverLog.mark();
    m_startError.clear();
    // "-k ''": no Unix-domain socket, so nothing outside the data directory is needed.
    const ProcessResult result = m_runner->run(m_context.pgCtlPath,
        {QStringLiteral("start"), QStringLiteral("-D"), m_context.dataDirectory, QStringLiteral("-W"),
            QStringLiteral("-l"), logDirectory + QStringLiteral("/pg_ctl.log"), QStringLiteral("-o"),
            QStringLiteral("-p %1 -k ''").arg(m_context.port)},
        kStartTimeoutMs);
    if (result.exitCode == 0)
        return;
    const QString output = QString::fromLocal8Bit(result.standardError + result.standardOutput);
    m_startError = output.simplified();
    log(QStringLiteral("Postgres server start failed"), output, PostgresLogLevel::Error);
    if (m_context.relay)
        m_context.relay->reason(QStringLiteral("start the database server in ") + m_context.dataDirectory,
            result.started ? output : QStringLiteral("%1 could not be run").arg(m_context.pgCtlPath));
}

// The server writes its lock file before it binds its port and removes it when it gives up,
// so its own complaint in its log and no live server behind the lock file mean it has gone.
QString PosixServiceControl::startFailure()
{
    if (!m_startError.isEmpty())
        return m_startError;
    const QStringList complaints = m_serverLog.complaintsSinceMark();
    if (complaints.isEmpty() || lockOwner(m_context.dataDirectory) == LockOwner::Server)
        return QString();
    return complaints.join(QStringLiteral("; "));
}

int PosixServiceControl::status()
{
    // Decided from the lock file where possible: pg_ctl refuses to run as root at all.
    qint64 pid = 0;
    if (checkLockFile(&pid) != LockOwner::Server)
        return ServiceControl::status();
    log(QStringLiteral("Postgres service status: %1").arg(QStringLiteral("server is running (PID: %1)").arg(pid)),
        QString(), PostgresLogLevel::Info);
    return 0;
}

void PosixServiceControl::stop()
{
    if (checkLockFile() != LockOwner::Server)
        return;
    m_runner->run(m_context.pgCtlPath,
        {QStringLiteral("stop"), QStringLiteral("-D"), m_context.dataDirectory, QStringLiteral("-m"),
            QStringLiteral("fast"), QStringLiteral("-w"), QStringLiteral("-t"), QString::number(kStopTimeoutSeconds)},
        kStopTimeoutMs);
    killLeftover();
}

ServiceControl::LockOwner PosixServiceControl::ownerOfLockFile(qint64 *pid) const
{
    return lockOwner(m_context.dataDirectory, pid);
}

void PosixServiceControl::killLeftover()
{
    qint64 pid = 0;
    if (lockOwner(m_context.dataDirectory, &pid) != LockOwner::Server)
        return;
    if (::kill(static_cast<pid_t>(pid), SIGKILL) == 0)
        log(QStringLiteral("Forcibly kill postgres service process. PID: %1.").arg(pid), QString(),
            PostgresLogLevel::Info);
}

ServiceControl::LockOwner PosixServiceControl::lockOwner(const QString &dataDirectory, qint64 *pid)
{
    const PostmasterPidFile::Content lock = PostmasterPidFile::read(dataDirectory);
    if (pid)
        *pid = lock.pid;
    if (!lock.exists)
        return LockOwner::NoLockFile;
    if (!lock.readable)
        return LockOwner::Unknown;
    if (lock.pid <= 0)
        return LockOwner::Stranger;
    if (::kill(static_cast<pid_t>(lock.pid), 0) != 0)
        return errno == ESRCH ? LockOwner::Stranger : LockOwner::Unknown;
    // The postmaster runs the server program with the data directory as its working directory.
    const QString program = programName(lock.pid);
    const QString workingDirectory = QFile::symLinkTarget(QStringLiteral("/proc/%1/cwd").arg(lock.pid));
    if (program.isEmpty() || workingDirectory.isEmpty())
        return LockOwner::Unknown;
    const bool server = program == kServerProgram && workingDirectory == QFileInfo(dataDirectory).canonicalFilePath();
    return server ? LockOwner::Server : LockOwner::Stranger;
}

} // namespace core
