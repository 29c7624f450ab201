#include "support/ProductDatabaseTest.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QThread>

namespace {

constexpr int kWaitLimitMs = 60000;
constexpr int kPollIntervalMs = 20;
constexpr int kRowsPerInstance = 1500;

const QString kBad = QStringLiteral(R"({"type":"PE32","name":"lone \ud800 here"})");
const QString kFixed = QStringLiteral(R"({"type":"PE32","name":"lone \\ud800 here"})");

// Polls until the condition holds or the limit passes; true when it held.
template <typename Condition> bool waitFor(Condition condition, int limitMs = kWaitLimitMs)
{
    QDeadlineTimer deadline(limitMs);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QThread::msleep(kPollIntervalMs);
    }
    return true;
}

} // namespace

class FaultTest : public ProductDatabaseTest
{
protected:
    void SetUp() override
    {
        ProductDatabaseTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        addInstances({1, 2, 3});
        ASSERT_EQ(db(QStringLiteral("INSERT INTO scan.file (instance_id, request_id, filetype_details) "
                                    "SELECT i, 100, %1 FROM generate_series(1, 3) i, generate_series(1, %2);")
                          .arg(quoted(kBad))
                          .arg(kRowsPerInstance)),
            QString());
    }

    // Every row of instance 2 takes a millisecond to update.
    void slowDownInstanceTwo() const
    {
        ASSERT_EQ(
            db(QStringLiteral("CREATE FUNCTION slow() RETURNS trigger AS $$ BEGIN IF NEW.instance_id = 2 THEN "
                              "PERFORM pg_sleep(0.001); END IF; RETURN NEW; END $$ LANGUAGE plpgsql;"
                              "CREATE TRIGGER slow BEFORE UPDATE ON scan.file FOR EACH ROW EXECUTE FUNCTION slow();")),
            QString());
    }

    static bool updateOfInstanceTwoRuns()
    {
        return rows(QStringLiteral("SELECT count(*) FROM pg_stat_activity WHERE query LIKE 'UPDATE scan.file%' "
                                   "AND query LIKE '%instance_id = 2;'"))
                   .value(0)
            == QStringLiteral("1");
    }

    // Repaired rows of each instance: every instance must be all or nothing.
    static void expectEachInstanceWhole()
    {
        const QStringList counts = rows(
            QStringLiteral("SELECT count(*) FILTER (WHERE filetype_details = %1) FROM scan.file GROUP BY instance_id "
                           "ORDER BY instance_id")
                .arg(quoted(kFixed)));
        ASSERT_EQ(counts.size(), 3);
        for (const QString &count : counts)
            EXPECT_TRUE(count == QStringLiteral("0") || count == QString::number(kRowsPerInstance))
                << count.toStdString();
    }

    void expectNextRunCompletes() const
    {
        db(QStringLiteral("DROP TRIGGER IF EXISTS slow ON scan.file"));
        EXPECT_EQ(m_sandbox.runTool().exitCode, 0);
        EXPECT_EQ(
            rows(QStringLiteral("SELECT count(*) FROM scan.file WHERE filetype_details = %1").arg(quoted(kFixed))),
            QStringList({QString::number(3 * kRowsPerInstance)}));
    }

    QProcess *startTool()
    {
        m_tool.setWorkingDirectory(m_sandbox.workDirectory());
        m_tool.start(QStringLiteral(ZENTRIX_TOOL_PATH), QStringList());
        return &m_tool;
    }

    QProcess m_tool;
};

TEST_F(FaultTest, ToolKilledDuringAnUpdateLeavesEveryInstanceWhole)
{
    slowDownInstanceTwo();
    startTool();
    ASSERT_TRUE(waitFor(updateOfInstanceTwoRuns)) << "the update of instance 2 never ran";
    m_tool.kill();
    ASSERT_TRUE(m_tool.waitForFinished(kWaitLimitMs));
    // The server finishes or abandons the statement on its own; either way atomically.
    ASSERT_TRUE(waitFor([] { return !updateOfInstanceTwoRuns(); }));
    expectEachInstanceWhole();
    expectNextRunCompletes();
}

