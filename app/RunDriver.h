#pragma once

#include <QString>

#include <memory>

class RunLog;

namespace core {
class CoreConfigLoader;
}

// The tool's run from configuration to exit status. Configuration errors are not
// caught: they end the process before any run log exists.
class RunDriver
{
public:
    int run(int &argc, char **argv);

    // 1 when the usage was printed; otherwise 0, with the run mode set to "normalize"
    // for a bare invocation and left empty for anything else.
    static int parseCommandLine(const QStringList &arguments, QString &runMode);

private:
    enum class Outcome { Done, EarlyExit };

    Outcome runStages(int &argc, char **argv, core::CoreConfigLoader &loader, RunLog &log, QString &connectionName);
};
