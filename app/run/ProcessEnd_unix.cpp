#include "app/run/ProcessEnd.h"

int ProcessEnd::finish(int status)
{
    return status;
}

void ProcessEnd::quietAborts() { }
