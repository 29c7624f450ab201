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

    QString m_startFailure;
};

} // namespace core
