#include "app/output/Terminal.h"

#include <unistd.h>

bool Terminal::standardErrorIsTerminal()
{
    return isatty(STDERR_FILENO) == 1;
}
