#include "app/run/OperatorOptions.h"

namespace {
const QString kDryRun = QStringLiteral("--dry-run");
const QString kChangedOnly = QStringLiteral("--changed-only");
const QString kBatched = QStringLiteral("--batched");
const QString kJobs = QStringLiteral("--jobs");
const QString kJobsGnu = QStringLiteral("--jobs=");
const QStringList kVerbose = {QStringLiteral("--verbose"), QStringLiteral("-v")};
} // namespace

OperatorOptions OperatorOptions::parse(const QStringList &arguments, int poolSize)
{
    OperatorOptions options;
    bool jobsGiven = false;
    QString jobsText;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments[i];
        if (argument == kDryRun && !options.dryRun) {
            options.dryRun = true;
        } else if (argument == kChangedOnly && !options.changedOnly) {
            options.changedOnly = true;
        } else if (argument == kBatched && !options.batched) {
            options.batched = true;
        } else if (kVerbose.contains(argument) && !options.verbose) {
            options.verbose = true;
        } else if (argument == kJobs && !jobsGiven) {
            jobsGiven = true;
            jobsText = arguments.value(++i);
        } else if (argument.startsWith(kJobsGnu) && !jobsGiven) {
            jobsGiven = true;
            jobsText = argument.mid(kJobsGnu.size());
        } else {
            return OperatorOptions();
        }
    }
    options.recognised = options.dryRun || options.changedOnly || options.batched || options.verbose || jobsGiven;
    // Batches write only the rows that change, as --changed-only does.
    options.changedOnly = options.changedOnly || options.batched;
    if (!jobsGiven)
        return options;
    bool ok = false;
    options.jobs = jobsText.toInt(&ok);
    if (!ok || options.jobs < 1 || options.jobs > poolSize)
        options.error
            = QStringLiteral("--jobs needs a number from 1 to %1 (the connection pool, internal/db_connection), "
                             "not \"%2\"")
                  .arg(poolSize)
                  .arg(jobsText);
    return options;
}
