#pragma once

#include <QString>

#include <memory>

class QSqlDatabase;
class RunLog;
class StatementCanceller;
class VerboseLog;
struct OperatorOptions;

namespace core {
class CoreConfigLoader;
class PostgresService;
} // namespace core

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

    // What the pass needs of the stages before it.
    struct Pass {
        core::PostgresService &service;
        const QString &dbName;
        const QSqlDatabase &database;
        const QString &connectionName;
        const OperatorOptions &options;
        RunLog &log;
        const VerboseLog &verbose;
        StatementCanceller &canceller;
    };

    Outcome runStages(int &argc, char **argv, core::CoreConfigLoader &loader, RunLog &log, QString &connectionName);
    static Outcome runPass(const Pass &pass);
    static bool runStrategy(const Pass &pass, bool verify);
    static Outcome reportInterrupt(RunLog &log);

    // Where the configuration was found, when not where it is looked for first.
    QString m_configurationNote;
};
