#pragma once

#include "core/server/control/ServiceControl.h"
#include "core/server/control/ServiceRegistration.h"

#include <functional>

namespace core {

// The server as the Windows service "zentrix-postgresql", driven through pg_ctl, sc,
// net and taskkill. Only a service registered for this data directory is driven, and only
// this installation's server, as its lock file describes it, is ever killed.
class WindowsServiceControl : public ServiceControl
{
public:
    static constexpr int kRegisterTimeoutMs = 30000;
    static constexpr int kTaskkillTimeoutMs = 30000;
    // A service that still starts once "net start" has returned (Wine's returns at once) is
    // given as long as one try of the start loop waits for its server.
    static constexpr int kStartPendingLimitMs = 30000;
    // Each look is two process starts.
    static constexpr int kStartPendingPollMs = 500;
    // A server still stopping once "net stop" has returned (Wine's returns at once) is given
    // as long as pg_ctl itself waits for a stop (its default PGCTLTIMEOUT) before it is killed.
    static constexpr int kStopWaitLimitMs = 60000;
    static constexpr int kStopPollMs = 500;
    // The lock file gives the postmaster's start in whole seconds.
    static constexpr qint64 kLockTimeResolutionMs = 1000;

    struct Limits {
        int startPendingMs = kStartPendingLimitMs;
        int stopWaitMs = kStopWaitLimitMs;
    };
    using RegistrationReader = std::function<ServiceRegistration(const QString &serviceName)>;

    WindowsServiceControl(const ServiceContext &context, std::unique_ptr<ProcessRunner> runner);
    WindowsServiceControl(const ServiceContext &context, std::unique_ptr<ProcessRunner> runner, const Limits &limits,
        RegistrationReader registration);

    QString dynamicSharedMemoryType() const override;
    // PostgreSQL's Windows programs read their files, and take their paths, in the system's
    // ANSI code page.
    QByteArray serverText(const QString &text) const override;
    QString unworkablePaths(bool creatingCluster) const override;
    void registerService() override;
    void start() override;
    void stop() override;
    void unregisterService() override;
    // A lock file of anything but this installation's server is set aside first.
    int status() override;
    bool exists() override;
    QString startFailure() override { return m_startFailure; }
    QString serviceOfAnother() override;

    // A server of the data directory is the installation's postgres.exe (beside pg_ctl),
    // created no later than the lock file says the postmaster started.
    static LockOwner lockOwner(const QString &dataDirectory, const QString &serverProgram, qint64 *pid = nullptr);

protected:
    LockOwner ownerOfLockFile(qint64 *pid) const override;

private:
    ProcessResult runToCompletion(const QString &program, const QStringList &arguments);
    // The service is starting, or runs while its server is not yet seen (sc's state 2 or 4).
    bool starting();
    void setStartFailure();
    bool serverStopped();
    void waitUntilStopped();
    // False, said once, when the service name is another installation's.
    bool mayDriveService();
    QString serverProgram() const;

    Limits m_limits;
    RegistrationReader m_registration;
    QString m_startFailure;
    bool m_refusalSaid = false;
};

} // namespace core
