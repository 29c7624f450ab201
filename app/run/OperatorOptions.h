#pragma once

#include "app/health/HealthLimits.h"
#include "app/run/RunMode.h"

#include <QString>
#include <QStringList>

// Options for operators beyond the product's command line: "--dry-run", "--changed-only",
// "--batched", "--journal", "--verify", "--undo N", "--forget N", "--runs", "--verbose" (or
// "-v") and "--jobs N"; for the writing modes "--max-lag SECONDS", "--max-archive-backlog MB",
// "--pause-file PATH", "--pace PERCENT" and "--max-pause SECONDS" (each value also as
// "--name=value", the limits also "off"). Any other argument list keeps its old meaning
// (connect, change nothing).
struct OperatorOptions {
    RunMode mode = RunMode::SkipRepair;
    // --batched that records every change, resumable and undoable (--journal).
    bool journal = false;
    // A check of every row's jsonb cast, after the repair if there is one (--verify).
    bool verify = false;
    // The journaled run --undo or --forget works on.
    int run = 0;
    bool verbose = false;
    int jobs = 1;
    // What the writing modes spare the server.
    HealthLimits limits;
    // Set for a recognised list that cannot run as given: a job count that is not a number from
    // 1 to the pool size, a run that is not a number, options that exclude each other.
    QString error;
    // Set for an unrecognised list holding an argument that looks like a misspelt option: the
    // line that says so.
    QString misspelling;

    // arguments without the program name; poolSize is the configured connection pool. An
    // empty list is the product's pass.
    static OperatorOptions parse(const QStringList &arguments, int poolSize);
};
