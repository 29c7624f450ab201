#include "app/run/ProcessEnd.h"
#include "app/run/RunDriver.h"
#include "app/run/StandardStreams.h"

int main(int argc, char **argv)
{
    StandardStreams::hold();
    ProcessEnd::quietAborts();
    return ProcessEnd::finish(RunDriver().run(argc, argv));
}
