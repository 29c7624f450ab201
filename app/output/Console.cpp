#include "app/output/Console.h"

#include "app/output/Terminal.h"

#include <iostream>
#include <mutex>

namespace Console {

namespace {
// Parallel jobs report from several threads; a line is never split by another one.
std::mutex &lineMutex()
{
    static std::mutex mutex;
    return mutex;
}

QString g_status;

// Text reaches a console as its characters, anything else (a file, a pipe) as UTF-8 bytes. A
// text that cannot be written (a closed or broken stream) is dropped; the next one is tried anew.
void put(std::ostream &stream, const QString &text)
{
    stream.flush();
    const Terminal::Stream which = &stream == &std::cerr ? Terminal::Stream::Error : Terminal::Stream::Output;
    if (!Terminal::writeToConsole(which, text))
        stream << text.toUtf8().constData();
    stream.flush();
    stream.clear();
}

// Carriage returns and blanks rather than terminal escapes, which not every Windows console
// understands.
void eraseStatus()
{
    if (g_status.isEmpty())
        return;
    std::cerr << '\r' << std::string(g_status.size(), ' ') << '\r';
    std::cerr.flush();
    std::cerr.clear();
}

// The line is not drawn again below it: its next redraw says what holds by then.
void write(std::ostream &stream, const QString &line)
{
    const std::lock_guard<std::mutex> lock(lineMutex());
    eraseStatus();
    g_status.clear();
    put(stream, line + QLatin1Char('\n'));
}
} // namespace

void out(const QString &line)
{
    write(std::cout, line);
}

void err(const QString &line)
{
    write(std::cerr, line);
}

void errRaw(const QString &text)
{
    const std::lock_guard<std::mutex> lock(lineMutex());
    eraseStatus();
    g_status.clear();
    put(std::cerr, text);
}

void status(const QString &text)
{
    const std::lock_guard<std::mutex> lock(lineMutex());
    eraseStatus();
    g_status = text;
    put(std::cerr, g_status);
}

} // namespace Console
