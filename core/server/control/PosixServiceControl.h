#pragma once

#include "core/server/control/ServiceControl.h"

namespace core {

// The server as a pg_ctl-managed process. There is no service manager to register
// with; the server listens on its TCP port only, so it needs no system-wide socket
// directory.
//
// pg_ctl and the server trust the PID in the lock file: after a reboot it may name an
// unrelated process, which "pg_ctl stop" would then signal. So the lock file is checked
// first, and one that names anything but this data directory's server is set aside.
class PosixServiceControl : public ServiceControl
{
public:
    static constexpr int kStartTimeoutMs = 30000;
    static constexpr int kStopTimeoutSeconds = 60;
    static constexpr int kStopTimeoutMs = (kStopTimeoutSeconds + 10) * 1000;

    enum class LockOwner {
        NoLockFile,
        // A live server process working in this data directory.
        Server,
        // Nothing alive, or a process that is not this data directory's server.
        Stranger,
        // The process exists but cannot be inspected by this account.
        Unknown,
    };

    PosixServiceControl(const ServiceContext &context, std::unique_ptr<ProcessRunner> runner);

    QString dynamicSharedMemoryType() const override;
    void registerService() override;
    void start() override;
    int status() override;
    void stop() override;
    void unregisterService() override;
    bool exists() override;
    QString startFailure() override;

    // pid receives the PID the verdict is about, so that what is logged or signalled is
    // exactly the process that was checked, not a later read of the file.
    static LockOwner lockOwner(const QString &dataDirectory, qint64 *pid = nullptr);

private:
    LockOwner checkLockFile(qint64 *pid = nullptr);
    void killLeftover();

    // What pg_ctl itself said when the start failed.
    QString m_startError;
};

} // namespace core
