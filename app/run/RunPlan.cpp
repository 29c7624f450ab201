#include "app/run/RunPlan.h"

#include "app/repair/BatchedRepair.h"
#include "app/repair/ChangedOnlyRepair.h"
#include "app/repair/DryRunCount.h"
#include "app/repair/NormalizationPass.h"
#include "app/repair/UndoRepair.h"
#include "app/repair/VerifyCheck.h"
#include "app/run/OperatorOptions.h"

namespace {
// The tool's own sessions are bound by nothing the role or the database sets for the
// product's sessions; the tool bounds its lock waits itself, and retries.
constexpr int kLockWaitLimitMs = 10000;
// Overrides kLockWaitLimitMs, for tests.
const char *const kLockWaitVariable = "ZENTRIX_LOCK_WAIT_MS";

QStringList toolSessionSettings(bool readOnly)
{
    bool ok = false;
    const int lockWait = qEnvironmentVariable(kLockWaitVariable).toInt(&ok);
    // The server's notices (a schema that exists already) are no line of the run's.
    QStringList settings = {QStringLiteral("statement_timeout=0"),
        QStringLiteral("lock_timeout=%1").arg(ok && lockWait > 0 ? lockWait : kLockWaitLimitMs),
        QStringLiteral("idle_in_transaction_session_timeout=0"), QStringLiteral("client_min_messages=warning")};
    // The server itself refuses any write of a counting session.
    if (readOnly)
        settings << QStringLiteral("default_transaction_read_only=on");
    return settings;
}

RunPlan::Step productStep()
{
    return {RunPlan::Strategy::ProductPass, FailurePolicy::ReportAndGoOn, false, false, false};
}

RunPlan::Step toolStep(RunPlan::Strategy strategy, bool progressToLog, bool writes)
{
    return {strategy, FailurePolicy::IsolateAndRetry, progressToLog, true, writes};
}

// The tool's modes as steps: the repair (or count, or undo), then the verification when asked.
QVector<RunPlan::Step> toolSteps(const OperatorOptions &options)
{
    QVector<RunPlan::Step> steps;
    switch (options.mode) {
    case RunMode::ChangedOnly:
        steps << toolStep(RunPlan::Strategy::ChangedOnly, false, true);
        break;
    case RunMode::Batched:
        steps << toolStep(options.journal ? RunPlan::Strategy::Journaled : RunPlan::Strategy::Batched, true, true);
        break;
    case RunMode::DryRun:
        steps << toolStep(RunPlan::Strategy::DryRun, false, false);
        break;
    case RunMode::Undo:
        steps << toolStep(RunPlan::Strategy::Undo, true, true);
        break;
    default:
        break;
    }
    if (options.verify)
        steps << toolStep(RunPlan::Strategy::Verify, true, false);
    return steps;
}

RunPlan::Work workOf(RunMode mode)
{
    switch (mode) {
    case RunMode::SkipRepair:
        return RunPlan::Work::Nothing;
    case RunMode::ListRuns:
        return RunPlan::Work::ListRuns;
    case RunMode::Forget:
        return RunPlan::Work::Forget;
    default:
        return RunPlan::Work::Steps;
    }
}
} // namespace

RunPlan RunPlan::make(const QString &productRunMode, const QStringList &arguments, int poolSize)
{
    RunPlan plan;
    plan.commandLine = arguments.join(QLatin1Char(' '));
    if (!productRunMode.isEmpty()) {
        plan.work = Work::Steps;
        plan.steps << productStep();
        return plan;
    }
    const OperatorOptions options = OperatorOptions::parse(arguments, poolSize);
    plan.error = options.error;
    plan.misspelling = options.misspelling;
    plan.jobs = options.jobs;
    plan.limits = options.limits;
    plan.paced = plan.limits.pacePercent < HealthLimits::kFullPace;
    if (plan.paced)
        plan.unitTargetMs
            = plan.limits.pacePercent <= UnitSizer::kLightPace ? UnitSizer::kLightTargetMs : UnitSizer::kPacedTargetMs;
    plan.run = options.run;
    plan.verbose = options.verbose;
    plan.work = workOf(options.mode);
    if (options.mode == RunMode::Repair) {
        plan.steps << productStep();
        return plan;
    }
    if (options.mode == RunMode::SkipRepair)
        return plan;
    plan.steps = toolSteps(options);
    plan.sessionSettings = toolSessionSettings(options.mode == RunMode::DryRun);
    plan.logEntriesOnOneLine = true;
    plan.connectionFailureOnConsole = true;
    return plan;
}

std::unique_ptr<RepairStrategy> RunPlan::strategyFor(const Step &step, const StrategyContext &context) const
{
    switch (step.strategy) {
    case Strategy::ProductPass:
        return std::make_unique<NormalizationPass>(context);
    case Strategy::ChangedOnly:
        return std::make_unique<ChangedOnlyRepair>(context);
    case Strategy::Batched:
        return std::make_unique<BatchedRepair>(context, false, commandLine, unitTargetMs);
    case Strategy::Journaled:
        return std::make_unique<BatchedRepair>(context, true, commandLine, unitTargetMs);
    case Strategy::DryRun:
        return std::make_unique<DryRunCount>(context);
    case Strategy::Undo:
        return std::make_unique<UndoRepair>(context, run, unitTargetMs);
    case Strategy::Verify:
        return std::make_unique<VerifyCheck>(context);
    }
    return nullptr;
}
