#pragma once

#include "core/server/process/ProcessRunner.h"
#include "core/server/process/ServerAccount.h"

namespace core {

// Runs programs as child processes under the server's account.
class QProcessRunner : public ProcessRunner
{
public:
    QProcessRunner(const ServerAccount &account, const QString &workingDirectory);

    ProcessResult run(const QString &program, const QStringList &arguments, int timeoutMs) override;

private:
    ServerAccount m_account;
    QString m_workingDirectory;
};

} // namespace core
