#include "config/exceptions/InvalidValueException.h"
#include "config/exceptions/MissingKeyException.h"
#include "config/loader/CoreConfigLoader.h"
#include "support/IniFixture.h"

#include <QCoreApplication>
#include <QDir>
#include <QStandardPaths>

namespace {
const QString kLocation = QStringLiteral("HKEY_LOCAL_MACHINE\\Software\\Tarvex\\Bravik");
}

class ConfigLoaderTest : public IniFixture
{
protected:
    std::unique_ptr<core::CoreConfigLoader> loader(const QByteArray &ini)
    {
        writeIni(ini);
        return std::make_unique<core::CoreConfigLoader>(*settings(), kLocation);
    }

    template <typename E, typename F> static QString messageOf(F &&read)
    {
        try {
            read();
        } catch (const E &e) {
            return e.message();
        }
        return QStringLiteral("<no exception>");
    }
};

TEST_F(ConfigLoaderTest, ReadValueReportsMissingAndValuelessKeys)
{
    const auto l = loader("[a]\nnull=@Invalid()\nset=x\n");
    EXPECT_EQ(messageOf<MissingKeyException>([&] { l->readValue(QStringLiteral("a/none")); }),
        QStringLiteral("Trying to access the following key 'a/none', but it does not exist"));
    EXPECT_EQ(messageOf<InvalidValueException>([&] { l->readValue(QStringLiteral("a/null")); }),
        QStringLiteral("The following key 'a/null' exists, but has no value"));
    EXPECT_EQ(l->readValue(QStringLiteral("a/set")).toString(), QStringLiteral("x"));
}

TEST_F(ConfigLoaderTest, PortsOutsideOneTo65535AreRejectedWithTheStoredText)
{
    const struct {
        const char *value;
        int port;
    } cases[] = {{"0", -1}, {"70000", -1}, {"abc", -1}, {"-5", -1}, {"1", 1}, {"65535", 65535}, {"8443", 8443}};
    for (const auto &c : cases) {
        const auto l = loader(QByteArray("[global]\nrestport=") + c.value + "\n");
        if (c.port < 0)
            EXPECT_EQ(messageOf<InvalidValueException>([&] { l->restPort(); }),
                QStringLiteral("Invalid port value: %1").arg(QLatin1String(c.value)));
        else
            EXPECT_EQ(l->restPort(), c.port) << c.value;
    }
}

TEST_F(ConfigLoaderTest, AddressesParseOrThrow)
{
    EXPECT_EQ(loader("[global]\nrestaddress=*\n")->restAddress(), QHostAddress(QHostAddress::Any));
    EXPECT_EQ(loader("[global]\nrestaddress=127.0.0.1\n")->restAddress(), QHostAddress(QStringLiteral("127.0.0.1")));
    EXPECT_EQ(loader("[global]\nrestaddress=::1\n")->restAddress(), QHostAddress(QStringLiteral("::1")));
    const auto bad = loader("[global]\nrestaddress=not-an-address\n");
    EXPECT_EQ(messageOf<InvalidValueException>([&] { bad->restAddress(); }),
        QStringLiteral("Invalid address: not-an-address"));
    const auto none = loader("");
    EXPECT_EQ(messageOf<MissingKeyException>([&] { none->restAddress(); }),
        QStringLiteral("Trying to access the following key 'global/restaddress', but it does not exist"));
}

TEST_F(ConfigLoaderTest, BooleansAcceptTrueFalseOneZeroInAnyCase)
{
    const auto l = loader("[logger]\ncef=TRUE\nlocal_timezone=0\nlog_rotation=Yes\n");
    EXPECT_TRUE(l->cefEnabled());
    EXPECT_FALSE(l->localTimezone());
    EXPECT_EQ(messageOf<InvalidValueException>([&] { l->logRotation(); }),
        QStringLiteral("Invalid value for \"logger/log_rotation\": \"Yes\""));
    EXPECT_TRUE(l->readBool(QStringLiteral("logger/absent"), true));
    EXPECT_FALSE(l->readBool(QStringLiteral("logger/absent"), false));
}

