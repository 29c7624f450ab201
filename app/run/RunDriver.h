#pragma once

#include "app/run/RunPlan.h"

#include <QString>

#include <memory>

class QSqlDatabase;
class Reporter;
class RunJournal;
class RunLog;
class StatementCanceller;
class VerboseLog;

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
        const RunPlan &plan;
        RunLog &log;
        const Reporter &reporter;
        const VerboseLog &verbose;
        StatementCanceller &canceller;
    };

    Outcome runStages(int &argc, char **argv, core::CoreConfigLoader &loader, RunLog &log, QString &connectionName);
    static Outcome runPass(const Pass &pass);
    static bool runStep(const Pass &pass, const RunPlan::Step &step, RunJournal &journal);
    static Outcome reportInterrupt(const Reporter &reporter);

    // Where the configuration was found, when not where it is looked for first.
    QString m_configurationNote;
};
