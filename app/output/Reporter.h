#pragma once

#include <QString>

class RunLog;

// The one way a run says a thing to its operator: each line on the console (errors and warnings
// on standard error with their tag, information on standard output) and in the run log together.
// Where the two readers need different words (the product's instance lines, a reason the run log
// keeps and the console does not), both texts are given to one call.
class Reporter
{
public:
    explicit Reporter(RunLog &log);

    void error(const QString &line) const;
    void warning(const QString &line) const;
    void info(const QString &line) const;
    void error(const QString &consoleLine, const QString &logLine) const;
    void warning(const QString &consoleLine, const QString &logLine) const;
    void info(const QString &consoleLine, const QString &logLine) const;
    // A closing line that says how far a run got when it did not get to its end: on standard error
    // as it stands, a warning in the run log.
    void shortfall(const QString &line) const;
    // The reason the run stopped early, from the failure every unit would have met.
    void runStopped(const QString &reason) const;
    // A caught exception's message, as it is: no tag, no time stamp, no line end of its own.
    void exception(const QString &message) const;

    // Lines for the run log alone.
    void logInfo(const QString &line) const;
    void logWarning(const QString &line) const;
    void logError(const QString &line) const;

    RunLog &log() const { return m_log; }

private:
    RunLog &m_log;
};
