#pragma once

#include "core/server/process/ProcessRunner.h"

#include <QHash>
#include <QStringList>

#include <functional>
#include <memory>

// Stands in for the process runner where the commands cannot run (Windows service
// commands on Linux): records every command line with its wait, answers with scripted
// exit codes, and can run a hook in place of a command.
class RecordingProcessRunner : public core::ProcessRunner
{
public:
    struct Script {
        QStringList lines;
        // Keyed by "program first-argument", e.g. "sc query".
        QHash<QString, int> exitCodes;
        QHash<QString, QByteArray> outputs;
        QHash<QString, std::function<void()>> hooks;
    };

    explicit RecordingProcessRunner(std::shared_ptr<Script> script)
        : m_script(std::move(script))
    { }

    core::ProcessResult run(const QString &program, const QStringList &arguments, int timeoutMs) override
    {
        m_script->lines << (QStringList{program} + arguments).join(QLatin1Char('|'))
                + QStringLiteral(" @%1").arg(timeoutMs);
        const QString key = program.section(QLatin1Char('/'), -1) + QLatin1Char(' ') + arguments.value(0);
        if (const auto hook = m_script->hooks.value(key))
            hook();
        core::ProcessResult result;
        result.started = result.finished = true;
        result.exitCode = m_script->exitCodes.value(key, 0);
        result.standardOutput = m_script->outputs.value(key);
        return result;
    }

private:
    std::shared_ptr<Script> m_script;
};
