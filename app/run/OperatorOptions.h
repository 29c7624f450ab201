#pragma once

#include "app/run/RunMode.h"

#include <QString>
#include <QStringList>

// Options for operators beyond the product's command line: "--dry-run", "--changed-only",
// "--batched", "--verbose" (or "-v") and "--jobs N" (or "--jobs=N"), alone or together. Any other
// argument list keeps its old meaning (connect, change nothing).
struct OperatorOptions {
    RunMode mode = RunMode::SkipRepair;
    bool verbose = false;
    int jobs = 1;
    // Set for a recognised list whose job count is not a number from 1 to the pool size.
    QString error;
    // Set for an unrecognised list holding an argument that looks like a misspelt option: the
    // line that says so.
    QString misspelling;

    // arguments without the program name; poolSize is the configured connection pool. An
    // empty list is the product's pass.
    static OperatorOptions parse(const QStringList &arguments, int poolSize);
};
