#pragma once

#include "app/health/HealthLimits.h"
#include "app/repair/FailurePolicy.h"
#include "app/repair/UnitSizer.h"

#include <QString>
#include <QStringList>
#include <QVector>

#include <memory>

class RepairStrategy;
struct StrategyContext;

// What a run does once the database is usable, decided once from its command line (the product's
// own handling of it, then the operator options) and followed by the driver, which never asks
// for the mode again. A new mode or option is a change here and in its strategy.
struct RunPlan {
    enum class Work {
        // Any argument list the tool does not know: the database is opened and nothing is changed.
        Nothing,
        // The journal's commands, one statement each.
        ListRuns,
        Forget,
        // Strategies on the repair engine, one after another.
        Steps,
    };

    enum class Strategy {
        // The product's pass: one UPDATE per instance.
        ProductPass,
        ChangedOnly,
        Batched,
        // Batched, every change recorded in the journal, an unfinished journaled run resumed.
        Journaled,
        DryRun,
        Undo,
        Verify,
    };

    struct Step {
        Strategy strategy = Strategy::ProductPass;
        FailurePolicy policy = FailurePolicy::ReportAndGoOn;
        // How far the step has got goes to the run log once a minute even with nobody watching.
        bool progressToLog = false;
        // While the progress line is shown, the lock a unit waits on is looked up and shown.
        bool watchLocks = false;
        // The step writes: its sessions compress their WAL, and it spares the server (limits).
        bool spares = false;
    };

    Work work = Work::Nothing;
    QVector<Step> steps;
    // Settings of every session the run opens; none: the sessions are the product's, as they are.
    QStringList sessionSettings;
    // Run-log entries stay one line whatever the server's texts in them hold.
    bool logEntriesOnOneLine = false;
    // A first connection that fails is said on the console too, with libpq's or the server's words.
    bool connectionFailureOnConsole = false;
    // Connections the steps work on at once.
    int jobs = 1;
    // What the writing steps spare the server.
    HealthLimits limits;
    // The writing steps keep to a share of the time: shorter units, one process per connection.
    bool paced = false;
    // What a range of the batched repair, or a span of --undo, should take: less under a pace.
    qint64 unitTargetMs = UnitSizer::kTargetMs;
    // The journaled run --undo or --forget works on.
    int run = 0;
    bool verbose = false;
    // The run's own arguments as one line, for the journal's record of it.
    QString commandLine;
    // A list the tool knows that cannot run as given: the run ends with this error.
    QString error;
    // A list the tool does not know that looks like a misspelt option: said, and the run goes on.
    QString misspelling;

    // productRunMode: what the product's own command-line handling made of the list ("normalize"
    // for a bare invocation, empty for anything else); arguments without the program name;
    // poolSize: the configured connection pool.
    static RunPlan make(const QString &productRunMode, const QStringList &arguments, int poolSize);

    std::unique_ptr<RepairStrategy> strategyFor(const Step &step, const StrategyContext &context) const;
};
