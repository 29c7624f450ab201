#pragma once

#include "core/relay/LogEntry.h"
#include "core/relay/LogOutput.h"

#include <QHash>

#include <memory>
#include <vector>

namespace core {

// The slice of the product's structured logger that the service message relay needs:
// a threshold, per-event severity overrides and recording to the enabled outputs.
class ProductLogger
{
public:
    static ProductLogger &instance();

    int threshold() const { return m_threshold; }
    void setThreshold(int threshold) { m_threshold = threshold; }

    void setSeverityOverride(int eventId, int severity) { m_overrides.insert(eventId, severity); }
    void clearSeverityOverrides() { m_overrides.clear(); }
    // The configured override of the event, else the severity the caller proposes.
    int effectiveSeverity(int eventId, int proposedSeverity) const;

    void addOutput(std::shared_ptr<LogOutput> output) { m_outputs.push_back(std::move(output)); }
    void clearOutputs() { m_outputs.clear(); }

    void record(int proposedSeverity, int eventId, const QString &category, const QString &title,
        const LogParameters &parameters);

private:
    int m_threshold = 0;
    QHash<int, int> m_overrides;
    std::vector<std::shared_ptr<LogOutput>> m_outputs;
};

} // namespace core
