#include "app/dbinfo/DbInfoCommand.h"
#include "app/output/Console.h"
#include "app/run/ConfigurationReader.h"
#include "app/run/ProgramVersion.h"
#include "app/run/StandardStreams.h"
#include "config/exceptions/Exception.h"

#include <QCoreApplication>
#include <QDir>

// The installation folder comes from --installation, else from the product
// configuration exactly as the tool reads it.
int main(int argc, char **argv)
{
    StandardStreams::hold();
    const QCoreApplication application(argc, argv);
    QStringList arguments = QCoreApplication::arguments().mid(1);
    if (ProgramVersion::printIfAsked(QStringLiteral("zentrix-dbinfo"), arguments))
        return 0;
    if (arguments.isEmpty() || arguments.first() == QLatin1String("-h")
        || arguments.first() == QLatin1String("--help")) {
        DbInfoCommand::printUsage();
        return arguments.isEmpty() ? 2 : 0;
    }
    QString installation;
    if (arguments.first() == QLatin1String("--installation")) {
        installation = arguments.value(1);
        arguments = arguments.mid(2);
    } else {
        try {
            installation = ConfigurationReader::load(false)->installationFolder();
        } catch (const Exception &e) {
            Console::err(e.message());
            return 1;
        }
    }
    if (installation.isEmpty() || !QDir(installation).exists()) {
        Console::err(QStringLiteral("No installation folder: ") + installation);
        return 1;
    }
    try {
        return DbInfoCommand(core::InformationFile::pathsIn(installation)).run(arguments);
    } catch (const Exception &e) {
        Console::err(e.message());
        return 1;
    }
}
