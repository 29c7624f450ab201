#include "app/run/OperatorOptions.h"

#include "support/QtPrinters.h"

#include <gtest/gtest.h>

#include <ostream>

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

template <typename Case> std::string nameOf(const testing::TestParamInfo<Case> &info)
{
    return info.param.name;
}

struct Accepted {
    const char *name;
    QStringList arguments;
    RunMode mode;
    int flags = None;
    int jobs = 1;
    int run = 0;
};

void PrintTo(const Accepted &c, std::ostream *os)
{
    *os << c.name;
}

class AcceptedOptions : public testing::TestWithParam<Accepted>
{
};

TEST_P(AcceptedOptions, GiveTheModeAndSettingsTheyAskFor)
{
    const Accepted &c = GetParam();
    const OperatorOptions options = OperatorOptions::parse(c.arguments, kPool);
    EXPECT_EQ(options.error, QString());
    EXPECT_EQ(options.misspelling, QString());
    EXPECT_EQ(options.mode, c.mode);
    EXPECT_EQ(options.journal, (c.flags & Journal) != 0);
    EXPECT_EQ(options.verify, (c.flags & Verify) != 0);
    EXPECT_EQ(options.verbose, (c.flags & Verbose) != 0);
    EXPECT_EQ(options.jobs, c.jobs);
    EXPECT_EQ(options.run, c.run);
}

INSTANTIATE_TEST_SUITE_P(Lists, AcceptedOptions,
    testing::Values(Accepted{"NoneIsTheProductsPass", {}, RunMode::Repair},
        Accepted{"DryRun", {"--dry-run"}, RunMode::DryRun},
        Accepted{"ChangedOnly", {"--changed-only"}, RunMode::ChangedOnly},
        Accepted{"Batched", {"--batched"}, RunMode::Batched},
        Accepted{"JournalIsABatchedRepair", {"--journal"}, RunMode::Batched, Journal},
        Accepted{"VerifyAlone", {"--verify"}, RunMode::VerifyOnly, Verify},
        Accepted{"VerifyAfterChangedOnly", {"--verify", "--changed-only"}, RunMode::ChangedOnly, Verify},
        Accepted{"VerifyAfterAJournal", {"--journal", "--verify", "--batched"}, RunMode::Batched, Journal | Verify},
        Accepted{"Runs", {"--runs"}, RunMode::ListRuns},
        Accepted{"UndoApart", {"--undo", "3"}, RunMode::Undo, None, 1, 3},
        Accepted{"UndoJoined", {"--undo=3"}, RunMode::Undo, None, 1, 3},
        Accepted{"ForgetApart", {"--forget", "2"}, RunMode::Forget, None, 1, 2},
        Accepted{"ForgetJoined", {"--forget=12"}, RunMode::Forget, None, 1, 12},
        // Jobs alone keep the product's pass, on several connections.
        Accepted{"JobsApart", {"--jobs", "2"}, RunMode::Repair, None, 2},
        Accepted{"JobsJoined", {"--jobs=3"}, RunMode::Repair, None, 3},
        Accepted{"OneJob", {"--jobs", "1"}, RunMode::Repair, None, 1},
        Accepted{"AsManyJobsAsThePool", {"--jobs=4"}, RunMode::Repair, None, kPool},
        Accepted{"JobsBeforeAMode", {"--jobs", "2", "--changed-only"}, RunMode::ChangedOnly, None, 2},
        Accepted{"UndoOnJobs", {"--undo", "7", "--jobs=2"}, RunMode::Undo, None, 2, 7},
        Accepted{"Verbose", {"--verbose"}, RunMode::Repair, Verbose},
        Accepted{"VerboseShort", {"-v"}, RunMode::Repair, Verbose},
        Accepted{"VerboseAmongOthers", {"--batched", "-v", "--jobs", "2"}, RunMode::Batched, Verbose, 2}),
    nameOf<Accepted>);

// The line the run says, on the console and in the run log, before it ends with status 1.
QString jobsRefused(const QString &given)
{
    return QStringLiteral("--jobs needs a number from 1 to 4 (the connection pool, internal/db_connection), not \"%1\"")
        .arg(given);
}
QString runRefused(const QString &option, const QString &given)
{
    return QStringLiteral("%1 needs the number of a journaled run (--runs lists them), not \"%2\"").arg(option, given);
}
QString excluded(const QString &option, const QString &other)
{
    return QStringLiteral("%1 cannot be combined with %2").arg(option, other);
}
const QString kDryRunVerify
    = QStringLiteral("--verify checks the table after a repair, and --dry-run repairs nothing: use --verify alone");

struct Refused {
    const char *name;
    QStringList arguments;
    QString error;
};

void PrintTo(const Refused &c, std::ostream *os)
{
    *os << c.name;
}

class RefusedOptions : public testing::TestWithParam<Refused>
{
};

TEST_P(RefusedOptions, SayWhyTheyCannotRun)
{
    const OperatorOptions options = OperatorOptions::parse(GetParam().arguments, kPool);
    EXPECT_EQ(options.error, GetParam().error);
    EXPECT_EQ(options.misspelling, QString());
}

