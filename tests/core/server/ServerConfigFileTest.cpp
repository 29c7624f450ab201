#include "core/server/ServerConfigFile.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

using core::ServerConfigFile;

TEST(ServerConfigFileTest, TemplateResourceHasThirteenCrLfLines)
{
    QFile resource(QStringLiteral(":/postgres.tpl"));
    ASSERT_TRUE(resource.open(QIODevice::ReadOnly));
    const QByteArray bytes = resource.readAll();
    EXPECT_EQ(bytes.count("\r\n"), 12);
    EXPECT_FALSE(bytes.endsWith('\n'));
    EXPECT_TRUE(bytes.startsWith("max_connections = %MAXCONNECTION%\r\n"));
    EXPECT_TRUE(bytes.endsWith("\r\nport = %PG_PORT%"));
    EXPECT_TRUE(bytes.contains("log_directory = %LODDICTIONARY%\r\n"));
}

TEST(ServerConfigFileTest, RenderFillsEveryPlaceholder)
{
    bool ok = false;
    const QString text = ServerConfigFile::readTemplate(&ok);
    ASSERT_TRUE(ok);
    ServerConfigFile::Values values;
    values.sharedMemoryType = QStringLiteral("posix");
    values.dataDirectory = QStringLiteral("/srv/data/pg_data");
    values.installDirectory = QStringLiteral("/opt/zentrix/postgres");
    values.timeZone = QStringLiteral("Europe/Berlin");
    values.port = 5433;
    EXPECT_EQ(ServerConfigFile::render(text, values),
        QStringLiteral("max_connections = 100\n"
                       "shared_buffers = 128MB\n"
                       "dynamic_shared_memory_type = posix\n"
                       "max_wal_size = 1GB\n"
                       "min_wal_size = 80MB\n"
                       "log_directory = '/srv/data/pg_data/log'\n"
                       "logging_collector = on\n"
                       "log_file_mode = 0640\n"
                       "log_timezone = 'Europe/Berlin'\n"
                       "datestyle = 'iso, mdy'\n"
                       "timezone = 'Europe/Berlin'\n"
                       "include_dir = '/opt/zentrix/postgres'\n"
                       "port = 5433"));
    // Replacements apply in order, so a value holding a later placeholder is filled too.
    values.dataDirectory = QStringLiteral("%PG_PORT%");
    EXPECT_EQ(ServerConfigFile::render(QStringLiteral("%LODDICTIONARY%"), values), QStringLiteral("'5433/log'"));
}

TEST(ServerConfigFileTest, TimeZoneIsAnIdentifierNotAnOffset)
{
    const QString zone = ServerConfigFile::systemTimeZone();
    EXPECT_FALSE(zone.isEmpty());
    EXPECT_FALSE(zone.startsWith(QLatin1Char('+')) || zone.startsWith(QLatin1Char('-'))) << zone.toStdString();
}

TEST(ServerConfigFileTest, WriteTruncatesALongerFile)
{
    QTemporaryDir dir;
    const QString path = ServerConfigFile::outputPath(dir.path());
    EXPECT_EQ(path, dir.path() + QStringLiteral("/postgresql.conf"));
    ASSERT_TRUE(ServerConfigFile::write(path, QString(500, QLatin1Char('x'))));
    ASSERT_TRUE(ServerConfigFile::write(path, QStringLiteral("port = 1")));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), "port = 1");
    EXPECT_FALSE(ServerConfigFile::write(dir.filePath(QStringLiteral("missing/postgresql.conf")), QStringLiteral("x")));
}
