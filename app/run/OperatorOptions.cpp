#include "app/run/OperatorOptions.h"

#include "app/run/OptionSpelling.h"

namespace {
const QString kDryRun = QStringLiteral("--dry-run");
const QString kChangedOnly = QStringLiteral("--changed-only");
const QString kBatched = QStringLiteral("--batched");
const QString kJobs = QStringLiteral("--jobs");
const QString kJobsGnu = QStringLiteral("--jobs=");
const QString kVerbose = QStringLiteral("--verbose");
const QString kVerboseShort = QStringLiteral("-v");

// The flags as given, before they make a mode.
struct Given {
    bool dryRun = false;
    bool changedOnly = false;
    bool batched = false;
    bool verbose = false;
    bool jobs = false;
    QString jobsText;
};

// False for a list that is not the operator options alone: then it keeps its old meaning.
bool read(const QStringList &arguments, Given &given)
{
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments[i];
        if (argument == kDryRun && !given.dryRun)
            given.dryRun = true;
        else if (argument == kChangedOnly && !given.changedOnly)
            given.changedOnly = true;
        else if (argument == kBatched && !given.batched)
            given.batched = true;
        else if ((argument == kVerbose || argument == kVerboseShort) && !given.verbose)
            given.verbose = true;
        else if (argument == kJobs && !given.jobs) {
            given.jobs = true;
            given.jobsText = arguments.value(++i);
        } else if (argument.startsWith(kJobsGnu) && !given.jobs) {
            given.jobs = true;
            given.jobsText = argument.mid(kJobsGnu.size());
        } else
            return false;
    }
    return true;
}

RunMode modeOf(const Given &given)
{
    if (given.dryRun)
        return RunMode::DryRun;
    if (given.batched)
        return RunMode::Batched;
    if (given.changedOnly)
        return RunMode::ChangedOnly;
    return RunMode::Repair;
}

QString misspellingOf(const QStringList &arguments)
{
    static const QStringList options = {kDryRun, kChangedOnly, kBatched, kJobs, kVerbose};
    for (const QString &argument : arguments) {
        const QString option = OptionSpelling::resembled(argument, options);
        if (!option.isEmpty())
            return QStringLiteral("\"%1\" is not an option of this tool; %2 is. The run opens the database and "
                                  "skips the repair, as it does for any argument it does not know.")
                .arg(argument, option);
    }
    return QString();
}
} // namespace

OperatorOptions OperatorOptions::parse(const QStringList &arguments, int poolSize)
{
    OperatorOptions options;
    if (arguments.isEmpty()) {
        options.mode = RunMode::Repair;
        return options;
    }
    Given given;
    if (!read(arguments, given)) {
        options.misspelling = misspellingOf(arguments);
        return options;
    }
    options.mode = modeOf(given);
    options.verbose = given.verbose;
    if (!given.jobs)
        return options;
    bool ok = false;
    options.jobs = given.jobsText.toInt(&ok);
    if (!ok || options.jobs < 1 || options.jobs > poolSize)
        options.error
            = QStringLiteral("--jobs needs a number from 1 to %1 (the connection pool, internal/db_connection), "
                             "not \"%2\"")
                  .arg(poolSize)
                  .arg(given.jobsText);
    return options;
}
