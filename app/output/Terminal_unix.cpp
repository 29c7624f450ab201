#include "app/output/Terminal.h"

#include <unistd.h>

bool Terminal::standardErrorIsTerminal()
{
    return isatty(STDERR_FILENO) == 1;
}

// A POSIX terminal takes the UTF-8 bytes itself.
bool Terminal::writeToConsole(Stream, const QString &)
{
    return false;
}
