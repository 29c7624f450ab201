#pragma once

#include "core/relay/PostgresLogLevel.h"

#include <QString>

#include <functional>

namespace core {

// Where every database service message goes: the product logger, the console, or
// nowhere, as the two switches decide.
class PostgresLogRelay
{
public:
    bool useLogger = false;
    bool consoleEcho = false;
    // Told every message in its console form, whatever the switches, and the reasons of
    // failures that the messages leave out; set by a caller that explains a run to its
    // operator. Unset, nothing changes.
    std::function<void(const QString &line)> observer;
    // Told what the caller's own log must say even of a run that succeeds: a thing found and
    // dealt with that the operator should know of. Unset, it is only a message like the others.
    std::function<void(const QString &line)> warning;

    void log(const QString &message, const QString &detail, const PostgresLogLevel &level) const;
    // "could not <what>: <why>", for the observer only.
    void reason(const QString &what, const QString &why) const;
    // Progress that only the observer is told.
    void note(const QString &text) const;
    // A message that the warning sink is told as well.
    void warn(const QString &message, const QString &detail) const;

private:
    void echo(const QString &message, const QString &detail, PostgresLogLevel level) const;
    void record(const QString &message, const QString &detail, PostgresLogLevel level) const;
};

} // namespace core
