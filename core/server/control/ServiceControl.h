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

    ServiceControl(const ServiceContext &context, std::unique_ptr<ProcessRunner> runner);
    virtual ~ServiceControl();

    // The value of "dynamic_shared_memory_type" the server's configuration needs here.
    virtual QString dynamicSharedMemoryType() const = 0;
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

protected:
    void log(const QString &message, const QString &detail, PostgresLogLevel level) const;

    ServiceContext m_context;
    std::unique_ptr<ProcessRunner> m_runner;
    // Marked when a start begins, so that only that start's complaints are read.
    ServerLog m_serverLog;
};

} // namespace core