TEST_F(FaultTest, ServerStoppedImmediatelyDuringThePass)
{
    slowDownInstanceTwo();
    startTool();
    ASSERT_TRUE(waitFor(updateOfInstanceTwoRuns));
    s_server->stop(QStringLiteral("immediate"));
    ASSERT_TRUE(m_tool.waitForFinished(kWaitLimitMs)) << "the tool hangs on a vanished server";
    EXPECT_EQ(m_tool.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(m_tool.exitCode(), 0) << "a failed update is a warning, not a failed run";
    const QByteArray errors = m_tool.readAllStandardError();
    EXPECT_TRUE(errors.contains("WARNING: Data normalization is failed, data: filetype_details, instance id: 2\n"))
        << errors.constData();
    ASSERT_TRUE(s_server->start()) << s_server->error().toStdString();
    expectEachInstanceWhole();
    EXPECT_EQ(rows(QStringLiteral("SELECT count(*) FROM scan.file WHERE instance_id = 1 AND filetype_details = %1")
                       .arg(quoted(kFixed))),
        QStringList({QString::number(kRowsPerInstance)}));
    expectNextRunCompletes();
}

TEST_F(FaultTest, KilledWhileSavingTheInformationFileLeavesItReadable)
{
    const QString information = m_sandbox.installation() + QStringLiteral("/zentrix_postgres.dat");
    QString previous;
    auto *random = QRandomGenerator::global();
    for (int round = 0; round < 20; ++round) {
        // Long enough to make the write take a while; short enough for one argument.
        const QString value = QString(100000, QLatin1Char('a' + round % 26));
        QProcess saver;
        saver.setWorkingDirectory(m_sandbox.workDirectory());
        saver.start(QStringLiteral(ZENTRIX_DBINFO_PATH), {QStringLiteral("set"), QStringLiteral("pin_code=") + value});
        ASSERT_TRUE(saver.waitForStarted());
        QThread::usleep(random->bounded(1, 30000));
        saver.kill();
        saver.waitForFinished();

        const ToolSandbox::Result shown = m_sandbox.runDbInfo({QStringLiteral("show"), QStringLiteral("--reveal")});
        ASSERT_EQ(shown.exitCode, 0) << "round " << round << ": " << shown.err.constData();
        const QString pin = QJsonDocument::fromJson(shown.out).object().value(QStringLiteral("pin_code")).toString();
        EXPECT_TRUE(pin == value || pin == previous) << "round " << round;
        previous = pin;
    }
    EXPECT_TRUE(QFile::exists(information));
}

TEST_F(FaultTest, BadInformationAndKeyFilesNeverCrashTheRun)
{
    const QString information = m_sandbox.installation() + QStringLiteral("/zentrix_postgres.dat");
    const QString key = m_sandbox.installation() + QStringLiteral("/zentrix_postgres.cat");
    QFile file(information);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray good = file.readAll();
    file.close();
    QFile keyFile(key);
    ASSERT_TRUE(keyFile.open(QIODevice::ReadOnly));
    const QByteArray goodKey = keyFile.readAll();
    keyFile.close();

    const struct {
        const char *name;
        QByteArray information;
        QByteArray key;
    } cases[] = {
        {"truncated information", good.left(good.size() / 2), goodKey},
        {"corrupted information", QByteArray(good).replace(5, 3, "\xff\x00\x17"), goodKey},
        {"empty information", QByteArray(), goodKey},
        {"empty key", good, QByteArray()},
        {"short key", good, goodKey.left(10)},
        {"garbage key", good, QByteArray(24, '\x5a')},
    };
    const auto put = [](const QString &path, const QByteArray &bytes) {
        QFile out(path);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly | QIODevice::Truncate));
        out.write(bytes);
    };
    const QDir installation(m_sandbox.installation());
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        for (const QString &kept : installation.entryList({QStringLiteral("*.unreadable-*")}))
            QFile::remove(installation.filePath(kept));
        put(information, c.information);
        put(key, c.key);
        const ToolSandbox::Result result = m_sandbox.runTool();
        EXPECT_FALSE(result.crashed);
        // The record is filled in as on a first run: it names a database that does not
        // exist and has no host, so the connection fails.
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_TRUE(m_sandbox.runLogMasked().endsWith(
            QStringLiteral("[ERROR\t] <ts>: Cannot connect to Postgres server: sentrova_core_%1\n")
                .arg(m_sandbox.runLogMasked().right(7).left(6))));
        const QStringList kept = installation.entryList({QStringLiteral("zentrix_postgres.dat.unreadable-*")});
        if (c.information.isEmpty() || c.key == goodKey) {
            ASSERT_EQ(kept.size(), 1) << "the unreadable file is kept";
            QFile copy(installation.filePath(kept.first()));
            ASSERT_TRUE(copy.open(QIODevice::ReadOnly));
            EXPECT_EQ(copy.readAll(), c.information);
        }
        put(information, good);
        put(key, goodKey);
    }
}

TEST_F(FaultTest, UnreadableKeyFileFailsTheRunAndChangesNothing)
{
    const QString information = m_sandbox.installation() + QStringLiteral("/zentrix_postgres.dat");
    const QString key = m_sandbox.installation() + QStringLiteral("/zentrix_postgres.cat");
    QFile file(information);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray before = file.readAll();
    file.close();
    // A key file that exists but cannot be read, whatever the account running the test.
    ASSERT_TRUE(QFile::remove(key));
    ASSERT_TRUE(QDir().mkdir(key));
    const ToolSandbox::Result result = m_sandbox.runTool();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(result.err.startsWith("Could not read the key file " + key.toUtf8() + ": ")) << result.err.constData();
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), before);
    EXPECT_TRUE(QFileInfo(key).isDir());
    EXPECT_EQ(QDir(m_sandbox.installation()).entryList(QDir::Files), QStringList({"zentrix_postgres.dat"}));
}

