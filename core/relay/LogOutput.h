#pragma once

#include "core/relay/LogEntry.h"

#include <memory>

namespace core {

// A destination of the product logger (stream, syslog, event log, ...).
class LogOutput
{
public:
    virtual ~LogOutput() = default;
    virtual int minimumSeverity() const = 0;
    virtual bool isEnabled() const = 0;
    virtual void write(const std::shared_ptr<const LogEntry> &entry) = 0;
};

} // namespace core
