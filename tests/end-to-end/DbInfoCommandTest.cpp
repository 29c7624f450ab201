#include "support/QtPrinters.h"
#include "support/ToolSandbox.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>

namespace {
const QStringList kValid
    = {QStringLiteral("set"), QStringLiteral("host=db"), QStringLiteral("port=6432"), QStringLiteral("user=u"),
        QStringLiteral("password=pw"), QStringLiteral("type=local"), QStringLiteral("private_password=pp")};
}

class DbInfoCommandTest : public ::testing::Test
{
protected:
    QJsonObject shown(const QStringList &extra = {}) const
    {
        const ToolSandbox::Result result = m_sandbox.runDbInfo(QStringList{QStringLiteral("show")} + extra);
        EXPECT_EQ(result.exitCode, 0) << result.err.constData();
        return QJsonDocument::fromJson(result.out).object();
    }
    QString information() const { return m_sandbox.installation() + QStringLiteral("/zentrix_postgres.dat"); }

    ToolSandbox m_sandbox;
};

TEST_F(DbInfoCommandTest, SetCreatesKeyAndFileAndShowMasksSecrets)
{
    const ToolSandbox::Result result = m_sandbox.runDbInfo(kValid);
    ASSERT_EQ(result.exitCode, 0) << result.err.constData();
    EXPECT_EQ(QFile(m_sandbox.installation() + QStringLiteral("/zentrix_postgres.cat")).size(), 24);
    const QJsonObject masked = shown();
    EXPECT_EQ(masked.value(QStringLiteral("password")).toString(), QStringLiteral("********"));
    EXPECT_EQ(masked.value(QStringLiteral("private_password")).toString(), QStringLiteral("********"));
    EXPECT_EQ(masked.value(QStringLiteral("port")).toInt(), 6432);
    const QJsonObject revealed = shown({QStringLiteral("--reveal")});
    EXPECT_EQ(revealed.value(QStringLiteral("password")).toString(), QStringLiteral("pw"));
    EXPECT_EQ(revealed.value(QStringLiteral("private_password")).toString(), QStringLiteral("pp"));

    ASSERT_EQ(m_sandbox
                  .runDbInfo({QStringLiteral("set"), QStringLiteral("dbname=other"),
                      QStringLiteral("retain_private_user=TRUE")})
                  .exitCode,
        0);
    const QJsonObject updated = shown({QStringLiteral("--reveal")});
    EXPECT_EQ(updated.value(QStringLiteral("dbname")).toString(), QStringLiteral("other"));
    EXPECT_TRUE(updated.value(QStringLiteral("retain_private_user")).toBool());
    EXPECT_EQ(updated.value(QStringLiteral("host")).toString(), QStringLiteral("db")) << "other values are kept";
}

TEST_F(DbInfoCommandTest, BadInputIsRefusedWithAMessage)
{
    ASSERT_EQ(m_sandbox.runDbInfo(kValid).exitCode, 0);
    QFile file(information());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray before = file.readAll();
    file.close();
    const struct {
        QStringList arguments;
        const char *message;
    } cases[] = {
        {{QStringLiteral("set"), QStringLiteral("port=70000")}, "Invalid value for port: \"70000\""},
        {{QStringLiteral("set"), QStringLiteral("port=x")}, "Invalid value for port: \"x\""},
        {{QStringLiteral("set"), QStringLiteral("is_need_db_upgrade=maybe")},
            "Invalid value for is_need_db_upgrade: \"maybe\""},
        {{QStringLiteral("set"), QStringLiteral("type=cloud")}, "config file is invalid, type is invalid"},
        {{QStringLiteral("set"), QStringLiteral("host=")}, "config file is invalid, host is empty"},
        {{QStringLiteral("set"), QStringLiteral("colour=red")}, "Unknown key in \"colour=red\""},
        {{QStringLiteral("set"), QStringLiteral("novalue")}, "Unknown key in \"novalue\""},
    };
    for (const auto &c : cases) {
        const ToolSandbox::Result result = m_sandbox.runDbInfo(c.arguments);
        EXPECT_EQ(result.exitCode, 1) << c.message;
        EXPECT_TRUE(result.err.startsWith(c.message)) << result.err.constData();
    }
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), before) << "a refused change writes nothing";
}

TEST_F(DbInfoCommandTest, UnreadableFilesAreReported)
{
    EXPECT_EQ(m_sandbox.runDbInfo({QStringLiteral("show")}).exitCode, 1) << "no key file yet";
    ASSERT_EQ(m_sandbox.runDbInfo(kValid).exitCode, 0);
    QFile file(information());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write("garbage that does not decrypt to JSON");
    file.close();
    const ToolSandbox::Result show = m_sandbox.runDbInfo({QStringLiteral("show")});
    EXPECT_EQ(show.exitCode, 1);
    EXPECT_TRUE(show.err.startsWith("Could not read postgres's information file")) << show.err.constData();
    const ToolSandbox::Result set = m_sandbox.runDbInfo({QStringLiteral("set"), QStringLiteral("host=x")});
    EXPECT_EQ(set.exitCode, 1);
    EXPECT_EQ(m_sandbox.runDbInfo({QStringLiteral("bogus")}).exitCode, 2);
    EXPECT_EQ(m_sandbox
                  .runDbInfo({QStringLiteral("--installation"), m_sandbox.root() + QStringLiteral("/none"),
                      QStringLiteral("show")})
                  .exitCode,
        1);
}

TEST_F(DbInfoCommandTest, SecretFilesAreOwnerOnlyFromTheirCreation)
{
    if (QStandardPaths::findExecutable(QStringLiteral("strace")).isEmpty())
        GTEST_SKIP() << "strace is not installed";
    const QString trace = m_sandbox.root() + QStringLiteral("/trace");
    const ToolSandbox::Result result = ToolSandbox::run(QStringLiteral("strace"),
        QStringList{QStringLiteral("-f"), QStringLiteral("-e"), QStringLiteral("trace=open,openat,creat"),
            // LeakSanitizer cannot run under ptrace.
            QStringLiteral("-E"), QStringLiteral("ASAN_OPTIONS=detect_leaks=0"), QStringLiteral("-o"), trace,
            QStringLiteral(ZENTRIX_DBINFO_PATH)}
            + kValid,
        m_sandbox.workDirectory());
    ASSERT_EQ(result.exitCode, 0) << result.err.constData();
    QFile file(trace);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    int created = 0;
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (!line.contains(m_sandbox.installation().toUtf8())
            || !(line.contains("O_CREAT") || line.contains("O_TMPFILE")))
            continue;
        ++created;
        EXPECT_TRUE(line.contains(", 0600)")) << line.constData();
    }
    EXPECT_GE(created, 2) << "the key file and the information file";
}
