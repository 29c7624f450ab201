#pragma once

#include "core/server/control/ServiceControl.h"

namespace core {

// The server as a pg_ctl-managed process. There is no service manager to register
// with; the server listens on its TCP port only, so it needs no system-wide socket
// directory.
class PosixServiceControl : public ServiceControl
{
public:
    static constexpr int kStartTimeoutMs = 30000;
    static constexpr int kStopTimeoutSeconds = 60;
    static constexpr int kStopTimeoutMs = (kStopTimeoutSeconds + 10) * 1000;

    PosixServiceControl(const ServiceContext &context, std::unique_ptr<ProcessRunner> runner);

    QString dynamicSharedMemoryType() const override;
    void registerService() override;
    void start() override;
    void stop() override;
    void unregisterService() override;
    bool exists() override;

    // True when pid is a live server process running on this data directory.
    static bool isServerOf(qint64 pid, const QString &dataDirectory);

private:
    void killLeftover();
};

} // namespace core
