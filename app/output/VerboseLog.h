#pragma once

#include <QString>

class RunLog;

// --verbose: why a run did what it did, line by line on standard error, prefixed with the
// program's name as pg_dump's -v does, and as information lines in the run log. Disabled, it
// writes nothing at all.
class VerboseLog
{
public:
    VerboseLog(RunLog &log, bool enabled);

    bool enabled() const { return m_enabled; }
    void line(const QString &text) const;

    // Qt's and libpq's own diagnostics reach the console only through this log, as "Qt: "
    // lines, and only while verbose is set; otherwise they are dropped.
    static void takeDiagnostics(const VerboseLog *verbose);

private:
    RunLog &m_log;
    const bool m_enabled;
};
