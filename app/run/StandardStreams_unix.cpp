#include "app/run/StandardStreams.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

void StandardStreams::hold()
{
    // Taken in order: a closed descriptor is the lowest free one once those below it are open.
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) != -1 || errno != EBADF)
            continue;
        const int opened = open("/dev/null", descriptor == STDIN_FILENO ? O_RDONLY : O_WRONLY);
        if (opened > descriptor) {
            dup2(opened, descriptor);
            close(opened);
        }
    }
    // Programs the run starts get the default back from QProcess.
    std::signal(SIGPIPE, SIG_IGN);
}