TEST_F(FaultTest, InformationWithWrongTypesOrValuesNeverCrashesTheRun)
{
    const QList<QByteArray> documents = {
        R"({"host":5,"port":"x","user":true,"password":[],"type":"remote"})",
        R"({"host":"127.0.0.1","port":1,"user":"u","password":"p","type":"cloud"})",
        R"({"host":"","port":1,"user":"","password":"","type":"local"})",
        R"(["not", "an", "object"])",
        R"({"host":"127.0.0.1","port":99999999999,"user":"u","password":"p","type":"2","dbname":{}})",
    };
    const QString information = m_sandbox.installation() + QStringLiteral("/zentrix_postgres.dat");
    for (const QByteArray &document : documents) {
        SCOPED_TRACE(document.constData());
        // Encrypt with the installation's key through the openssl command line.
        QFile keyFile(m_sandbox.installation() + QStringLiteral("/zentrix_postgres.cat"));
        ASSERT_TRUE(keyFile.open(QIODevice::ReadOnly));
        const QByteArray keyBytes = keyFile.read(24);
        QProcess openssl;
        openssl.start(QStringLiteral("openssl"),
            {QStringLiteral("enc"), QStringLiteral("-des-ede3-cfb8"), QStringLiteral("-K"),
                QString::fromLatin1(keyBytes.toHex()), QStringLiteral("-iv"),
                QString::fromLatin1(keyBytes.left(8).toHex())});
        openssl.write(document);
        openssl.closeWriteChannel();
        ASSERT_TRUE(openssl.waitForFinished());
        QFile out(information);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly | QIODevice::Truncate));
        out.write(openssl.readAllStandardOutput());
        out.close();
        const ToolSandbox::Result result = m_sandbox.runTool();
        EXPECT_FALSE(result.crashed);
        EXPECT_EQ(result.exitCode, 1);
        out.remove();
        provision(m_sandbox, s_server->port());
    }
}

TEST_F(FaultTest, ConfigurationValuesOfWrongTypes)
{
    const QByteArray head = "InstallationFolder=" + m_sandbox.installation().toUtf8()
        + "\n[global]\nrestaddress=127.0.0.1\nrestport=8008\n";
    const QByteArray data = "data_directory=" + m_sandbox.dataDirectory().toUtf8() + "\n";
    m_sandbox.writeConfig(head + "[internal]\ndb_connection=abc\n" + data);
    ToolSandbox::Result result = m_sandbox.runTool();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "Invalid total database connections value: 0");

    m_sandbox.writeConfig(head + "dbmode=shared\n[internal]\n" + data);
    EXPECT_TRUE(m_sandbox.runTool().crashed) << "configuration errors end the process abnormally";

    m_sandbox.writeConfig(head + "[internal]\ndata_directory=a, b\n");
    result = m_sandbox.runTool();
    EXPECT_FALSE(result.crashed);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(result.err.startsWith("ERROR: Cannot open file log: ")) << result.err.constData();
}

TEST_F(FaultTest, MegabyteAndEmptyDocuments)
{
    ASSERT_EQ(db(QStringLiteral("TRUNCATE scan.file")), QString());
    // A megabyte of file-type details with a bad escape in every 256th entry: the server's
    // replacement costs grow with matches times length, so a document packed with bad
    // escapes throughout would measure the server's regex engine, not the tool.
    QString big = QStringLiteral(R"({"entries":[)");
    const QString plain = QStringLiteral(R"("section .text size 4096 flags rx entropy 6.1 pair \ud83d\ude00 ok",)");
    const QString bad = QStringLiteral(R"("name \ud800 \u0000 \x41 lone \udc00",)");
    for (int entry = 0; big.size() < 1024 * 1024; ++entry)
        big += entry % 256 == 0 ? bad : plain;
    big += QStringLiteral(R"("end"]})");
    ASSERT_EQ(db(QStringLiteral("CREATE TABLE original AS SELECT 1 AS id, %1::text AS doc UNION ALL SELECT 2, ''")
                      .arg(quoted(big))),
        QString());
    ASSERT_EQ(db(QStringLiteral("INSERT INTO scan.file (id, instance_id, request_id, filetype_details) "
                                "SELECT id, 1, 100, doc FROM original")),
        QString());
    const ToolSandbox::Result result = m_sandbox.runTool();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(rows(QStringLiteral("SELECT count(*) FROM scan.file f JOIN original o USING (id) "
                                  "WHERE f.filetype_details = %1")
                       .arg(serverReplacement(QStringLiteral("o.doc")))),
        QStringList({QStringLiteral("2")}));
    EXPECT_EQ(rows(QStringLiteral("SELECT (filetype_details::jsonb IS NOT NULL)::text FROM scan.file WHERE id = 1")),
        QStringList({QStringLiteral("true")}))
        << "the big document is valid JSON now";
    EXPECT_EQ(rows(QStringLiteral("SELECT filetype_details FROM scan.file WHERE id = 2")), QStringList({QString()}));
}
