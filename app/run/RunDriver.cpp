#include "app/run/RunDriver.h"

#include "app/journal/JournalCommands.h"
#include "app/journal/RunJournal.h"
#include "app/journal/UndoRepair.h"
#include "app/output/Console.h"
#include "app/output/Progress.h"
#include "app/output/RunLog.h"
#include "app/output/Terminal.h"
#include "app/output/VerboseLog.h"
#include "app/repair/BatchedRepair.h"
#include "app/repair/ChangedOnlyRepair.h"
#include "app/repair/DryRunCount.h"
#include "app/repair/NormalizationPass.h"
#include "app/repair/RepairEngine.h"
#include "app/repair/RunTally.h"
#include "app/repair/VerifyCheck.h"
#include "app/run/ConfigurationReader.h"
#include "app/run/Interrupts.h"
#include "app/run/OperatorOptions.h"
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
const QString kNormalizeMode = QStringLiteral("normalize");
// The tool's own sessions are bound by nothing the role or the database sets for the
// product's sessions; the tool bounds its lock waits itself, and retries.
constexpr int kLockWaitLimitMs = 10000;
// Overrides kLockWaitLimitMs, for tests.
const char *const kLockWaitVariable = "ZENTRIX_LOCK_WAIT_MS";

QStringList sessionSettings(RunMode mode)
{
    bool ok = false;
    const int lockWait = qEnvironmentVariable(kLockWaitVariable).toInt(&ok);
    // The server's notices (a schema that exists already) are no line of the run's.
    QStringList settings = {QStringLiteral("statement_timeout=0"),
        QStringLiteral("lock_timeout=%1").arg(ok && lockWait > 0 ? lockWait : kLockWaitLimitMs),
        QStringLiteral("idle_in_transaction_session_timeout=0"), QStringLiteral("client_min_messages=warning")};
    // The server itself refuses any write of a counting session.
    if (mode == RunMode::DryRun)
        settings << QStringLiteral("default_transaction_read_only=on");
    return settings;
}

// What the mode repairs, counts or restores, unit by unit; none for the modes that do not.
std::unique_ptr<RepairStrategy> strategyFor(const OperatorOptions &options, RunLog &log, const VerboseLog &verbose,
    Progress &progress, RunTally &tally, RunJournal &journal)
{
    switch (options.mode) {
    case RunMode::Repair:
        return std::make_unique<NormalizationPass>(log, verbose, progress);
    case RunMode::ChangedOnly:
        return std::make_unique<ChangedOnlyRepair>(log, verbose, progress, tally);
    case RunMode::Batched:
        return std::make_unique<BatchedRepair>(log, verbose, progress, tally, options.journal ? &journal : nullptr,
            QCoreApplication::arguments().mid(1).join(QLatin1Char(' ')));
    case RunMode::DryRun:
        return std::make_unique<DryRunCount>(log, progress, tally);
    case RunMode::Undo:
        return std::make_unique<UndoRepair>(options.run, log, verbose, progress, tally);
    case RunMode::ListRuns:
    case RunMode::Forget:
    case RunMode::VerifyOnly:
    case RunMode::SkipRepair:
        break;
    }
    return nullptr;
}

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
        const bool verbose = OperatorOptions::parse(arguments, loader->dbConnectionCount()).verbose;
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
        Console::errRaw(e.message());
        log.writeRaw(e.message());
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
    OperatorOptions options;
    if (runMode.isEmpty()) {
        options = OperatorOptions::parse(QCoreApplication::arguments().mid(1), loader.dbConnectionCount());
        if (!options.error.isEmpty()) {
            Console::err(QStringLiteral("ERROR: ") + options.error);
            log.writeLine(RunLog::Error, options.error);
            return Outcome::EarlyExit;
        }
        if (!options.misspelling.isEmpty()) {
            Console::err(QStringLiteral("WARNING: ") + options.misspelling);
            log.writeLine(RunLog::Warning, options.misspelling);
        }
    } else {
        options.mode = RunMode::Repair;
    }
    if (isToolMode(options.mode))
        log.keepEntriesOnOneLine();

    const VerboseLog verbose(log, options.verbose);
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
    const Interrupts::LastWords lastWords([&log, &runLock] {
        reportInterrupt(log);
        runLock.release();
    });
    if (!runLock.acquire(log, interrupted))
        return interrupts.requested() ? reportInterrupt(log) : Outcome::EarlyExit;

    core::PostgresService service(&loader, false, false);
    service.stopOnDestroy = true;
    service.auxiliaryStopOnDestroy = true;
    service.setObserver([&verbose](const QString &line) { verbose.line(line); });
    service.setWarningSink([&log](const QString &line) { log.writeLine(RunLog::Warning, line); });
    service.setInterruptCheck(interrupted);
    const bool initialised = service.init(false, true, false);
    for (const QString &copy : service.keptInformationCopies())
        log.writeLine(
            RunLog::Warning, QStringLiteral("Kept a copy of the information file before replacing it: %1").arg(copy));
    if (interrupts.requested())
        return reportInterrupt(log);
    if (!initialised) {
        if (!service.operatorAdvice().isEmpty())
            log.writeLine(RunLog::Error, service.operatorAdvice());
        log.writeLine(RunLog::Error, QStringLiteral("Failed to init Postgres service"));
        return Outcome::EarlyExit;
    }

    QSqlDatabase database;
    if (isToolMode(options.mode))
        service.setSessionSettings(sessionSettings(options.mode));
    const core::PostgresInformation settings = service.connectionSettings();
    if (!service.openConnection(database, settings.dbName, connectionName, true)) {
        log.writeLine(RunLog::Error, QStringLiteral("Cannot connect to Postgres server: %1").arg(settings.dbName));
        if (isToolMode(options.mode))
            Console::err(QStringLiteral("ERROR: Cannot connect to Postgres server: %1: %2")
                             .arg(settings.dbName, connectionFailure(database)));
        return Outcome::EarlyExit;
    }
    canceller.add(database);

    const Pass pass = {service, settings.dbName, database, connectionName, options, log, verbose, canceller};
    const Outcome outcome = runPass(pass);
    return interrupts.requested() ? reportInterrupt(log) : outcome;
}

