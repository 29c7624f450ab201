#include "app/run/OperatorOptions.h"

#include "app/run/OptionSpelling.h"

#include <QHash>

namespace {
const QString kDryRun = QStringLiteral("--dry-run");
const QString kChangedOnly = QStringLiteral("--changed-only");
const QString kBatched = QStringLiteral("--batched");
const QString kJournal = QStringLiteral("--journal");
const QString kVerify = QStringLiteral("--verify");
const QString kRuns = QStringLiteral("--runs");
const QString kUndo = QStringLiteral("--undo");
const QString kForget = QStringLiteral("--forget");
const QString kJobs = QStringLiteral("--jobs");
const QString kVerbose = QStringLiteral("--verbose");
const QString kVerboseShort = QStringLiteral("-v");
const QString kMaxLag = QStringLiteral("--max-lag");
const QString kMaxArchiveBacklog = QStringLiteral("--max-archive-backlog");
const QString kPauseFile = QStringLiteral("--pause-file");
const QString kPace = QStringLiteral("--pace");
const QString kMaxPause = QStringLiteral("--max-pause");
const QString kOff = QStringLiteral("off");
const QStringList kFlags = {kDryRun, kChangedOnly, kBatched, kJournal, kVerify, kRuns};
// What the writing modes spare the server.
const QStringList kHealth = {kMaxLag, kMaxArchiveBacklog, kPauseFile, kPace, kMaxPause};
// Options that take a value, as "--name value" or "--name=value".
const QStringList kValued = QStringList{kJobs, kUndo, kForget} + kHealth;

// The options as given, before they make a mode.
struct Given {
    QStringList flags;
    QHash<QString, QString> values;
    bool verbose = false;
};

// False for a list that is not the operator options alone: then it keeps its old meaning.
bool read(const QStringList &arguments, Given &given)
{
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments[i];
        const QString name = argument.section(QLatin1Char('='), 0, 0);
        if (kFlags.contains(argument) && !given.flags.contains(argument))
            given.flags << argument;
        else if ((argument == kVerbose || argument == kVerboseShort) && !given.verbose)
            given.verbose = true;
        else if (kValued.contains(argument) && !given.values.contains(argument))
            given.values.insert(argument, arguments.value(++i));
        else if (kValued.contains(name) && name != argument && !given.values.contains(name))
            given.values.insert(name, argument.mid(name.size() + 1));
        else
            return false;
    }
    return true;
}

// The one thing the options ask for, or an error naming two that exclude each other.
QString decide(const Given &given, OperatorOptions &options)
{
    QStringList asked;
    for (const QString &option : {kRuns, kUndo, kForget, kDryRun, kChangedOnly, kBatched, kJournal, kVerify}) {
        if (given.flags.contains(option) || given.values.contains(option))
            asked << option;
    }
    // The journal's commands stand alone; a count is no repair to verify.
    const QStringList alone = {kRuns, kUndo, kForget};
    for (const QString &option : alone) {
        if (asked.contains(option) && asked.size() > 1)
            return QStringLiteral("%1 cannot be combined with %2")
                .arg(option, asked.value(asked.first() == option ? 1 : 0));
    }
    if (asked.contains(kDryRun) && asked.contains(kVerify))
        return QStringLiteral("--verify checks the table after a repair, and --dry-run repairs nothing: use --verify "
                              "alone");
    const bool writes
        = asked.contains(kChangedOnly) || asked.contains(kBatched) || asked.contains(kJournal) || asked.contains(kUndo);
    for (const QString &option : kHealth) {
        if (given.values.contains(option) && !writes)
            return QStringLiteral("%1 spares the server while the tool writes: it goes with --changed-only, --batched, "
                                  "--journal or --undo")
                .arg(option);
    }
    options.journal = asked.contains(kJournal);
    options.verify = asked.contains(kVerify);
    if (asked.contains(kRuns))
        options.mode = RunMode::ListRuns;
    else if (asked.contains(kUndo))
        options.mode = RunMode::Undo;
    else if (asked.contains(kForget))
        options.mode = RunMode::Forget;
    else if (asked.contains(kDryRun))
        options.mode = RunMode::DryRun;
    else if (asked.contains(kBatched) || options.journal)
        options.mode = RunMode::Batched;
    else if (asked.contains(kChangedOnly))
        options.mode = RunMode::ChangedOnly;
    else if (options.verify)
        options.mode = RunMode::VerifyOnly;
    else
        options.mode = RunMode::Repair;
    return QString();
}

