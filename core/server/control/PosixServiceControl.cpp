#include "core/server/control/PosixServiceControl.h"

#include "core/server/PostmasterPidFile.h"

#include <QDir>
#include <QFileInfo>

#include <csignal>
#include <sys/types.h>

namespace core {

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
    // "-k ''": no Unix-domain socket, so nothing outside the data directory is needed.
    const ProcessResult result = m_runner->run(m_context.pgCtlPath,
        {QStringLiteral("start"), QStringLiteral("-D"), m_context.dataDirectory, QStringLiteral("-W"),
            QStringLiteral("-l"), logDirectory + QStringLiteral("/pg_ctl.log"), QStringLiteral("-o"),
            QStringLiteral("-p %1 -k ''").arg(m_context.port)},
        kStartTimeoutMs);
    if (result.exitCode != 0)
        log(QStringLiteral("Postgres server start failed"),
            QString::fromLocal8Bit(result.standardError + result.standardOutput), PostgresLogLevel::Error);
}

void PosixServiceControl::stop()
{
    m_runner->run(m_context.pgCtlPath,
        {QStringLiteral("stop"), QStringLiteral("-D"), m_context.dataDirectory, QStringLiteral("-m"),
            QStringLiteral("fast"), QStringLiteral("-w"), QStringLiteral("-t"), QString::number(kStopTimeoutSeconds)},
        kStopTimeoutMs);
    killLeftover();
}

void PosixServiceControl::killLeftover()
{
    const qint64 pid = PostmasterPidFile::readPid(m_context.dataDirectory);
    // A stale lock file may name a process that has nothing to do with this server.
    if (pid <= 0 || !isServerOf(pid, m_context.dataDirectory))
        return;
    if (::kill(static_cast<pid_t>(pid), SIGKILL) == 0)
        log(QStringLiteral("Forcibly kill postgres service process. PID: %1.").arg(pid), QString(),
            PostgresLogLevel::Info);
}

bool PosixServiceControl::isServerOf(qint64 pid, const QString &dataDirectory)
{
    if (::kill(static_cast<pid_t>(pid), 0) != 0)
        return false;
    // The postmaster runs with the data directory as its working directory.
    const QString workingDirectory = QFileInfo(QStringLiteral("/proc/%1/cwd").arg(pid)).canonicalFilePath();
    const QString directory = QFileInfo(dataDirectory).canonicalFilePath();
    return !directory.isEmpty() && workingDirectory == directory;
}

} // namespace core
