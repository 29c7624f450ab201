#include "app/RunLog.h"

#include "support/QtPrinters.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

namespace {
QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
} // namespace

TEST(RunLogTest, PathCarriesTheDate)
{
    EXPECT_EQ(RunLog::filePath(QStringLiteral("D:/data/logs"), QDate(2026, 3, 5)),
        QStringLiteral("D:/data/logs/data_normalizer-20260305.log"));
}

TEST(RunLogTest, TagsKeepTheirTabs)
{
    EXPECT_EQ(RunLog::tag(0), QStringLiteral("[INFO\t]"));
    EXPECT_EQ(RunLog::tag(1), QStringLiteral("[WARNING]"));
    EXPECT_EQ(RunLog::tag(2), QStringLiteral("[ERROR\t]"));
    EXPECT_EQ(RunLog::tag(3), QString());
    EXPECT_EQ(RunLog::tag(-1), QString());
}

TEST(RunLogTest, TwoWritersAppendToOneFileWithExactLines)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("run.log"));
    {
        QFile earlier(path);
        ASSERT_TRUE(earlier.open(QIODevice::WriteOnly));
        earlier.write("earlier run\n");
    }
    RunLog first;
    RunLog second;
    first.open(path);
    second.open(path);
    ASSERT_TRUE(first.isOpen());
    ASSERT_TRUE(second.isOpen());
    first.writeLine(0, QStringLiteral("Data normalization is done, data: filetype_details, instance id: 1"));
    second.writeLine(1, QStringLiteral("Data normalization is failed, data: x, instance id: 2. é"));
    first.writeLine(2, QStringLiteral("Failed to init Postgres service"));
    second.writeLine(7, QStringLiteral("no tag"));
    second.writeRaw(QStringLiteral("raw message"));

    const QList<QByteArray> lines = contents(path).split('\n');
    ASSERT_EQ(lines.size(), 7);
    EXPECT_EQ(lines[0], "earlier run");
    const QString stamp = QStringLiteral("\\d{4}\\.\\d{2}\\.\\d{2} \\d{2}:\\d{2}:\\d{2}\\.\\d{3}: ");
    const struct {
        QByteArray prefix;
        QByteArray message;
    } expected[] = {
        {"[INFO\t] ", "Data normalization is done, data: filetype_details, instance id: 1"},
        {"[WARNING] ", "Data normalization is failed, data: x, instance id: 2. \xc3\xa9"},
        {"[ERROR\t] ", "Failed to init Postgres service"},
        {" ", "no tag"},
    };
    for (int i = 0; i < 4; ++i) {
        const QByteArray &line = lines[i + 1];
        ASSERT_TRUE(line.startsWith(expected[i].prefix)) << line.constData();
        ASSERT_TRUE(line.endsWith(expected[i].message)) << line.constData();
        const QString middle = QString::fromUtf8(
            line.mid(expected[i].prefix.size(), line.size() - expected[i].prefix.size() - expected[i].message.size()));
        EXPECT_TRUE(QRegularExpression(QLatin1Char('^') + stamp + QLatin1Char('$')).match(middle).hasMatch())
            << middle.toStdString();
    }
    EXPECT_EQ(lines[5], "raw message");
    EXPECT_EQ(lines[6], "");
}

TEST(RunLogTest, MissingDirectoryIsNotCreated)
{
    QTemporaryDir dir;
    RunLog log;
    log.open(dir.filePath(QStringLiteral("missing/run.log")));
    EXPECT_FALSE(log.isOpen());
    EXPECT_FALSE(QFile::exists(dir.filePath(QStringLiteral("missing"))));
}
