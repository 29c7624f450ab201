#include "app/run/OperatorOptions.h"

#include "support/QtPrinters.h"

#include <gtest/gtest.h>

#include <ostream>
#include <tuple>

void PrintTo(RunMode mode, std::ostream *os)
{
    static const char *const names[]
        = {"Repair", "ChangedOnly", "Batched", "DryRun", "Undo", "ListRuns", "Forget", "VerifyOnly", "SkipRepair"};
    *os << names[static_cast<int>(mode)];
}

namespace {

// Not the product's default of 10, so that a bound that does not come from the pool shows.
constexpr int kPool = 4;

enum Flags { None = 0, Journal = 1, Verify = 2, Verbose = 4 };

OperatorOptions accepted(RunMode mode, int flags = None, int jobs = 1, int run = 0)
{
    OperatorOptions options;
    options.mode = mode;
    options.journal = flags & Journal;
    options.verify = flags & Verify;
    options.verbose = flags & Verbose;
    options.jobs = jobs;
    options.run = run;
    return options;
}

OperatorOptions spared(RunMode mode, int flags, int maxLag, int backlog, int pace, int maxPause, const char *pauseFile)
{
    OperatorOptions options = accepted(mode, flags, 1, mode == RunMode::Undo ? 1 : 0);
    options.limits = {maxLag, backlog, QString::fromLatin1(pauseFile), pace, maxPause};
    return options;
}

// The line the run says, on the console and in the run log, before it ends with status 1.
OperatorOptions refused(const QString &error)
{
    OperatorOptions options;
    options.error = error;
    return options;
}

// Any list that is not the operator's options alone keeps the product's meaning (connect, change
// nothing); an argument that looks like a misspelt option is named, with the option it resembles.
OperatorOptions unrecognised(const QString &misspelt = QString(), const QString &meant = QString())
{
    OperatorOptions options;
    if (!misspelt.isEmpty())
        options.misspelling = QStringLiteral("\"%1\" is not an option of this tool; %2 is. The run opens the database "
                                             "and skips the repair, as it does for any argument it does not know.")
                                  .arg(misspelt, meant);
    return options;
}

struct Case {
    const char *name;
    QStringList arguments;
    OperatorOptions expected;
};

class OperatorOptionsTest : public testing::TestWithParam<Case>
{
};

// What the run is given to do, but the texts.
auto settingsOf(const OperatorOptions &options)
{
    const HealthLimits &limits = options.limits;
    return std::tuple(options.mode, options.journal, options.verify, options.verbose, options.jobs, options.run,
        limits.maxLagSeconds, limits.maxArchiveBacklogMb, limits.pauseFile, limits.pacePercent, limits.maxPauseSeconds);
}

TEST_P(OperatorOptionsTest, ReadsTheListAsTheOperatorMeantIt)
{
    const OperatorOptions &expected = GetParam().expected;
    const OperatorOptions options = OperatorOptions::parse(GetParam().arguments, kPool);
    EXPECT_EQ(options.error, expected.error);
    EXPECT_EQ(options.misspelling, expected.misspelling);
    // A refused list runs nothing, whatever else it asked for.
    if (expected.error.isEmpty()) {
        EXPECT_EQ(settingsOf(options), settingsOf(expected));
    }
}

const auto kName = [](const testing::TestParamInfo<Case> &info) { return std::string(info.param.name); };

INSTANTIATE_TEST_SUITE_P(Accepted, OperatorOptionsTest,
    testing::Values(Case{"NoneIsTheProductsPass", {}, accepted(RunMode::Repair)},
        Case{"DryRun", {"--dry-run"}, accepted(RunMode::DryRun)},
        Case{"ChangedOnly", {"--changed-only"}, accepted(RunMode::ChangedOnly)},
        Case{"Batched", {"--batched"}, accepted(RunMode::Batched)},
        Case{"JournalIsABatchedRepair", {"--journal"}, accepted(RunMode::Batched, Journal)},
        Case{"VerifyAlone", {"--verify"}, accepted(RunMode::VerifyOnly, Verify)},
        Case{"VerifyAfterAJournal", {"--journal", "--verify", "--batched"},
            accepted(RunMode::Batched, Journal | Verify)},
        Case{"Runs", {"--runs"}, accepted(RunMode::ListRuns)},
        Case{"UndoApart", {"--undo", "3"}, accepted(RunMode::Undo, None, 1, 3)},
        Case{"ForgetJoined", {"--forget=12"}, accepted(RunMode::Forget, None, 1, 12)},
        // Jobs alone keep the product's pass, on several connections.
        Case{"AsManyJobsAsThePool", {"--jobs=4"}, accepted(RunMode::Repair, None, kPool)},
        Case{"JobsBeforeAMode", {"--jobs", "2", "--changed-only"}, accepted(RunMode::ChangedOnly, None, 2)},
        Case{"Verbose", {"--verbose"}, accepted(RunMode::Repair, Verbose)},
        Case{"VerboseAmongOthers", {"--batched", "-v", "--jobs", "2"}, accepted(RunMode::Batched, Verbose, 2)},
        Case{"LimitsApartAndJoined",
            {"--journal", "--max-lag", "5", "--max-archive-backlog=200", "--pace", "50", "--max-pause=60",
                "--pause-file", "/run/pause"},
            spared(RunMode::Batched, Journal, 5, 200, 50, 60, "/run/pause")},
        Case{"LimitsOff", {"--undo", "1", "--max-lag", "off", "--max-archive-backlog", "off", "--max-pause=off"},
            spared(RunMode::Undo, None, 0, 0, 100, 0, "")}),
    kName);

INSTANTIATE_TEST_SUITE_P(Refused, OperatorOptionsTest,
    testing::Values(
        Case{"NoJobs", {"--jobs", "0"},
            refused("--jobs needs a number from 1 to 4 (the connection pool, internal/db_connection), not \"0\"")},
        Case{"MoreJobsThanThePool", {"--jobs=5"},
            refused("--jobs needs a number from 1 to 4 (the connection pool, internal/db_connection), not \"5\"")},
        Case{"JobsWithoutAValue", {"--jobs"},
            refused("--jobs needs a number from 1 to 4 (the connection pool, internal/db_connection), not \"\"")},
        Case{"UndoZero", {"--undo=0"},
            refused("--undo needs the number of a journaled run (--runs lists them), not \"0\"")},
        Case{"ForgetWithoutARun", {"--forget"},
            refused("--forget needs the number of a journaled run (--runs lists them), not \"\"")},
        Case{"RunsAndUndo", {"--undo", "1", "--runs"}, refused("--runs cannot be combined with --undo")},
        Case{"UndoAndARepair", {"--batched", "--undo=1"}, refused("--undo cannot be combined with --batched")},
        Case{"ForgetAndVerify", {"--verify", "--forget=1"}, refused("--forget cannot be combined with --verify")},
        Case{"ExclusionBeforeTheRunsNumber", {"--undo", "x", "--batched"},
            refused("--undo cannot be combined with --batched")},
        Case{"DryRunAndVerify", {"--verify", "--dry-run"},
            refused("--verify checks the table after a repair, and --dry-run repairs nothing: use --verify alone")},
        Case{"ALimitOfAModeThatWritesNothing", {"--dry-run", "--pace", "50"},
            refused("--pace spares the server while the tool writes: it goes with --changed-only, --batched, "
                    "--journal or --undo")},
        Case{"LagNotANumber", {"--changed-only", "--max-lag", "soon"},
            refused("--max-lag needs a number of seconds from 1 up, or \"off\", not \"soon\"")},
        Case{"BacklogZero", {"--batched", "--max-archive-backlog=0"},
            refused("--max-archive-backlog needs a number of MB from 1 up, or \"off\", not \"0\"")},
        Case{"PaceAboveAll", {"--batched", "--pace=101"},
            refused("--pace needs the share of time each connection works, a number from 1 to 100, not \"101\"")},
        Case{"PauseFileEmpty", {"--batched", "--pause-file="},
            refused("--pause-file needs the path of a file whose presence pauses the run")}),
    kName);

INSTANTIATE_TEST_SUITE_P(Unrecognised, OperatorOptionsTest,
    testing::Values(Case{"HelpWithMore", {"--help", "x"}, unrecognised()},
        Case{"AnOptionWithMore", {"--batched", "extra"}, unrecognised()},
        Case{"ThreeEditsAway", {"--batxhxx"}, unrecognised()}, Case{"TwoEditsOfAShortName", {"--rxnx"}, unrecognised()},
        Case{"ASingleDash", {"-batchd"}, unrecognised()},
        Case{"ARepeatedFlag", {"--batched", "--batched"}, unrecognised()},
        Case{"VerboseTwice", {"-v", "--verbose"}, unrecognised()},
        Case{"JobsTwice", {"--jobs", "2", "--jobs", "3"}, unrecognised()},
        Case{"Capitals", {"--BATCHED"}, unrecognised("--BATCHED", "--batched")},
        Case{"ALongCut", {"--chang"}, unrecognised("--chang", "--changed-only")},
        Case{"AnUnderscore", {"--changed_only"}, unrecognised("--changed_only", "--changed-only")},
        Case{"AValuedOptionCut", {"--job=2"}, unrecognised("--job=2", "--jobs")},
        Case{"AFlagGivenAValue", {"--dry-run=yes"}, unrecognised("--dry-run=yes", "--dry-run")},
        Case{"AmongGoodOptions", {"--jobs", "2", "--jurnal"}, unrecognised("--jurnal", "--journal")},
        Case{"TheFirstOfTwo", {"--vrify", "--batchd"}, unrecognised("--vrify", "--verify")}),
    kName);

} // namespace
