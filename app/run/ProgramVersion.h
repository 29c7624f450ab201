#pragma once

#include <QStringList>

// "--version" as the only argument: answered before any configuration is read, so that it
// works in any folder.
class ProgramVersion
{
public:
    // The version of the build, the one the package carries.
    static QString number();

    // Prints "<program> <version>" on standard output and returns true when the arguments
    // (without the program name) ask for the version.
    static bool printIfAsked(const QString &program, const QStringList &arguments);
};
