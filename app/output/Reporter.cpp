#include "app/output/Reporter.h"

#include "app/output/Console.h"
#include "app/output/RunLog.h"

namespace {
const QString kErrorTag = QStringLiteral("ERROR: ");
const QString kWarningTag = QStringLiteral("WARNING: ");
} // namespace

Reporter::Reporter(RunLog &log)
    : m_log(log)
{ }

void Reporter::error(const QString &line) const
{
    error(line, line);
}

void Reporter::warning(const QString &line) const
{
    warning(line, line);
}

void Reporter::info(const QString &line) const
{
    info(line, line);
}

void Reporter::error(const QString &consoleLine, const QString &logLine) const
{
    Console::err(kErrorTag + consoleLine);
    m_log.writeLine(RunLog::Error, logLine);
}

void Reporter::warning(const QString &consoleLine, const QString &logLine) const
{
    Console::err(kWarningTag + consoleLine);
    m_log.writeLine(RunLog::Warning, logLine);
}

void Reporter::info(const QString &consoleLine, const QString &logLine) const
{
    Console::out(consoleLine);
    m_log.writeLine(RunLog::Info, logLine);
}

void Reporter::shortfall(const QString &line) const
{
    Console::err(line);
    m_log.writeLine(RunLog::Warning, line);
}

void Reporter::runStopped(const QString &reason) const
{
    if (!reason.isEmpty())
        error(QStringLiteral("The run stopped before its end: %1").arg(reason));
}

void Reporter::exception(const QString &message) const
{
    Console::errRaw(message);
    m_log.writeRaw(message);
}

void Reporter::logInfo(const QString &line) const
{
    m_log.writeLine(RunLog::Info, line);
}

void Reporter::logWarning(const QString &line) const
{
    m_log.writeLine(RunLog::Warning, line);
}

void Reporter::logError(const QString &line) const
{
    m_log.writeLine(RunLog::Error, line);
}
