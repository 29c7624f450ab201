#include "app/run/ProcessEnd.h"

#include <cstdio>

#include <windows.h>

int ProcessEnd::finish(int status)
{
    std::fflush(nullptr);
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(status));
    return status;
}
