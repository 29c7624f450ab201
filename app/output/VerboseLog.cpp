#include "app/output/VerboseLog.h"

#include "app/output/Console.h"
#include "app/output/RunLog.h"

VerboseLog::VerboseLog(RunLog &log, bool enabled)
    : m_log(log)
    , m_enabled(enabled)
{ }

void VerboseLog::line(const QString &text) const
{
    if (!m_enabled)
        return;
    Console::err(QStringLiteral("zentrix-data-normalizer: ") + text);
    m_log.writeLine(RunLog::Info, text);
}
