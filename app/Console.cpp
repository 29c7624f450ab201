#include "app/Console.h"

#include <iostream>

namespace Console {

void out(const QString &line)
{
    std::cout << line.toUtf8().constData() << std::endl;
}

void err(const QString &line)
{
    std::cerr << line.toUtf8().constData() << std::endl;
}

void errRaw(const QString &text)
{
    std::cerr << text.toUtf8().constData();
    std::cerr.flush();
}

} // namespace Console
