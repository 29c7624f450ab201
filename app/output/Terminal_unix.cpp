#include "app/output/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

bool Terminal::standardErrorIsTerminal()
{
    return isatty(STDERR_FILENO) == 1;
}

bool Terminal::standardOutputIsTerminal()
{
    return isatty(STDOUT_FILENO) == 1;
}

int Terminal::columns()
{
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0)
        return 0;
    return size.ws_col;
}

// A POSIX terminal takes the UTF-8 bytes itself.
bool Terminal::writeToConsole(Stream, const QString &)
{
    return false;
}
