#include "app/run/Interrupts.h"

#include <windows.h>

namespace {
BOOL WINAPI onConsoleEvent(DWORD event)
{
    Interrupts::instance().raise(Interrupts::consoleEventName(event));
    // Windows ends the process as soon as the handler of a closing console returns.
    if (event == CTRL_CLOSE_EVENT)
        Sleep(Interrupts::kEndLimitMs);
    return TRUE;
}
} // namespace

void Interrupts::installHandlers()
{
    SetConsoleCtrlHandler(onConsoleEvent, TRUE);
}
