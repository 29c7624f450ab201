#include "app/run/ProcessEnd.h"
#include "app/run/RunDriver.h"

int main(int argc, char **argv)
{
    return ProcessEnd::finish(RunDriver().run(argc, argv));
}
