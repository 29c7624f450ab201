#include "app/run/ProcessEnd.h"

#include <csignal>
#include <cstdio>

#include <windows.h>

int ProcessEnd::finish(int status)
{
    std::fflush(nullptr);
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(status));
    return status;
}

namespace {
// What abort() ends a Windows process with.
constexpr UINT kAbortStatus = 3;
} // namespace

void ProcessEnd::quietAborts()
{
    std::signal(SIGABRT, [](int) {
        std::fflush(nullptr);
        TerminateProcess(GetCurrentProcess(), kAbortStatus);
    });
}
