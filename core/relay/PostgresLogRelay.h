#pragma once

#include "core/relay/PostgresLogLevel.h"

#include <QString>

namespace core {

// Where every database service message goes: the product logger, the console, or
// nowhere, as the two switches decide.
class PostgresLogRelay
{
public:
    bool useLogger = false;
    bool consoleEcho = false;

    void log(const QString &message, const QString &detail, const PostgresLogLevel &level) const;

private:
    void echo(const QString &message, const QString &detail, PostgresLogLevel level) const;
    void record(const QString &message, const QString &detail, PostgresLogLevel level) const;
};

} // namespace core
