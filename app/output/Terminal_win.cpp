#include "app/output/Terminal.h"

#include <windows.h>

bool Terminal::standardErrorIsTerminal()
{
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_ERROR_HANDLE), &mode) != 0;
}
