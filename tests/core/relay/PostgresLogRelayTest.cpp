#include "core/relay/PostgresLogRelay.h"
#include "support/CapturingLogOutput.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

using core::PostgresLogRelay;

namespace {
std::string echoed(const QString &message, const QString &detail, int level)
{
    PostgresLogRelay relay;
    relay.consoleEcho = true;
    testing::internal::CaptureStdout();
    relay.log(message, detail, static_cast<PostgresLogLevel>(level));
    return testing::internal::GetCapturedStdout();
}
} // namespace

TEST(PostgresLogRelayTest, ConsoleEchoFormat)
{
    EXPECT_EQ(echoed(QStringLiteral("Database name"), QStringLiteral("db_é"), 1),
        "Postgres info: Database name, db_\xc3\xa9\n");
    EXPECT_EQ(echoed(QStringLiteral("failed"), QStringLiteral("localhost"), 2), "Postgres error: failed, localhost\n");
    EXPECT_EQ(echoed(QStringLiteral("x"), QString(), 3), "Postgres debug: x, \n");
    EXPECT_EQ(echoed(QStringLiteral("x"), QString(), 0), "Postgres info: x, \n");
    EXPECT_EQ(echoed(QStringLiteral("x"), QString(), 7), "Postgres info: x, \n");
}

TEST(PostgresLogRelayTest, BothSwitchesOffDropsEverything)
{
    ScopedLogCapture capture;
    PostgresLogRelay relay;
    testing::internal::CaptureStdout();
    relay.log(QStringLiteral("x"), QStringLiteral("y"), PostgresLogLevel::Error);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(capture.output->entries.empty());
}

TEST(PostgresLogRelayTest, LoggerMappingOfEveryLevel)
{
    ScopedLogCapture capture;
    PostgresLogRelay relay;
    relay.useLogger = true;
    relay.consoleEcho = true;
    testing::internal::CaptureStdout();
    const struct {
        int level;
        int eventId;
        int severity;
        const char *title;
        const char *name;
    } rows[] = {{2, 4084, 4, "Postgres issue", "error"}, {3, 4465, 1, "Postgres debug", "info"},
        {1, 4085, 2, "Postgres info", "info"}, {0, 4085, 2, "Postgres info", "info"},
        {7, 4085, 2, "Postgres info", "info"}};
    for (const auto &row : rows)
        relay.log(QStringLiteral("message"), QStringLiteral("detail"), static_cast<PostgresLogLevel>(row.level));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "the logger and the console are exclusive";
    ASSERT_EQ(capture.output->entries.size(), std::size(rows));
    for (size_t i = 0; i < std::size(rows); ++i) {
        const auto &entry = *capture.output->entries[i];
        EXPECT_EQ(entry.eventId, rows[i].eventId);
        EXPECT_EQ(entry.severity, rows[i].severity);
        EXPECT_EQ(entry.title, QLatin1String(rows[i].title));
        EXPECT_EQ(entry.category, QStringLiteral("core.postgres"));
        const core::LogParameters expected = {{QLatin1String(rows[i].name), QStringLiteral("message")},
            {QStringLiteral("param"), QStringLiteral("detail")}};
        EXPECT_EQ(entry.parameters, expected);
        EXPECT_TRUE(entry.time.isValid());
    }
}

TEST(PostgresLogRelayTest, ThresholdAndOverridesDecideWhatIsRecorded)
{
    ScopedLogCapture capture;
    core::ProductLogger::instance().setThreshold(3);
    PostgresLogRelay relay;
    relay.useLogger = true;
    relay.log(QStringLiteral("info"), QString(), PostgresLogLevel::Info);
    relay.log(QStringLiteral("debug"), QString(), PostgresLogLevel::Debug);
    relay.log(QStringLiteral("error"), QString(), PostgresLogLevel::Error);
    EXPECT_EQ(capture.output->messages(), QStringList({QStringLiteral("error")}));

    core::ProductLogger::instance().setSeverityOverride(4085, 5);
    relay.log(QStringLiteral("raised info"), QString(), PostgresLogLevel::Info);
    ASSERT_EQ(capture.output->entries.size(), 2u);
    EXPECT_EQ(capture.output->entries.back()->severity, 5) << "the entry carries the effective severity";
}

TEST(PostgresLogRelayTest, OutputsFilterBySeverityAndEnablement)
{
    ScopedLogCapture capture;
    auto strict = std::make_shared<CapturingLogOutput>();
    strict->minimum = 4;
    auto disabled = std::make_shared<CapturingLogOutput>();
    disabled->enabled = false;
    core::ProductLogger::instance().addOutput(strict);
    core::ProductLogger::instance().addOutput(disabled);
    PostgresLogRelay relay;
    relay.useLogger = true;
    relay.log(QStringLiteral("info"), QString(), PostgresLogLevel::Info);
    relay.log(QStringLiteral("error"), QString(), PostgresLogLevel::Error);
    EXPECT_EQ(capture.output->messages().size(), 2);
    EXPECT_EQ(strict->messages(), QStringList({QStringLiteral("error")}));
    EXPECT_TRUE(disabled->entries.empty());
    EXPECT_EQ(capture.output->entries[1], strict->entries[0]) << "one shared entry for all outputs";
}