TEST_F(ConfigLoaderTest, EmptyConfigurationYieldsTheProductDefaults)
{
    const auto l = loader("");
    const QString configRoot = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    const QString data = configRoot + QStringLiteral("/zentrix/data/");
    EXPECT_EQ(l->dataDirectory(), data);
    EXPECT_EQ(l->logDirectory(), configRoot + QStringLiteral("/zentrix/data//logs"));
    EXPECT_EQ(l->dbConnectionCount(), 10);
    EXPECT_EQ(l->dbMode(), 1);
    EXPECT_EQ(l->instanceName(), QString());
    EXPECT_EQ(l->deploymentIdPrefix(), QString());
    EXPECT_EQ(l->productName(), QStringLiteral("zentrix"));
    EXPECT_EQ(l->installationFolder(), QCoreApplication::applicationDirPath());
    EXPECT_EQ(l->libraryPath(), QDir(QCoreApplication::applicationDirPath()).absolutePath());
    EXPECT_EQ(l->runtimeDirectory(), QDir::temp().absoluteFilePath(QStringLiteral("zentrix")));
    EXPECT_TRUE(QDir(l->runtimeDirectory()).exists());
    EXPECT_EQ(l->nasSettings().value(QStringLiteral("worker_count")).toInt(), 4);
    EXPECT_FALSE(l->nasSettings().value(QStringLiteral("host")).isValid());
    EXPECT_EQ(l->legacyConfigPath(), QStringLiteral("c:\\tarvex\\zentrix.conf"));
    EXPECT_EQ(l->configLocation(), kLocation);
}

TEST_F(ConfigLoaderTest, DerivedPathsFollowTheInstallationAndDataRoots)
{
    const auto l = loader("InstallationFolder=/opt/z\n[internal]\ndata_directory=/srv/d\n");
    const struct {
        QString actual;
        const char *expected;
    } cases[] = {
        {l->logDirectory(), "/srv/d/logs"},
        {l->updatesDirectory(), "/srv/d/updates/"},
        {l->mainDatabasePath(), "/srv/d/zentrix.db.sqlite"},
        {l->migrationLogPath(), "/srv/d/logs/migration_log.log"},
        {l->quarantineDatabasePath(), "/srv/d/quarantine/quarantine.db.sqlite"},
        {l->postgresDirectory(), "/opt/z/postgres"},
        {l->dbCredentialFile(), "/opt/z/zentrix_postgres.dat"},
        {l->currentDataDirectory(), "/srv/d"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.actual, QLatin1String(c.expected));
    EXPECT_EQ(loader("InstallationFolder=/opt/z\n")->dataDirectory(), QStringLiteral("/opt/z/data/"));
}

TEST_F(ConfigLoaderTest, CommentedKeysAreInvisibleAndLeaveTheFile)
{
    {
        const auto l = loader("[global]\n%23old=1\nkept=2\n[internal]\n%23note=x\n");
        EXPECT_FALSE(l->stringValue(QStringLiteral("global/#old")).size());
        EXPECT_EQ(l->stringValue(QStringLiteral("global/kept")), QStringLiteral("2"));
        l->sync();
        EXPECT_FALSE(readIni().contains("old"));
        EXPECT_FALSE(readIni().contains("note"));
    }
    // Destruction alone writes the removal back too.
    writeIni("[global]\n%23old=1\nkept=2\n");
    {
        core::CoreConfigLoader l(*settings(), kLocation);
    }
    EXPECT_FALSE(readIni().contains("old"));
    EXPECT_TRUE(readIni().contains("kept=2"));
}

TEST_F(ConfigLoaderTest, NativeFormatKeepsCommentedKeys)
{
    writeIni("[global]\n%23old=1\n");
    {
        core::CoreConfigLoader l(*settings(QSettings::NativeFormat), kLocation);
    }
    EXPECT_TRUE(readIni().contains("old"));
}

TEST_F(ConfigLoaderTest, SetInstanceNamePersistsAtOnce)
{
    const auto l = loader("[global]\nrestport=1\n");
    l->setInstanceName(QStringLiteral("a"));
    EXPECT_EQ(l->instanceName(), QStringLiteral("a"));
    EXPECT_EQ(QSettings(iniPath(), QSettings::IniFormat).value(QStringLiteral("global/instance_name")).toString(),
        QStringLiteral("a"));
}

TEST_F(ConfigLoaderTest, LoggerGettersRequireTheirKeys)
{
    const auto l = loader("[logger]\nsyslog=a, b\nloglevel=info\n[internal]\nconsole_level=debug\n");
    EXPECT_EQ(l->syslogTargets(), QStringList({QStringLiteral("a"), QStringLiteral("b")}));
    EXPECT_EQ(l->logLevel(), QStringLiteral("info"));
    EXPECT_EQ(l->consoleLevel(), QStringLiteral("debug"));
    EXPECT_TRUE(l->hasSyslog());
    EXPECT_TRUE(l->hasConsoleLevel());
    EXPECT_FALSE(l->hasLogFile());
    EXPECT_EQ(messageOf<MissingKeyException>([&] { l->logFile(); }),
        QStringLiteral("Trying to access the following key 'logger/logfile', but it does not exist"));
}