QString misspellingOf(const QStringList &arguments)
{
    static const QStringList options = kFlags + kValued + QStringList{kVerbose};
    for (const QString &argument : arguments) {
        const QString option = OptionSpelling::resembled(argument, options);
        if (!option.isEmpty())
            return QStringLiteral("\"%1\" is not an option of this tool; %2 is. The run opens the database and "
                                  "skips the repair, as it does for any argument it does not know.")
                .arg(argument, option);
    }
    return QString();
}

// A limit in whole units from 1 up, or "off" (0).
QString limitError(const QString &option, const QString &text, const QString &unit, int &limit)
{
    bool ok = false;
    const int number = text.toInt(&ok);
    if (text == kOff) {
        limit = 0;
        return QString();
    }
    if (!ok || number < 1)
        return QStringLiteral("%1 needs a number of %2 from 1 up, or \"off\", not \"%3\"").arg(option, unit, text);
    limit = number;
    return QString();
}

QString healthError(const QHash<QString, QString> &values, HealthLimits &limits)
{
    QString error;
    if (values.contains(kMaxLag))
        error = limitError(kMaxLag, values.value(kMaxLag), QStringLiteral("seconds"), limits.maxLagSeconds);
    if (error.isEmpty() && values.contains(kMaxArchiveBacklog))
        error = limitError(
            kMaxArchiveBacklog, values.value(kMaxArchiveBacklog), QStringLiteral("MB"), limits.maxArchiveBacklogMb);
    if (error.isEmpty() && values.contains(kMaxPause))
        error = limitError(kMaxPause, values.value(kMaxPause), QStringLiteral("seconds"), limits.maxPauseSeconds);
    if (!error.isEmpty())
        return error;
    if (values.contains(kPace)) {
        bool ok = false;
        limits.pacePercent = values.value(kPace).toInt(&ok);
        if (!ok || limits.pacePercent < 1 || limits.pacePercent > 100)
            return QStringLiteral("--pace needs the share of time each connection works, a number from 1 to 100, not "
                                  "\"%1\"")
                .arg(values.value(kPace));
    }
    if (values.contains(kPauseFile)) {
        limits.pauseFile = values.value(kPauseFile);
        if (limits.pauseFile.isEmpty())
            return QStringLiteral("--pause-file needs the path of a file whose presence pauses the run");
    }
    return QString();
}

QString numberError(const QString &option, const QString &text, int most, int &number)
{
    bool ok = false;
    number = text.toInt(&ok);
    if (option == kJobs && (!ok || number < 1 || number > most))
        return QStringLiteral("--jobs needs a number from 1 to %1 (the connection pool, internal/db_connection), "
                              "not \"%2\"")
            .arg(most)
            .arg(text);
    if (option != kJobs && (!ok || number < 1))
        return QStringLiteral("%1 needs the number of a journaled run (--runs lists them), not \"%2\"")
            .arg(option, text);
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
    options.verbose = given.verbose;
    options.error = decide(given, options);
    for (const QString &option : {kJobs, kUndo, kForget}) {
        if (!options.error.isEmpty() || !given.values.contains(option))
            continue;
        options.error
            = numberError(option, given.values.value(option), poolSize, option == kJobs ? options.jobs : options.run);
    }
    if (options.error.isEmpty())
        options.error = healthError(given.values, options.limits);
    return options;
}
