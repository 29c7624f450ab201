#include "core/relay/ProductLogger.h"

namespace core {

ProductLogger &ProductLogger::instance()
{
    static ProductLogger logger;
    return logger;
}

int ProductLogger::effectiveSeverity(int eventId, int proposedSeverity) const
{
    return m_overrides.value(eventId, proposedSeverity);
}

void ProductLogger::record(
    int proposedSeverity, int eventId, const QString &category, const QString &title, const LogParameters &parameters)
{
    auto entry = std::make_shared<LogEntry>();
    entry->time = QDateTime::currentDateTime();
    entry->severity = effectiveSeverity(eventId, proposedSeverity);
    entry->eventId = eventId;
    entry->category = category;
    entry->title = title;
    entry->parameters = parameters;
    const std::shared_ptr<const LogEntry> shared = entry;
    for (const auto &output : m_outputs) {
        if (output->minimumSeverity() <= shared->severity && output->isEnabled())
            output->write(shared);
    }
}

} // namespace core
