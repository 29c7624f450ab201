#include "config/exceptions/InvalidValueException.h"
#include "config/exceptions/MissingKeyException.h"
#include "config/exceptions/UnknownKeyException.h"
#include "config/validator/CoreConfigValidator.h"
#include "support/IniFixture.h"

namespace {
const QByteArray kRequired = "[global]\nrestaddress=127.0.0.1\nrestport=8008\n";

struct Outcome {
    QString type;
    QString message;
    QStringList keys;
};
} // namespace

class ConfigValidatorTest : public IniFixture
{
protected:
    Outcome validate(const QByteArray &ini, QSettings::Format format = QSettings::IniFormat)
    {
        writeIni(ini);
        const auto s = settings(format);
        try {
            core::CoreConfigValidator(*s).validate();
        } catch (const UnknownKeyException &e) {
            return {QStringLiteral("unknown"), e.message(), e.keys()};
        } catch (const MissingKeyException &e) {
            return {QStringLiteral("missing"), e.message(), {}};
        } catch (const InvalidValueException &e) {
            return {QStringLiteral("invalid"), e.message(), {}};
        }
        return {QStringLiteral("ok"), QString(), {}};
    }
};

TEST_F(ConfigValidatorTest, RulesAndTheirMessages)
{
    const struct {
        QByteArray ini;
        const char *type;
        const char *message;
    } cases[] = {
        {kRequired, "ok", ""},
        {"[global]\nrestaddress=1\n", "missing", "Required key missing from config: global/restport"},
        {"[global]\nrestport=1\nfoo=1\n", "missing", "Required key missing from config: global/restaddress"},
        {kRequired + "[internal]\nparallelcount=2\nparallelcount_high=3\n", "ok", ""},
        {kRequired + "[internal]\nparallel=2\n", "unknown", "Unknown keys in config: internal/parallel"},
        {kRequired + "dbname=x\n", "unknown", "Unknown keys in config: global/dbname"},
        {kRequired + "[dbserver]\ndbname=x\n", "unknown", "Unknown keys in config: dbserver/dbname"},
        {kRequired + "report_engine_issue=1\n", "ok", ""},
        {kRequired + "address=1.2.3.4\n", "missing", "All or none of 'global/address, global/port' must be set!"},
        {kRequired + "port=1\n", "missing", "All or none of 'global/address, global/port' must be set!"},
        {kRequired + "address=1.2.3.4\nport=1\n", "ok", ""},
        {kRequired + "[logger]\nlogfile=f\n", "missing",
            "All or none of 'logger/logfile, logger/loglevel' must be set!"},
        {kRequired + "[logger]\nsyslog_level=3\n", "missing",
            "All or none of 'logger/syslog, logger/syslog_level' must be set!"},
        {kRequired + "[internal]\nbody_transfer_chunk_size=0\n", "invalid",
            "internal/body_transfer_chunk_size must be between 1 and 60"},
        {kRequired + "[internal]\nbody_transfer_chunk_size=61\n", "invalid",
            "internal/body_transfer_chunk_size must be between 1 and 60"},
        {kRequired + "[internal]\nbody_transfer_chunk_size=abc\n", "invalid",
            "internal/body_transfer_chunk_size must be between 1 and 60"},
        {kRequired + "[internal]\nbody_transfer_chunk_size=60\nbody_transfer_method=1\n", "ok", ""},
        {kRequired + "[internal]\nbody_transfer_method=2\n", "invalid",
            "internal/body_transfer_method must be between 0 and 1"},
        {kRequired + "dbmode=2\n", "ok", ""},
        {kRequired + "dbmode=shared\n", "invalid",
            "global/dbmode must be standalone(1), non-persistence(3) or shared(4)"},
        // The first broken rule wins: the chunk size is never looked at here.
        {kRequired + "address=1\n[internal]\nbody_transfer_chunk_size=0\n", "missing",
            "All or none of 'global/address, global/port' must be set!"},
    };
    for (const auto &c : cases) {
        const Outcome outcome = validate(c.ini);
        EXPECT_EQ(outcome.type, QLatin1String(c.type)) << c.ini.constData();
        EXPECT_EQ(outcome.message, QString::fromUtf8(c.message)) << c.ini.constData();
    }
}

TEST_F(ConfigValidatorTest, UnknownKeysAreListedWhole)
{
    const Outcome outcome = validate(kRequired + "[foo]\nbar=1\nbaz=2\n");
    EXPECT_EQ(outcome.message, QStringLiteral("Unknown keys in config: foo/bar,foo/baz"));
    EXPECT_EQ(outcome.keys, QStringList({QStringLiteral("foo/bar"), QStringLiteral("foo/baz")}));
}

TEST_F(ConfigValidatorTest, IniBaseRulesTolerateCommentedKeysAndNameTheFirstUnknown)
{
    writeIni("[foo]\n%23old=1\nbar=1\nbaz=2\n");
    const auto s = settings();
    try {
        config::CommonConfigValidator(*s).validate();
        FAIL() << "no exception";
    } catch (const UnknownKeyException &e) {
        EXPECT_EQ(e.message(), QStringLiteral("Unknown keys in config: foo/bar"));
        EXPECT_EQ(
            e.keys(), QStringList({QStringLiteral("foo/#old"), QStringLiteral("foo/bar"), QStringLiteral("foo/baz")}));
    }
    writeIni("[foo]\n%23old=1\n");
    EXPECT_NO_THROW(config::CommonConfigValidator(*settings()).validate());
    EXPECT_EQ(validate(kRequired + "%23old=1\n").type, QStringLiteral("ok"));
}

TEST_F(ConfigValidatorTest, NativeBaseRulesNameEveryUnknownKey)
{
    writeIni("[foo]\nbar=1\nbaz=2\n");
    const auto s = settings(QSettings::NativeFormat);
    try {
        config::CommonConfigValidator(*s).validate();
        FAIL() << "no exception";
    } catch (const UnknownKeyException &e) {
        EXPECT_EQ(e.message(), QStringLiteral("Unknown keys in config: foo/bar,foo/baz"));
    }
    EXPECT_EQ(validate(kRequired + "%23old=1\n", QSettings::NativeFormat).message,
        QStringLiteral("Unknown keys in config: global/#old"));
}

TEST_F(ConfigValidatorTest, ParallelCountFilterKeepsTheOtherUnknownKeys)
{
    const Outcome outcome = validate(kRequired + "[internal]\nparallelcount_2=1\nzzz=1\n");
    EXPECT_EQ(outcome.message, QStringLiteral("Unknown keys in config: internal/zzz"));
    EXPECT_EQ(outcome.keys, QStringList({QStringLiteral("internal/zzz")}));
}

TEST_F(ConfigValidatorTest, NeverChangesTheSettings)
{
    const QByteArray ini = kRequired + "%23old=1\n[internal]\nparallelcount_2=1\n";
    validate(ini);
    EXPECT_EQ(readIni(), ini);
}
