#include "core/server/control/WindowsServiceControl.h"

#include "core/server/PostmasterPidFile.h"

#include <QDeadlineTimer>
#include <QRegularExpression>
#include <QThread>

namespace core {

namespace {
const QString kService = QLatin1String(ServiceControl::kServiceName);
// The states sc reports, as Windows numbers them.
constexpr int kServiceStartPending = 2;
constexpr int kServiceRunning = 4;
} // namespace

WindowsServiceControl::WindowsServiceControl(const ServiceContext &context, std::unique_ptr<ProcessRunner> runner)
    : ServiceControl(context, std::move(runner))
{ }

ProcessResult WindowsServiceControl::runToCompletion(const QString &program, const QStringList &arguments)
{
    return m_runner->run(program, arguments, ProcessRunner::kToCompletion);
}

QString WindowsServiceControl::dynamicSharedMemoryType() const
{
    return QStringLiteral("windows");
}

void WindowsServiceControl::registerService()
{
    // The port goes into the service's own options, so it survives later rewrites of
    // postgresql.conf.
    m_runner->run(m_context.pgCtlPath,
        {QStringLiteral("register"), QStringLiteral("-N"), kService, QStringLiteral("-D"), m_context.dataDirectory,
            QStringLiteral("--options=-p%1").arg(m_context.port)},
        kRegisterTimeoutMs);
    // Restart 60 s after the first and second failure, nothing after the third; the
    // failure count resets after a day.
    runToCompletion(QStringLiteral("sc"),
        {QStringLiteral("failure"), kService, QStringLiteral("reset=86400"),
            QStringLiteral("actions=restart/60000/restart/60000//")});
    runToCompletion(QStringLiteral("sc"),
        {QStringLiteral("description"), kService, QStringLiteral("Sentrova Core PostgreSQL Service")});
    runToCompletion(QStringLiteral("sc"),
        {QStringLiteral("config"), kService, QStringLiteral("displayname="),
            QStringLiteral("Tarvex Sentrova Core PostgreSQL")});
}

void WindowsServiceControl::start()
{
    m_serverLog.mark();
    runToCompletion(QStringLiteral("net"), {QStringLiteral("start"), kService});
    // "net start" returns once the service runs or has stopped again, so a server that could
    // not start is known at once, unless the service is still on its way.
    m_startFailure.clear();
    const QDeadlineTimer limit(kStartPendingLimitMs);
    while (status() == kNotRunning) {
        if (!starting() || limit.hasExpired()) {
            setStartFailure();
            return;
        }
        QThread::msleep(kStartPendingPollMs);
    }
}

void WindowsServiceControl::setStartFailure()
{
    const QStringList complaints = m_serverLog.complaintsSinceMark();
    m_startFailure = complaints.isEmpty()
        ? QStringLiteral("no server runs in %1 after \"net start %2\"; the server's reason is in the Windows event log")
              .arg(m_context.dataDirectory, kService)
        : complaints.join(QStringLiteral("; "));
}

void WindowsServiceControl::stop()
{
    runToCompletion(QStringLiteral("net"), {QStringLiteral("stop"), kService});
    const qint64 pid = PostmasterPidFile::readPid(m_context.dataDirectory);
    if (pid != 0) {
        m_runner->run(QStringLiteral("taskkill"), {QStringLiteral("/F"), QStringLiteral("/PID"), QString::number(pid)},
            kTaskkillTimeoutMs);
        log(QStringLiteral("Forcibly kill postgres service process. PID: %1.").arg(pid), QString(),
            PostgresLogLevel::Info);
    }
    unregisterService();
}

void WindowsServiceControl::unregisterService()
{
    runToCompletion(QStringLiteral("net"), {QStringLiteral("stop"), kService});
    const ProcessResult result
        = runToCompletion(m_context.pgCtlPath, {QStringLiteral("unregister"), QStringLiteral("-N"), kService});
    log(QStringLiteral("Unregister postgres service. Exit code: %1").arg(result.exitCode), QString(),
        PostgresLogLevel::Info);
}

bool WindowsServiceControl::starting()
{
    static const QRegularExpression state(QStringLiteral(R"(STATE\s*:\s*(\d+))"));
    const ProcessResult query = runToCompletion(QStringLiteral("sc"), {QStringLiteral("query"), kService});
    const int number = state.match(QString::fromLocal8Bit(query.standardOutput)).captured(1).toInt();
    return number == kServiceStartPending || number == kServiceRunning;
}

bool WindowsServiceControl::exists()
{
    return runToCompletion(QStringLiteral("sc"), {QStringLiteral("query"), kService}).exitCode == 0;
}

} // namespace core
