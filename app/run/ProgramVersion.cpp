#include "app/run/ProgramVersion.h"

#include "app/output/Console.h"

QString ProgramVersion::number()
{
    return QStringLiteral(ZENTRIX_VERSION);
}

bool ProgramVersion::printIfAsked(const QString &program, const QStringList &arguments)
{
    if (arguments != QStringList{QStringLiteral("--version")})
        return false;
    Console::out(program + QLatin1Char(' ') + number());
    return true;
}
