#pragma once

#include "core/relay/LogOutput.h"
#include "core/relay/ProductLogger.h"

#include <QStringList>

#include <memory>

// Collects what reaches the product logger, as "title|first value|param" lines.
class CapturingLogOutput : public core::LogOutput
{
public:
    int minimumSeverity() const override { return minimum; }
    bool isEnabled() const override { return enabled; }
    void write(const std::shared_ptr<const core::LogEntry> &entry) override { entries.push_back(entry); }

    QStringList messages() const
    {
        QStringList lines;
        for (const auto &entry : entries)
            lines << entry->parameters.value(0).second;
        return lines;
    }

    int minimum = 0;
    bool enabled = true;
    std::vector<std::shared_ptr<const core::LogEntry>> entries;
};

// Installs a capturing output on the process-wide logger for the scope of a test.
class ScopedLogCapture
{
public:
    ScopedLogCapture()
        : output(std::make_shared<CapturingLogOutput>())
    {
        core::ProductLogger &logger = core::ProductLogger::instance();
        logger.clearOutputs();
        logger.clearSeverityOverrides();
        logger.setThreshold(0);
        logger.addOutput(output);
    }
    ~ScopedLogCapture()
    {
        core::ProductLogger::instance().clearOutputs();
        core::ProductLogger::instance().clearSeverityOverrides();
    }

    std::shared_ptr<CapturingLogOutput> output;
};
