#pragma once

#include "core/relay/PostgresLogRelay.h"
#include "core/server/ServerLog.h"
#include "core/server/process/ProcessRunner.h"
#include "core/server/process/ServerAccount.h"

#include <QString>

#include <memory>

namespace core {

// What a service backend needs to know of the server it controls.
struct ServiceContext {
    QString pgCtlPath;
    QString dataDirectory;
    // The server's installation; its account can always enter it, so commands run there.
    QString installDirectory;
    int port = 0;
    // Who the server runs as; files made for it are handed to this account.
    ServerAccount account;
    const PostgresLogRelay *relay = nullptr;
};

// Registers, starts, stops and queries the database server as the platform runs it:
// a Windows service, or a pg_ctl-managed server on POSIX.
class ServiceControl
{
public:
    static constexpr const char *kServiceName = "zentrix-postgresql";

    // The platform's backend.
    static std::unique_ptr<ServiceControl> create(const ServiceContext &context, std::unique_ptr<ProcessRunner> runner);

    static constexpr int kStatusTimeoutMs = 30000;
    // pg_ctl status: no server runs in the data directory.
    static constexpr int kNotRunning = 3;

    // Who the PID in the data directory's lock file is. pg_ctl and the server trust it, but
    // after a reboot it may name an unrelated process.
    enum class LockOwner {
        NoLockFile,
        // A live server process of this data directory.
        Server,
        // Nothing alive, or a process that is not this data directory's server.
        Stranger,
        // The process exists but cannot be inspected by this account.
        Unknown,
    };

    ServiceControl(const ServiceContext &context, std::unique_ptr<ProcessRunner> runner);
    virtual ~ServiceControl();

    // The value of "dynamic_shared_memory_type" the server's configuration needs here.
    virtual QString dynamicSharedMemoryType() const = 0;
    // Text as the server's programs read it from their files (postgresql.conf): UTF-8.
    virtual QByteArray serverText(const QString &text) const { return text.toUtf8(); }
    // Why the server's programs cannot work in the data directory or, to create a cluster, in
    // the installation, with what to do; empty when they can.
    virtual QString unworkablePaths(bool creatingCluster) const
    {
        Q_UNUSED(creatingCluster);
        return QString();
    }
    virtual void registerService() = 0;
    // Issues the start; the caller waits for the server to answer.
    virtual void start() = 0;
    // Stops the server, kills what is left of it, and unregisters the service.
    virtual void stop() = 0;
    virtual void unregisterService() = 0;
    // pg_ctl's status: 0 running, 3 not running, anything else a failure.
    virtual int status();
    // After start(): why the server is known not to come up (it could not bind its port, say),
    // or empty while it may still answer.
    virtual QString startFailure() = 0;
    virtual bool exists() = 0;
    // Why the service this backend would drive belongs to another installation, with what to
    // do about it; empty when it is this installation's or there is none.
    virtual QString serviceOfAnother() { return QString(); }

protected:
    void log(const QString &message, const QString &detail, PostgresLogLevel level) const;
    // pid receives the PID the verdict is about, so that what is logged or signalled is
    // exactly the process that was checked, not a later read of the file.
    virtual LockOwner ownerOfLockFile(qint64 *pid) const = 0;
    // The verdict, with a lock file of a stranger set aside (and said) so that neither pg_ctl
    // nor the server trusts it any more.
    LockOwner checkLockFile(qint64 *pid = nullptr);

    ServiceContext m_context;
    std::unique_ptr<ProcessRunner> m_runner;
    // Marked when a start begins, so that only that start's complaints are read.
    ServerLog m_serverLog;
};

} // namespace core
