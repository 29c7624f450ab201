#include "app/run/RunPlan.h"
#include "app/health/PauseGate.h"

#include <gtest/gtest.h>

#include <tuple>

namespace {

using Strategy = RunPlan::Strategy;
using Work = RunPlan::Work;
constexpr int kPool = 4;

// One step as the table writes it: the strategy, and whether it is the tool's (isolates faults,
// counts its work for the exit status, watches locks) and logs its progress.
struct StepCase {
    Strategy strategy;
    bool tools;
    bool progressToLog;
    // It writes: its sessions compress their WAL, and it spares the server.
    bool spares;
};

struct PlanCase {
    const char *name;
    const char *productRunMode;
    QStringList arguments;
    Work work;
    std::vector<StepCase> steps;
    // The tool's own sessions: its settings, entries on one line, a failed first connection said.
    bool toolSessions;
    bool readOnly;
};

class RunPlanTest : public testing::TestWithParam<PlanCase>
{
};

TEST_P(RunPlanTest, DecidesTheRunsWorkOnceFromItsCommandLine)
{
    const PlanCase &c = GetParam();
    const RunPlan plan = RunPlan::make(QString::fromLatin1(c.productRunMode), c.arguments, kPool);
    EXPECT_TRUE(plan.error.isEmpty()) << plan.error.toStdString();
    EXPECT_EQ(plan.work, c.work);
    ASSERT_EQ(plan.steps.size(), int(c.steps.size()));
    for (int i = 0; i < plan.steps.size(); ++i) {
        const RunPlan::Step &step = plan.steps[i];
        const StepCase &expected = c.steps[i];
        EXPECT_EQ(std::tuple(step.strategy, step.policy == FailurePolicy::IsolateAndRetry, step.watchLocks,
                      step.progressToLog, step.spares),
            std::tuple(expected.strategy, expected.tools, expected.tools, expected.progressToLog, expected.spares))
            << "step " << i;
    }
    EXPECT_EQ(plan.logEntriesOnOneLine, c.toolSessions);
    EXPECT_EQ(plan.connectionFailureOnConsole, c.toolSessions);
    EXPECT_EQ(!plan.sessionSettings.isEmpty(), c.toolSessions);
    EXPECT_EQ(plan.sessionSettings.contains(QStringLiteral("default_transaction_read_only=on")), c.readOnly);
}

INSTANTIATE_TEST_SUITE_P(CommandLines, RunPlanTest,
    testing::Values(PlanCase{"BareInvocationIsTheProductsPass", "normalize", {}, Work::Steps,
                        {{Strategy::ProductPass, false, false, false}}, false, false},
        PlanCase{
            "AnUnknownListOpensTheDatabaseAndChangesNothing", "", {"--repair-all"}, Work::Nothing, {}, false, false},
        PlanCase{"ChangedOnly", "", {"--changed-only"}, Work::Steps, {{Strategy::ChangedOnly, true, false, true}}, true,
            false},
        PlanCase{"BatchedLogsItsProgress", "", {"--batched", "--jobs", "2"}, Work::Steps,
            {{Strategy::Batched, true, true, true}}, true, false},
        PlanCase{"JournalIsAJournaledBatchedRun", "", {"--journal"}, Work::Steps,
            {{Strategy::Journaled, true, true, true}}, true, false},
        PlanCase{"VerifyFollowsTheRepair", "", {"--journal", "--verify"}, Work::Steps,
            {{Strategy::Journaled, true, true, true}, {Strategy::Verify, true, true, false}}, true, false},
        PlanCase{"VerifyAloneRepairsNothing", "", {"--verify"}, Work::Steps, {{Strategy::Verify, true, true, false}},
            true, false},
        PlanCase{"DryRunSessionsAreReadOnly", "", {"--dry-run"}, Work::Steps, {{Strategy::DryRun, true, false, false}},
            true, true},
        PlanCase{"Undo", "", {"--undo=3"}, Work::Steps, {{Strategy::Undo, true, true, true}}, true, false},
        PlanCase{"Runs", "", {"--runs"}, Work::ListRuns, {}, true, false},
        PlanCase{"Forget", "", {"--forget", "2"}, Work::Forget, {}, true, false}),
    [](const testing::TestParamInfo<PlanCase> &info) { return info.param.name; });

// The journal records the run's arguments as given.
TEST(RunPlan, KeepsTheCommandLineAsOneLine)
{
    EXPECT_EQ(
        RunPlan::make(QString(), {"--undo", "3", "--jobs=2"}, kPool).commandLine, QStringLiteral("--undo 3 --jobs=2"));
}

TEST(RunPlan, ALockWaitGivenForTestsBoundsTheToolsSessions)
{
    qputenv("ZENTRIX_LOCK_WAIT_MS", "250");
    const RunPlan plan = RunPlan::make(QString(), {"--batched"}, kPool);
    qunsetenv("ZENTRIX_LOCK_WAIT_MS");
    EXPECT_TRUE(plan.sessionSettings.contains(QStringLiteral("lock_timeout=250")));
    EXPECT_TRUE(
        RunPlan::make(QString(), {"--batched"}, kPool).sessionSettings.contains(QStringLiteral("lock_timeout=10000")));
}

// Under a pace the product's writers come first: shorter ranges, which a writer waits on less,
// and from --pace 10 down the shortest.
TEST(RunPlan, APacedRunTakesShorterUnits)
{
    EXPECT_EQ(RunPlan::make(QString(), {"--batched"}, kPool).unitTargetMs, UnitSizer::kTargetMs);
    EXPECT_EQ(RunPlan::make(QString(), {"--undo", "1", "--pace", "50"}, kPool).unitTargetMs, UnitSizer::kPacedTargetMs);
    EXPECT_EQ(RunPlan::make(QString(), {"--batched", "--pace", "11"}, kPool).unitTargetMs, UnitSizer::kPacedTargetMs);
    EXPECT_EQ(RunPlan::make(QString(), {"--journal", "--pace", "10"}, kPool).unitTargetMs, UnitSizer::kLightTargetMs);
}

} // namespace

// Kept by each connection after each unit: at pace P a connection works P% of the time.
TEST(Pace, RestsInProportionToEachUnitsTime)
{
    const struct {
        int pace;
        qint64 elapsedMs;
        qint64 restMs;
    } cases[] = {{100, 80, 0}, {75, 90, 30}, {50, 80, 80}, {25, 80, 240}, {1, 10, 990}};
    for (const auto &c : cases)
        EXPECT_EQ(PauseGate::restMs(c.elapsedMs, c.pace), c.restMs) << "pace " << c.pace;
}
