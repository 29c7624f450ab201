#include "app/run/RunDriver.h"

#include "app/output/Console.h"
#include "app/output/RunLog.h"
#include "app/output/VerboseLog.h"
#include "app/repair/ChangedOnlyPass.h"
#include "app/repair/DryRun.h"
#include "app/repair/NormalizationPass.h"
#include "app/repair/ParallelInstances.h"
#include "app/run/ConfigurationReader.h"
#include "app/run/OperatorOptions.h"
#include "app/run/ProgramVersion.h"
#include "config/exceptions/Exception.h"
#include "config/loader/DeploymentIdPrefix.h"
#include "core/PostgresService.h"

#include <QCoreApplication>
#include <QDate>
#include <QSqlDatabase>

namespace {
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

    const std::unique_ptr<core::CoreConfigLoader> loader = ConfigurationReader::load(true);
    core::DeploymentIdPrefix::set(loader->deploymentIdPrefix());

    RunLog log;
    log.open(RunLog::filePath(loader->logDirectory(), QDate::currentDate()));
    Console::out(QStringLiteral("File log: ") + log.path());
    if (!log.isOpen()) {
        Console::err(QStringLiteral("ERROR: Cannot open file log: ") + log.path());
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
            Console::err(options.error);
            return Outcome::EarlyExit;
        }
        if (options.recognised && !options.dryRun)
            runMode = kNormalizeMode;
    }

    const VerboseLog verbose(log, options.verbose);
    core::PostgresService service(&loader, false, false);
    service.stopOnDestroy = true;
    service.auxiliaryStopOnDestroy = true;
    service.setObserver([&verbose](const QString &line) { verbose.line(line); });
    const bool initialised = service.init(false, true, false);
    for (const QString &copy : service.keptInformationCopies())
        log.writeLine(
            RunLog::Warning, QStringLiteral("Kept a copy of the information file before replacing it: %1").arg(copy));
    if (!initialised) {
        log.writeLine(RunLog::Error, QStringLiteral("Failed to init Postgres service"));
        return Outcome::EarlyExit;
    }

    QSqlDatabase database;
    const core::PostgresInformation settings = service.connectionSettings();
    if (!service.openConnection(database, settings.dbName, connectionName, true)) {
        log.writeLine(RunLog::Error, QStringLiteral("Cannot connect to Postgres server: %1").arg(settings.dbName));
        return Outcome::EarlyExit;
    }

    return runPass(service, settings.dbName, database, connectionName, runMode, options, log, verbose);
}

// The pass, or the dry run, on the run's connection; the further connections of --jobs are
// opened through the service under names of their own.
RunDriver::Outcome RunDriver::runPass(core::PostgresService &service, const QString &dbName,
    const QSqlDatabase &database, const QString &connectionName, const QString &runMode, const OperatorOptions &options,
    RunLog &log, const VerboseLog &verbose)
{
    ParallelInstances parallel([&service, &dbName](QSqlDatabase &extra,
                                   QString &name) { return service.openConnection(extra, dbName, name, true); },
        [&log](const QString &error) {
            Console::err(QStringLiteral("WARNING: Cannot open a further connection for --jobs, going on with fewer"));
            log.writeLine(RunLog::Warning,
                QStringLiteral("Cannot open a further connection for --jobs, going on with fewer. %1").arg(error));
        },
        connectionName);
    if (runMode == kNormalizeMode && options.changedOnly)
        return ChangedOnlyPass(database, verbose).run(log, parallel, options.jobs) ? Outcome::Done : Outcome::EarlyExit;
    if (runMode == kNormalizeMode)
        return NormalizationPass(database, verbose).run(log, parallel, options.jobs) ? Outcome::Done
                                                                                     : Outcome::EarlyExit;
    if (options.dryRun)
        return DryRun(database).run(log, parallel, options.jobs) ? Outcome::Done : Outcome::EarlyExit;
    return Outcome::Done;
}
