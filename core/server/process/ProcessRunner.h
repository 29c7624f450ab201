#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace core {

struct ProcessResult {
    bool started = false;
    bool finished = false;
    int exitCode = -1;
    QByteArray standardOutput;
    QByteArray standardError;
};

// Runs a command line, each argument separate, with no shell. Exists so that the
// Windows service commands can be recorded where they cannot run.
class ProcessRunner
{
public:
    // Waits for as long as the program runs.
    static constexpr int kToCompletion = -1;

    virtual ~ProcessRunner() = default;
    virtual ProcessResult run(const QString &program, const QStringList &arguments, int timeoutMs) = 0;
};

} // namespace core
