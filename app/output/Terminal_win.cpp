#include "app/output/Terminal.h"

#include <windows.h>

bool Terminal::standardErrorIsTerminal()
{
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_ERROR_HANDLE), &mode) != 0;
}

bool Terminal::standardOutputIsTerminal()
{
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != 0;
}

int Terminal::columns()
{
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (!GetConsoleScreenBufferInfo(GetStdHandle(STD_ERROR_HANDLE), &info))
        return 0;
    return info.srWindow.Right - info.srWindow.Left + 1;
}

bool Terminal::writeToConsole(Stream stream, const QString &text)
{
    const HANDLE handle = GetStdHandle(stream == Stream::Error ? STD_ERROR_HANDLE : STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    if (GetConsoleMode(handle, &mode) == 0)
        return false;
    DWORD written = 0;
    return WriteConsoleW(handle, text.utf16(), static_cast<DWORD>(text.size()), &written, nullptr) != 0;
}
