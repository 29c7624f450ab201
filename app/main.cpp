#include "app/run/RunDriver.h"

int main(int argc, char **argv)
{
    return RunDriver().run(argc, argv);
}
