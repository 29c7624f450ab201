#include "app/run/ProcessEnd.h"
#include "app/run/RunDriver.h"

int main(int argc, char **argv)
{
    ProcessEnd::quietAborts();
    return ProcessEnd::finish(RunDriver().run(argc, argv));
}
