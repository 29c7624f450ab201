#include "core/relay/PostgresLogRelay.h"

#include "core/relay/ProductLogger.h"

#include <iostream>

namespace core {

namespace {
const QString kCategory = QStringLiteral("core.postgres");

struct LoggerRow {
    int eventId;
    int severity;
    const char *title;
    const char *messageName;
};

LoggerRow rowFor(PostgresLogLevel level)
{
    switch (level) {
    case PostgresLogLevel::Error:
        return {4084, 4, "Postgres issue", "error"};
    case PostgresLogLevel::Debug:
        return {4465, 1, "Postgres debug", "info"};
    default:
        return {4085, 2, "Postgres info", "info"};
    }
}

const char *consolePrefix(PostgresLogLevel level)
{
    switch (level) {
    case PostgresLogLevel::Error:
        return "Postgres error: ";
    case PostgresLogLevel::Debug:
        return "Postgres debug: ";
    default:
        return "Postgres info: ";
    }
}
} // namespace

void PostgresLogRelay::log(const QString &message, const QString &detail, const PostgresLogLevel &level) const
{
    if (observer)
        observer(QLatin1String(consolePrefix(level)) + message + QStringLiteral(", ") + detail);
    if (useLogger)
        record(message, detail, level);
    else if (consoleEcho)
        echo(message, detail, level);
}

void PostgresLogRelay::reason(const QString &what, const QString &why) const
{
    if (observer)
        observer(QStringLiteral("could not %1: %2").arg(what, why.trimmed()));
}

void PostgresLogRelay::note(const QString &text) const
{
    if (observer)
        observer(text);
}

void PostgresLogRelay::echo(const QString &message, const QString &detail, PostgresLogLevel level) const
{
    // One chain ending in the flush; the separator stays even for an empty detail.
    std::cout << consolePrefix(level) << message.toStdString() << ", " << detail.toStdString() << std::endl;
}

void PostgresLogRelay::record(const QString &message, const QString &detail, PostgresLogLevel level) const
{
    const LoggerRow row = rowFor(level);
    ProductLogger &logger = ProductLogger::instance();
    if (logger.threshold() > logger.effectiveSeverity(row.eventId, row.severity))
        return;
    const LogParameters parameters = {{QLatin1String(row.messageName), message}, {QStringLiteral("param"), detail}};
    logger.record(row.severity, row.eventId, kCategory, QLatin1String(row.title), parameters);
}

void PostgresLogRelay::warn(const QString &message, const QString &detail) const
{
    log(message, detail, PostgresLogLevel::Error);
    if (warning)
        warning(message);
}

} // namespace core