// Written once nothing is in flight any more (the teardown that follows stops a server this
// run started), or by the watchdog when the run's thread is stuck.
RunDriver::Outcome RunDriver::reportInterrupt(RunLog &log)
{
    if (!Interrupts::instance().claimReport())
        return Outcome::EarlyExit;
    const QString line = QStringLiteral("The run was interrupted by %1: what was in flight was cancelled (a "
                                        "statement is rolled back whole), nothing further was started")
                             .arg(Interrupts::instance().name());
    Console::err(QStringLiteral("ERROR: ") + line);
    log.writeLine(RunLog::Error, line);
    return Outcome::EarlyExit;
}

// The pass, or one of the tool's modes, on the run's connection, then the verification when it
// is asked for; the further connections of --jobs are opened through the service under names of
// their own. The product's pass ends the run with status 0 once its instance list is read; the
// tool's modes only when every unit was done.
RunDriver::Outcome RunDriver::runPass(const Pass &pass)
{
    const OperatorOptions &options = pass.options;
    QSqlQuery query(pass.database);
    switch (options.mode) {
    case RunMode::SkipRepair:
        return Outcome::Done;
    case RunMode::ListRuns:
        return JournalCommands::listRuns(query, pass.log) ? Outcome::Done : Outcome::EarlyExit;
    case RunMode::Forget:
        return JournalCommands::forget(query, pass.log, options.run) ? Outcome::Done : Outcome::EarlyExit;
    default:
        break;
    }
    const bool repaired = options.mode == RunMode::VerifyOnly || runStrategy(pass, false);
    if (!options.verify || Interrupts::instance().requested())
        return repaired ? Outcome::Done : Outcome::EarlyExit;
    const bool verified = runStrategy(pass, true);
    return repaired && verified ? Outcome::Done : Outcome::EarlyExit;
}

// One mode's units on the engine; true when the mode's work is done as its exit status counts it.
bool RunDriver::runStrategy(const Pass &pass, bool verify)
{
    const OperatorOptions &options = pass.options;
    RunLog &log = pass.log;
    const auto interrupted = [] { return Interrupts::instance().requested(); };
    Progress progress(log, pass.verbose,
        Progress::displayFor(Terminal::standardErrorIsTerminal(), Terminal::standardOutputIsTerminal()),
        options.mode == RunMode::Batched || options.mode == RunMode::Undo || verify);
    RunTally tally;
    RunJournal journal;
    const std::unique_ptr<RepairStrategy> strategy = verify
        ? std::make_unique<VerifyCheck>(log, progress, tally)
        : strategyFor(options, log, pass.verbose, progress, tally, journal);
    RepairEngine::Connections connections;
    connections.open = [&pass](QSqlDatabase &extra, QString &name) {
        return pass.service.openConnection(extra, pass.dbName, name, true);
    };
    connections.opened = [&pass](const QSqlDatabase &database) { pass.canceller.add(database); };
    connections.failed = [&log](const QString &error) {
        Console::err(QStringLiteral("WARNING: Cannot open a further connection for --jobs, going on with fewer"));
        log.writeLine(RunLog::Warning,
            QStringLiteral("Cannot open a further connection for --jobs, going on with fewer. %1").arg(error));
    };
    connections.mainConnectionName = pass.connectionName;
    RepairEngine engine(pass.database, connections, tally, log, progress, interrupted);
    const bool toolMode = verify || isToolMode(options.mode);
    if (!engine.run(*strategy, options.jobs, toolMode && progress.shown()))
        return false;
    return !toolMode || tally.complete();
}
