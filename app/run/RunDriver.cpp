#include "app/run/RunDriver.h"

#include "app/health/PauseGate.h"
#include "app/health/ServerHealth.h"
#include "app/health/SessionLoad.h"
#include "app/health/WalCompression.h"
#include "app/journal/JournalCommands.h"
#include "app/journal/RunJournal.h"
#include "app/output/Console.h"
#include "app/output/Progress.h"
#include "app/output/Reporter.h"
#include "app/output/RunLog.h"
#include "app/output/Terminal.h"
#include "app/output/VerboseLog.h"
#include "app/repair/RepairEngine.h"
#include "app/repair/RepairStrategy.h"
#include "app/repair/RunTally.h"
#include "app/repair/StrategyContext.h"
#include "app/run/ConfigurationReader.h"
#include "app/run/Interrupts.h"
#include "app/run/ProgramVersion.h"
#include "app/run/RunLock.h"
#include "app/run/StatementCanceller.h"
#include "config/exceptions/Exception.h"
#include "config/loader/DeploymentIdPrefix.h"
#include "core/PostgresService.h"

#include <QCoreApplication>
#include <QDate>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>

namespace {
// Qt's and libpq's diagnostics go through the verbose log while it lives.
class DiagnosticsRoute
{
public:
    explicit DiagnosticsRoute(const VerboseLog &verbose) { VerboseLog::takeDiagnostics(&verbose); }
    ~DiagnosticsRoute() { VerboseLog::takeDiagnostics(nullptr); }
};

// Why a connection could not be opened, in the server's or libpq's words, on one line.
QString connectionFailure(const QSqlDatabase &database)
{
    const QSqlError error = database.lastError();
    const QString words = error.databaseText().simplified();
    return words.isEmpty() ? error.text().simplified() : words;
}

const QString kNormalizeMode = QStringLiteral("normalize");

void printUsage()
{
    Console::out(QStringLiteral("Usage:"));
    Console::out(QStringLiteral(" * zentrix-data-normalizer"));
    Console::out(QStringLiteral(" Options and arguments (and corresponding environment variables):"));
    Console::out(QStringLiteral(" * no options\t: Normalize the data, default: filetype details"));
    Console::out(QStringLiteral(" * -h\t\t: (--help) instruction"));
}
} // namespace

int RunDriver::parseCommandLine(const QStringList &arguments, QString &runMode)
{
    if (arguments.size() == 2
        && (arguments.at(1) == QLatin1String("-h") || arguments.at(1) == QLatin1String("--help"))) {
        printUsage();
        return 1;
    }
    if (arguments.size() < 2)
        runMode = kNormalizeMode;
    return 0;
}

int RunDriver::run(int &argc, char **argv)
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    if (ProgramVersion::printIfAsked(QStringLiteral("zentrix-data-normalizer"), arguments))
        return 0;
    VerboseLog::takeDiagnostics(nullptr);

    const std::unique_ptr<core::CoreConfigLoader> loader = ConfigurationReader::load(true, &m_configurationNote);
    core::DeploymentIdPrefix::set(loader->deploymentIdPrefix());

    RunLog log;
    log.open(RunLog::filePath(loader->logDirectory(), QDate::currentDate()));
    Console::out(QStringLiteral("File log: ") + log.path());
    if (!log.isOpen()) {
        Console::err(QStringLiteral("ERROR: Cannot open file log: ") + log.path());
        const bool verbose = RunPlan::make(QString(), arguments, loader->dbConnectionCount()).verbose;
        VerboseLog(log, verbose)
            .line(QStringLiteral("could not open the run log %1: %2").arg(log.path(), log.openError()));
        return 1;
    }

    QString connectionName;
    int status = 0;
    try {
        if (runStages(argc, argv, *loader, log, connectionName) == Outcome::EarlyExit)
            return 1;
    } catch (const Exception &e) {
        Reporter(log).exception(e.message());
        status = 1;
    }
    QSqlDatabase::removeDatabase(connectionName);
    log.close();
    return status;
}

