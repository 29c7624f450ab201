#pragma once

#include "core/server/control/ServiceControl.h"

namespace core {

// The server as a pg_ctl-managed process. There is no service manager to register
// with; the server listens on its TCP port only, so it needs no system-wide socket
// directory.
//
// "pg_ctl stop" would signal whatever process the lock file names, so the lock file is
// checked first, and one that names anything but this data directory's server is set aside.
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
    int status() override;
    void stop() override;
    void unregisterService() override;
    bool exists() override;
    QString startFailure() override;

    // A server of the data directory is a live "postgres" working in it.
    static LockOwner lockOwner(const QString &dataDirectory, qint64 *pid = nullptr);

protected:
    LockOwner ownerOfLockFile(qint64 *pid) const override;

private:
    void killLeftover();

    // What pg_ctl itself said when the start failed.
    QString m_startError;
};

} // namespace core