INSTANTIATE_TEST_SUITE_P(Lists, RefusedOptions,
    testing::Values(Refused{"NoJobs", {"--jobs", "0"}, jobsRefused("0")},
        Refused{"MoreJobsThanThePool", {"--jobs=5"}, jobsRefused("5")},
        Refused{"JobsNotANumber", {"--jobs", "x"}, jobsRefused("x")},
        Refused{"JobsNegative", {"--jobs=-1"}, jobsRefused("-1")},
        Refused{"JobsAFraction", {"--jobs", "2.5"}, jobsRefused("2.5")},
        Refused{"JobsWithoutAValue", {"--jobs"}, jobsRefused("")},
        Refused{"JobsWithAnEmptyValue", {"--jobs="}, jobsRefused("")},
        Refused{"JobsOfAMode", {"--changed-only", "--jobs", "9"}, jobsRefused("9")},
        Refused{"UndoNotANumber", {"--undo", "x"}, runRefused("--undo", "x")},
        Refused{"UndoZero", {"--undo=0"}, runRefused("--undo", "0")},
        Refused{"ForgetNegative", {"--forget", "-2"}, runRefused("--forget", "-2")},
        Refused{"ForgetWithoutARun", {"--forget"}, runRefused("--forget", "")},
        // The value is whatever follows, even an option.
        Refused{"UndoTakingAnOptionForItsRun", {"--undo", "--batched"}, runRefused("--undo", "--batched")},
        Refused{"RunsAndUndo", {"--undo", "1", "--runs"}, excluded("--runs", "--undo")},
        Refused{"RunsAndDryRun", {"--runs", "--dry-run"}, excluded("--runs", "--dry-run")},
        Refused{"UndoAndARepair", {"--batched", "--undo=1"}, excluded("--undo", "--batched")},
        Refused{"UndoAndForget", {"--forget", "1", "--undo", "1"}, excluded("--undo", "--forget")},
        Refused{"ForgetAndVerify", {"--verify", "--forget=1"}, excluded("--forget", "--verify")},
        Refused{"ForgetAndJournal", {"--forget=1", "--journal"}, excluded("--forget", "--journal")},
        Refused{"DryRunAndVerify", {"--verify", "--dry-run"}, kDryRunVerify},
        Refused{"ExclusionBeforeTheRunsNumber", {"--undo", "x", "--batched"}, excluded("--undo", "--batched")}),
    nameOf<Refused>);

// Any list that is not the operator's options alone keeps the product's meaning: connect, change nothing.
struct Unrecognised {
    const char *name;
    QStringList arguments;
    // The argument said to be misspelt and the option it resembles; none for an argument of no resemblance.
    QString misspelt = QString();
    QString meant = QString();
};

void PrintTo(const Unrecognised &c, std::ostream *os)
{
    *os << c.name;
}

class UnrecognisedArguments : public testing::TestWithParam<Unrecognised>
{
};

TEST_P(UnrecognisedArguments, SkipTheRepairNamingAnOptionTheyResemble)
{
    const Unrecognised &c = GetParam();
    const OperatorOptions options = OperatorOptions::parse(c.arguments, kPool);
    EXPECT_EQ(options.mode, RunMode::SkipRepair);
    EXPECT_EQ(options.error, QString());
    EXPECT_EQ(options.misspelling,
        c.misspelt.isEmpty() ? QString()
                             : QStringLiteral("\"%1\" is not an option of this tool; %2 is. The run opens the database "
                                              "and skips the repair, as it does for any argument it does not know.")
                                   .arg(c.misspelt, c.meant));
}

INSTANTIATE_TEST_SUITE_P(Lists, UnrecognisedArguments,
    testing::Values(Unrecognised{"AShortOption", {"-H"}}, Unrecognised{"AWord", {"help"}},
        Unrecognised{"HelpWithMore", {"--help", "x"}}, Unrecognised{"TwoWords", {"a", "b"}},
        Unrecognised{"AnOptionWithMore", {"--batched", "extra"}},
        Unrecognised{"AnOptionOfNoResemblance", {"--version"}}, Unrecognised{"ThreeEditsAway", {"--batxhxx"}},
        Unrecognised{"TwoEditsOfAShortName", {"--rxnx"}}, Unrecognised{"ASingleDash", {"-batchd"}},
        Unrecognised{"ARepeatedFlag", {"--batched", "--batched"}}, Unrecognised{"VerboseTwice", {"-v", "--verbose"}},
        Unrecognised{"JobsTwice", {"--jobs", "2", "--jobs", "3"}},
        Unrecognised{"UndoTwice", {"--undo", "1", "--undo", "2"}},
        Unrecognised{"ALetterDropped", {"--batchd"}, "--batchd", "--batched"},
        Unrecognised{"Capitals", {"--BATCHED"}, "--BATCHED", "--batched"},
        Unrecognised{"ACut", {"--batch"}, "--batch", "--batched"},
        Unrecognised{"ALongCut", {"--chang"}, "--chang", "--changed-only"},
        Unrecognised{"AnUnderscore", {"--changed_only"}, "--changed_only", "--changed-only"},
        Unrecognised{"LettersSwapped", {"--verbsoe"}, "--verbsoe", "--verbose"},
        Unrecognised{"ALetterAdded", {"--dryy-run"}, "--dryy-run", "--dry-run"},
        Unrecognised{"AValuedOptionCut", {"--job=2"}, "--job=2", "--jobs"},
        Unrecognised{"AValuedOptionBeforeItsValue", {"--udno", "1"}, "--udno", "--undo"},
        Unrecognised{"AFlagGivenAValue", {"--dry-run=yes"}, "--dry-run=yes", "--dry-run"},
        Unrecognised{"AmongGoodOptions", {"--jobs", "2", "--jurnal"}, "--jurnal", "--journal"},
        Unrecognised{"TheFirstOfTwo", {"--vrify", "--batchd"}, "--vrify", "--verify"}),
    nameOf<Unrecognised>);

} // namespace