// Everything here is destroyed in reverse order of creation when it returns or throws:
// the pass's query, the database handle, the service (stopping a server it started),
// then the application object.
RunDriver::Outcome RunDriver::runStages(
    int &argc, char **argv, core::CoreConfigLoader &loader, RunLog &log, QString &connectionName)
{
    const QCoreApplication application(argc, argv);
    QString runMode;
    if (parseCommandLine(QCoreApplication::arguments(), runMode) == 1)
        return Outcome::EarlyExit;
    const RunPlan plan = RunPlan::make(runMode, QCoreApplication::arguments().mid(1), loader.dbConnectionCount());
    const Reporter reporter(log);
    if (!plan.error.isEmpty()) {
        reporter.error(plan.error);
        return Outcome::EarlyExit;
    }
    if (!plan.misspelling.isEmpty())
        reporter.warning(plan.misspelling);
    if (plan.logEntriesOnOneLine)
        log.keepEntriesOnOneLine();

    const VerboseLog verbose(log, plan.verbose);
    const DiagnosticsRoute diagnostics(verbose);
    if (!m_configurationNote.isEmpty())
        verbose.line(m_configurationNote);
    Interrupts &interrupts = Interrupts::instance();
    interrupts.install();
    StatementCanceller canceller;
    const Interrupts::Action cancel([&canceller] { canceller.cancelAll(); });
    const auto interrupted = [&interrupts] { return interrupts.requested(); };
    // Declared before the service, so that it is released only after the service has
    // stopped the server this run started.
    RunLock runLock(loader.dataDirectory());
    const Interrupts::LastWords lastWords([&reporter, &runLock] {
        reportInterrupt(reporter);
        runLock.release();
    });
    if (!runLock.acquire(reporter, interrupted))
        return interrupts.requested() ? reportInterrupt(reporter) : Outcome::EarlyExit;

    core::PostgresService service(&loader, false, false);
    service.stopOnDestroy = true;
    service.auxiliaryStopOnDestroy = true;
    service.setObserver([&verbose](const QString &line) { verbose.line(line); });
    service.setWarningSink([&reporter](const QString &line) { reporter.logWarning(line); });
    service.setInterruptCheck(interrupted);
    const bool initialised = service.init(false, true, false);
    for (const QString &copy : service.keptInformationCopies())
        reporter.logWarning(QStringLiteral("Kept a copy of the information file before replacing it: %1").arg(copy));
    if (interrupts.requested())
        return reportInterrupt(reporter);
    if (!initialised) {
        if (!service.operatorAdvice().isEmpty())
            reporter.logError(service.operatorAdvice());
        reporter.logError(QStringLiteral("Failed to init Postgres service"));
        return Outcome::EarlyExit;
    }

    QSqlDatabase database;
    if (!plan.sessionSettings.isEmpty())
        service.setSessionSettings(plan.sessionSettings);
    const core::PostgresInformation settings = service.connectionSettings();
    if (!service.openConnection(database, settings.dbName, connectionName, true)) {
        const QString line = QStringLiteral("Cannot connect to Postgres server: %1").arg(settings.dbName);
        if (plan.connectionFailureOnConsole)
            reporter.error(QStringLiteral("%1: %2").arg(line, connectionFailure(database)), line);
        else
            reporter.logError(line);
        return Outcome::EarlyExit;
    }
    canceller.add(database);

    const Pass pass = {service, settings.dbName, database, connectionName, plan, log, reporter, verbose, canceller};
    const Outcome outcome = runPass(pass);
    return interrupts.requested() ? reportInterrupt(reporter) : outcome;
}

// Written once nothing is in flight any more (the teardown that follows stops a server this
// run started), or by the watchdog when the run's thread is stuck.
RunDriver::Outcome RunDriver::reportInterrupt(const Reporter &reporter)
{
    if (!Interrupts::instance().claimReport())
        return Outcome::EarlyExit;
    reporter.error(QStringLiteral("The run was interrupted by %1: what was in flight was cancelled (a statement is "
                                  "rolled back whole), nothing further was started")
                       .arg(Interrupts::instance().name()));
    return Outcome::EarlyExit;
}

// The plan's work on the run's connection: a journal command, or its steps one after another
// (the further connections of --jobs are opened through the service under names of their own).
// No step begins once the run is interrupted.
RunDriver::Outcome RunDriver::runPass(const Pass &pass)
{
    const RunPlan &plan = pass.plan;
    QSqlQuery query(pass.database);
    RunJournal journal;
    const JournalCommands commands(journal, pass.reporter);
    switch (plan.work) {
    case RunPlan::Work::Nothing:
        return Outcome::Done;
    case RunPlan::Work::ListRuns:
        return commands.listRuns(query) ? Outcome::Done : Outcome::EarlyExit;
    case RunPlan::Work::Forget:
        return commands.forget(query, plan.run) ? Outcome::Done : Outcome::EarlyExit;
    case RunPlan::Work::Steps:
        break;
    }
    bool done = true;
    for (const RunPlan::Step &step : plan.steps) {
        if (Interrupts::instance().requested())
            break;
        done = runStep(pass, step, journal) && done;
    }
    return done ? Outcome::Done : Outcome::EarlyExit;
}

// One step's units on the engine; true when its work is done as its failure policy counts it:
// the product's pass once its instance list is read, the tool's modes only when every unit was.
bool RunDriver::runStep(const Pass &pass, const RunPlan::Step &step, RunJournal &journal)
{
    const Reporter &reporter = pass.reporter;
    const auto interrupted = [] { return Interrupts::instance().requested(); };
    Progress progress(pass.log, pass.verbose,
        Progress::displayFor(Terminal::standardErrorIsTerminal(), Terminal::standardOutputIsTerminal()),
        step.progressToLog);
    RunTally tally;
    const StrategyContext context{reporter, pass.verbose, progress, tally, journal};
    const std::unique_ptr<RepairStrategy> strategy = pass.plan.strategyFor(step, context);
    WalCompression wal;
    const SessionLoad load(pass.plan.paced);
    ServerHealth health(pass.plan.limits, PauseGate::kReadIntervalMs);
    PauseGate gate(health, pass.plan.limits, reporter, progress);
    if (step.spares) {
        QSqlQuery query(pass.database);
        wal.choose(query, pass.verbose);
        wal.apply(pass.database);
        load.apply(pass.database);
        health.prepare(query, pass.verbose);
    }
    RepairEngine::Connections connections;
    connections.open = [&pass](QSqlDatabase &extra, QString &name) {
        return pass.service.openConnection(extra, pass.dbName, name, true);
    };
    connections.opened = [&pass, &step, &wal, &load](const QSqlDatabase &database) {
        pass.canceller.add(database);
        if (!step.spares)
            return;
        wal.apply(database);
        load.apply(database);
    };
    connections.failed = [&reporter](const QString &error) {
        const QString line = QStringLiteral("Cannot open a further connection for --jobs, going on with fewer");
        reporter.warning(line, QStringLiteral("%1. %2").arg(line, error));
    };
    connections.mainConnectionName = pass.connectionName;
    RepairEngine engine(
        pass.database, connections, tally, reporter, progress, interrupted, step.policy, step.spares ? &gate : nullptr);
    if (!engine.run(*strategy, pass.plan.jobs, step.watchLocks && progress.shown()))
        return false;
    return step.policy == FailurePolicy::ReportAndGoOn || tally.complete();
}
