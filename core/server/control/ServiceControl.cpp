#include "core/server/control/ServiceControl.h"

#include "core/server/PostmasterPidFile.h"

#include <QDir>
#include <QtGlobal>

#ifdef Q_OS_WIN
#include "core/server/control/WindowsServiceControl.h"
#else
#include "core/server/control/PosixServiceControl.h"
#endif

namespace core {

ServiceControl::ServiceControl(const ServiceContext &context, std::unique_ptr<ProcessRunner> runner)
    : m_context(context)
    , m_runner(std::move(runner))
    , m_serverLog(context.dataDirectory)
{ }

ServiceControl::~ServiceControl() = default;

void ServiceControl::log(const QString &message, const QString &detail, PostgresLogLevel level) const
{
    if (m_context.relay)
        m_context.relay->log(message, detail, level);
}

ServiceControl::LockOwner ServiceControl::checkLockFile(qint64 *pid)
{
    qint64 named = 0;
    const LockOwner owner = ownerOfLockFile(&named);
    if (pid)
        *pid = named;
    if (owner != LockOwner::Stranger)
        return owner;
    const bool setAside = PostmasterPidFile::setAside(m_context.dataDirectory);
    const QString message = setAside
        ? QStringLiteral("Stale lock file set aside as postmaster.pid.stale: process %1 is not a server of this data "
                         "directory (its id was reused, as after a reboot); nothing was signalled. The .stale file "
                         "is kept for your information only: delete it at will.")
              .arg(named)
        : QStringLiteral("Stale lock file could not be set aside: process %1 is not a server of this data directory; "
                         "nothing was signalled. Move %2 aside by hand.")
              .arg(named)
              .arg(QDir::toNativeSeparators(PostmasterPidFile::path(m_context.dataDirectory)));
    if (m_context.relay)
        m_context.relay->warn(message, PostmasterPidFile::path(m_context.dataDirectory));
    return owner;
}

int ServiceControl::status()
{
    const ProcessResult result = m_runner->run(m_context.pgCtlPath,
        {QStringLiteral("status"), QStringLiteral("-D"), m_context.dataDirectory}, kStatusTimeoutMs);
    log(QStringLiteral("Postgres service status: %1").arg(QString::fromLocal8Bit(result.standardOutput)), QString(),
        PostgresLogLevel::Info);
    return result.exitCode;
}

std::unique_ptr<ServiceControl> ServiceControl::create(
    const ServiceContext &context, std::unique_ptr<ProcessRunner> runner)
{
#ifdef Q_OS_WIN
    return std::make_unique<WindowsServiceControl>(context, std::move(runner));
#else
    return std::make_unique<PosixServiceControl>(context, std::move(runner));
#endif
}

} // namespace core
