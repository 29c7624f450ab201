#include "app/run/Interrupts.h"

#include <csignal>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

namespace {
// The handler only writes the signal's number here; a thread turns it into a request.
int g_signalPipe[2] = {-1, -1};

extern "C" void onSignal(int signal)
{
    const unsigned char number = static_cast<unsigned char>(signal);
    const ssize_t written = ::write(g_signalPipe[1], &number, 1);
    static_cast<void>(written);
}

QString signalName(int signal)
{
    switch (signal) {
    case SIGINT:
        return QStringLiteral("SIGINT");
    case SIGTERM:
        return QStringLiteral("SIGTERM");
    case SIGHUP:
        return QStringLiteral("SIGHUP");
    default:
        return QStringLiteral("signal %1").arg(signal);
    }
}
} // namespace

void Interrupts::installHandlers()
{
    if (::pipe2(g_signalPipe, O_CLOEXEC) != 0)
        return;
    std::thread([this] {
        unsigned char number = 0;
        while (::read(g_signalPipe[0], &number, 1) == 1)
            raise(signalName(number));
    }).detach();
    // The server's programs are run with the default handlers again: exec resets them.
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        ::sigaction(signal, &action, nullptr);
}
