#include "core/server/control/WindowsServiceControl.h"

#include "core/server/PostmasterPidFile.h"
#include "core/server/path/SystemPath.h"
#include "core/server/process/ProcessIdentity.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QThread>

#include <algorithm>

namespace core {

namespace {
const QString kService = QLatin1String(ServiceControl::kServiceName);
// The states sc reports, as Windows numbers them.
constexpr int kServiceStartPending = 2;
constexpr int kServiceRunning = 4;
} // namespace

WindowsServiceControl::WindowsServiceControl(const ServiceContext &context, std::unique_ptr<ProcessRunner> runner)
    : WindowsServiceControl(context, std::move(runner), Limits(), ServiceRegistration::of)
{ }

WindowsServiceControl::WindowsServiceControl(const ServiceContext &context, std::unique_ptr<ProcessRunner> runner,
    const Limits &limits, RegistrationReader registration)
    : ServiceControl(context, std::move(runner))
    , m_limits(limits)
    , m_registration(std::move(registration))
{ }

ProcessResult WindowsServiceControl::runToCompletion(const QString &program, const QStringList &arguments)
{
    return m_runner->run(program, arguments, ProcessRunner::kToCompletion);
}

QString WindowsServiceControl::dynamicSharedMemoryType() const
{
    return QStringLiteral("windows");
}

QString WindowsServiceControl::serviceOfAnother()
{
    const ServiceRegistration registration = m_registration(kService);
    if (registration.state == ServiceRegistration::State::Missing)
        return QString();
    if (registration.state == ServiceRegistration::State::Unreadable)
        return QStringLiteral(
            "The Windows service %1 exists, but its registration cannot be read (%2), so it may belong "
            "to another installation; the run left it as it is. Run the tool as an administrator.")
            .arg(kService, registration.error);
    const QString folder = ServiceRegistration::dataFolderIn(registration.commandLine);
    if (!folder.isEmpty() && SystemPath::sameOnWindows(folder, m_context.dataDirectory))
        return QString();
    const QString runs = folder.isEmpty()
        ? QStringLiteral("it runs %1, which names no data folder").arg(registration.commandLine)
        : QStringLiteral("it runs the database server of %1").arg(folder);
    return QStringLiteral("The Windows service %1 belongs to another installation: %2, not of this installation's %3. "
                          "The run left that service as it is. If nothing uses that installation any more, remove its "
                          "service (sc stop %1, then sc delete %1) and run again; while it is in use, this "
                          "installation's database server cannot run as that service on this machine.")
        .arg(kService, runs, QDir::toNativeSeparators(m_context.dataDirectory));
}

bool WindowsServiceControl::mayDriveService()
{
    const QString refusal = serviceOfAnother();
    if (refusal.isEmpty())
        return true;
    if (!m_refusalSaid)
        log(refusal, QString(), PostgresLogLevel::Error);
    m_refusalSaid = true;
    return false;
}

QByteArray WindowsServiceControl::serverText(const QString &text) const
{
    return text.toLocal8Bit();
}

QString WindowsServiceControl::unworkablePaths(bool creatingCluster) const
{
    const QString dataDirectory = QDir::toNativeSeparators(m_context.dataDirectory);
    if (QString::fromLocal8Bit(serverText(dataDirectory)) != dataDirectory)
        return QStringLiteral("The data folder %1 has characters that the system's ANSI code page cannot hold, and "
                              "PostgreSQL's programs take their paths in that code page, so its server could not open "
                              "its files. Give internal/data_directory a folder whose path has only characters of "
                              "that code page (ASCII always works) and run again; nothing was made.")
            .arg(dataDirectory);
    // initdb copies the installation's path, in the code page's bytes, into text of the new
    // UTF-8 cluster, where any byte outside ASCII is refused.
    const QString installDirectory = QDir::toNativeSeparators(m_context.installDirectory);
    const bool ascii
        = std::all_of(installDirectory.cbegin(), installDirectory.cend(), [](QChar c) { return c.unicode() < 0x80; });
    if (!creatingCluster || ascii)
        return QString();
    return QStringLiteral(
        "PostgreSQL's initdb cannot create the database cluster from the installation folder %1: "
        "it copies that path into the new cluster, whose text is UTF-8, in the bytes of the "
        "system's ANSI code page, which the cluster refuses outside ASCII. Install the product into a "
        "folder whose path is ASCII only and run again; nothing was made.")
        .arg(installDirectory);
}

void WindowsServiceControl::registerService()
{
    if (!mayDriveService())
        return;
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
    m_startFailure.clear();
    if (!mayDriveService()) {
        m_startFailure = serviceOfAnother();
        return;
    }
    runToCompletion(QStringLiteral("net"), {QStringLiteral("start"), kService});
    // "net start" returns once the service runs or has stopped again, so a server that could
    // not start is known at once, unless the service is still on its way (Wine's stays so for
    // good once its server has given up, which the server's log then says).
    const QDeadlineTimer limit(m_limits.startPendingMs);
    while (status() == kNotRunning) {
        if (!m_serverLog.complaintsSinceMark().isEmpty() || !starting() || limit.hasExpired()) {
            setStartFailure();
            return;
        }
        QThread::msleep(kStartPendingPollMs);
    }
}

// Without a complaint in the server's log, its reason is what the server prints when it is
// started by hand: the service manager keeps no output.
void WindowsServiceControl::setStartFailure()
{
    const QStringList complaints = m_serverLog.complaintsSinceMark();
    m_startFailure = complaints.isEmpty()
        ? QStringLiteral(
            "no server runs in %1 after \"net start %2\", and its log folder %3 says nothing of this start; "
            "start it once by hand to see why: \"%4\" start -D \"%1\"")
              .arg(QDir::toNativeSeparators(m_context.dataDirectory), kService,
                  QDir::toNativeSeparators(m_context.dataDirectory + QStringLiteral("/log")),
                  QDir::toNativeSeparators(m_context.pgCtlPath))
        : complaints.join(QStringLiteral("; "));
}

void WindowsServiceControl::stop()
{
    if (!mayDriveService())
        return;
    runToCompletion(QStringLiteral("net"), {QStringLiteral("stop"), kService});
    waitUntilStopped();
    qint64 pid = 0;
    if (checkLockFile(&pid) == LockOwner::Server) {
        m_runner->run(QStringLiteral("taskkill"), {QStringLiteral("/F"), QStringLiteral("/PID"), QString::number(pid)},
            kTaskkillTimeoutMs);
        log(QStringLiteral("Forcibly kill postgres service process. PID: %1.").arg(pid), QString(),
            PostgresLogLevel::Info);
    }
    unregisterService();
}

// "net stop" returns once the service has stopped, but Wine's returns at once: a server on its
// way down is waited for by its own state, and only one that outlasts the limit is killed.
void WindowsServiceControl::waitUntilStopped()
{
    const QDeadlineTimer limit(m_limits.stopWaitMs);
    while (ownerOfLockFile(nullptr) == LockOwner::Server && !serverStopped()) {
        if (limit.hasExpired())
            return;
        QThread::msleep(kStopPollMs);
    }
}

bool WindowsServiceControl::serverStopped()
{
    return m_runner
               ->run(m_context.pgCtlPath, {QStringLiteral("status"), QStringLiteral("-D"), m_context.dataDirectory},
                   kStatusTimeoutMs)
               .exitCode
        == kNotRunning;
}

// pg_ctl believes any live process its lock file names, another installation's server among
// them, and the run would wait for that one on this installation's port.
int WindowsServiceControl::status()
{
    checkLockFile();
    return ServiceControl::status();
}

void WindowsServiceControl::unregisterService()
{
    if (!mayDriveService())
        return;
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

QString WindowsServiceControl::serverProgram() const
{
    // Installed beside pg_ctl, with its suffix.
    const QFileInfo pgCtl(m_context.pgCtlPath);
    return pgCtl.dir().filePath(QStringLiteral("postgres") + pgCtl.fileName().mid(QStringLiteral("pg_ctl").size()));
}

ServiceControl::LockOwner WindowsServiceControl::ownerOfLockFile(qint64 *pid) const
{
    return lockOwner(m_context.dataDirectory, serverProgram(), pid);
}

ServiceControl::LockOwner WindowsServiceControl::lockOwner(
    const QString &dataDirectory, const QString &serverProgram, qint64 *pid)
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
    const ProcessIdentity process = ProcessIdentity::of(lock.pid);
    if (process.state == ProcessIdentity::State::Hidden)
        return LockOwner::Unknown;
    if (process.state == ProcessIdentity::State::Gone)
        return LockOwner::Stranger;
    // A process created after the postmaster of the lock file started was only given its id.
    const bool described = process.created.toMSecsSinceEpoch() < lock.startTime * 1000 + kLockTimeResolutionMs;
    return described && SystemPath::sameOnWindows(process.image, serverProgram) ? LockOwner::Server
                                                                                : LockOwner::Stranger;
}

} // namespace core
