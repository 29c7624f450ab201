#pragma once

#include <QString>
#include <QStringList>

// Options for operators beyond the product's command line: "--dry-run", "--changed-only",
// "--batched", "--verbose" (or "-v") and "--jobs N" (or "--jobs=N"), alone or together. Any other argument list keeps
// its old meaning (connect, change nothing).
struct OperatorOptions {
    bool recognised = false;
    bool dryRun = false;
    bool changedOnly = false;
    // Implies changedOnly.
    bool batched = false;
    bool verbose = false;
    int jobs = 1;
    // Set for a recognised list whose job count is not a number from 1 to the pool size.
    QString error;

    // arguments without the program name; poolSize is the configured connection pool.
    static OperatorOptions parse(const QStringList &arguments, int poolSize);
};
