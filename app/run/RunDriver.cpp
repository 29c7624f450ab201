#include "app/run/RunDriver.h"

#include "app/output/Console.h"
#include "app/output/Progress.h"
#include "app/output/RunLog.h"
#include "app/output/Terminal.h"
#include "app/output/VerboseLog.h"
#include "app/repair/BatchedPass.h"
#include "app/repair/ChangedOnlyPass.h"
#include "app/repair/DryRun.h"
#include "app/repair/NormalizationPass.h"
#include "app/repair/ParallelInstances.h"
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

namespace {
const QString kNormalizeMode = QStringLiteral("normalize");

// Qt's and libpq's diagnostics go through the verbose log while it lives.
class DiagnosticsRoute
{
public:
    explicit DiagnosticsRoute(const VerboseLog &verbose) { VerboseLog::takeDiagnostics(&verbose); }
    ~DiagnosticsRoute() { VerboseLog::takeDiagnostics(nullptr); }
};

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
        if (options.recognised && !options.dryRun)
            runMode = kNormalizeMode;
    }

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
    const core::PostgresInformation settings = service.connectionSettings();
    if (!service.openConnection(database, settings.dbName, connectionName, true)) {
        log.writeLine(RunLog::Error, QStringLiteral("Cannot connect to Postgres server: %1").arg(settings.dbName));
        return Outcome::EarlyExit;
    }
    canceller.add(database);

    const Pass pass = {service, settings.dbName, database, connectionName, runMode, options, log, verbose, canceller};
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

// The pass, or the dry run, on the run's connection; the further connections of --jobs are
// opened through the service under names of their own.
RunDriver::Outcome RunDriver::runPass(const Pass &pass)
{
    RunLog &log = pass.log;
    ParallelInstances parallel(
        [&pass](QSqlDatabase &extra, QString &name) {
            const bool open = pass.service.openConnection(extra, pass.dbName, name, true);
            if (open)
                pass.canceller.add(extra);
            return open;
        },
        [&log](const QString &error) {
            Console::err(QStringLiteral("WARNING: Cannot open a further connection for --jobs, going on with fewer"));
            log.writeLine(RunLog::Warning,
                QStringLiteral("Cannot open a further connection for --jobs, going on with fewer. %1").arg(error));
        },
        pass.connectionName);
    const auto interrupted = [] { return Interrupts::instance().requested(); };
    parallel.setStop(interrupted);
    const OperatorOptions &options = pass.options;
    Progress progress(log, pass.verbose, Terminal::standardErrorIsTerminal(), options.batched);
    bool done = true;
    if (pass.runMode == kNormalizeMode && options.batched)
        done = BatchedPass(pass.database, pass.verbose, interrupted).run(log, parallel, options.jobs, progress);
    else if (pass.runMode == kNormalizeMode && options.changedOnly)
        done = ChangedOnlyPass(pass.database, pass.verbose).run(log, parallel, options.jobs, progress);
    else if (pass.runMode == kNormalizeMode)
        done = NormalizationPass(pass.database, pass.verbose).run(log, parallel, options.jobs, progress);
    else if (options.dryRun)
        done = DryRun(pass.database).run(log, parallel, options.jobs, progress);
    return done ? Outcome::Done : Outcome::EarlyExit;
}
