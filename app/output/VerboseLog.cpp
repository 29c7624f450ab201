#include "app/output/VerboseLog.h"

#include "app/output/Console.h"
#include "app/output/RunLog.h"

#include <atomic>

namespace {
std::atomic<const VerboseLog *> g_diagnosticsTo{nullptr};

void onDiagnostic(QtMsgType, const QMessageLogContext &, const QString &message)
{
    if (const VerboseLog *const verbose = g_diagnosticsTo.load())
        verbose->line(QStringLiteral("Qt: ") + message.trimmed());
}
} // namespace

VerboseLog::VerboseLog(RunLog &log, bool enabled)
    : m_log(log)
    , m_enabled(enabled)
{ }

void VerboseLog::line(const QString &text) const
{
    if (!m_enabled)
        return;
    // One line each, whatever the driver's or a program's output holds.
    const QString line = text.simplified();
    Console::err(QStringLiteral("zentrix-data-normalizer: ") + line);
    m_log.writeLine(RunLog::Info, line);
}

void VerboseLog::takeDiagnostics(const VerboseLog *verbose)
{
    g_diagnosticsTo = verbose;
    qInstallMessageHandler(onDiagnostic);
}
