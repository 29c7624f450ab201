#include "app/output/Console.h"

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
} // namespace

void out(const QString &line)
{
    const std::lock_guard<std::mutex> lock(lineMutex());
    std::cout << line.toUtf8().constData() << std::endl;
}

void err(const QString &line)
{
    const std::lock_guard<std::mutex> lock(lineMutex());
    std::cerr << line.toUtf8().constData() << std::endl;
}

void errRaw(const QString &text)
{
    const std::lock_guard<std::mutex> lock(lineMutex());
    std::cerr << text.toUtf8().constData();
    std::cerr.flush();
}

} // namespace Console
