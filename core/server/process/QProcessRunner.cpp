#include "core/server/process/QProcessRunner.h"

#include <QProcess>

namespace core {

namespace {
constexpr int kStartTimeoutMs = 30000;
}

QProcessRunner::QProcessRunner(const ServerAccount &account, const QString &workingDirectory)
    : m_account(account)
    , m_workingDirectory(workingDirectory)
{ }

ProcessResult QProcessRunner::run(const QString &program, const QStringList &arguments, int timeoutMs)
{
    QProcess process;
    if (!m_workingDirectory.isEmpty())
        process.setWorkingDirectory(m_workingDirectory);
    m_account.applyTo(process);
    process.start(program, arguments);
    ProcessResult result;
    result.started = process.waitForStarted(kStartTimeoutMs);
    if (!result.started)
        return result;
    result.finished = process.waitForFinished(timeoutMs);
    if (!result.finished) {
        // The bound was reached: leave nothing running behind.
        process.kill();
        process.waitForFinished();
    }
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.standardOutput = process.readAllStandardOutput();
    result.standardError = process.readAllStandardError();
    return result;
}

} // namespace core
