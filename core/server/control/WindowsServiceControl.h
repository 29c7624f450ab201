#pragma once

#include "core/server/control/ServiceControl.h"

namespace core {

// The server as the Windows service "zentrix-postgresql", driven through pg_ctl, sc,
// net and taskkill.
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

    WindowsServiceControl(const ServiceContext &context, std::unique_ptr<ProcessRunner> runner);

    QString dynamicSharedMemoryType() const override;
    void registerService() override;
    void start() override;
    void stop() override;
    void unregisterService() override;
    bool exists() override;
    QString startFailure() override { return m_startFailure; }

private:
    ProcessResult runToCompletion(const QString &program, const QStringList &arguments);
    // The service is starting, or runs while its server is not yet seen (sc's state 2 or 4).
    bool starting();
    void setStartFailure();

    QString m_startFailure;
};

} // namespace core
