#include "support/ProductDatabaseTest.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

#include <QDeadlineTimer>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QStringDecoder>
#include <QThread>

namespace {

const QByteArray kUsage = "Usage:\n"
                          " * zentrix-data-normalizer\n"
                          " Options and arguments (and corresponding environment variables):\n"
                          " * no options\t: Normalize the data, default: filetype details\n"
                          " * -h\t\t: (--help) instruction\n";

} // namespace

class ToolEndToEndTest : public ProductDatabaseTest
{
protected:
    QByteArray fileLogLine() const { return "File log: " + m_sandbox.runLogPath().toUtf8() + "\n"; }
    static QByteArray doneLine(int instance)
    {
        return "Data normalization is done, data: filetype_details, instance id: " + QByteArray::number(instance)
            + "\n";
    }
};

TEST_F(ToolEndToEndTest, BareRunNormalizesEveryListedInstance)
{
    addInstances({1, 2});
    addRow(1, 5, QStringLiteral(R"({"a":"\ud800"})"));
    const ToolSandbox::Result result = m_sandbox.runTool();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, fileLogLine() + doneLine(1) + doneLine(2));
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(m_sandbox.runLogMasked(),
        QStringLiteral("[INFO\t] <ts>: Data normalization is done, data: filetype_details, instance id: 1\n"
                       "[INFO\t] <ts>: Data normalization is done, data: filetype_details, instance id: 2\n"));
    EXPECT_EQ(rows(QStringLiteral("SELECT filetype_details FROM scan.file")),
        QStringList({QStringLiteral(R"({"a":"\\ud800"})")}));
}

TEST_F(ToolEndToEndTest, HelpPrintsUsageAndFails)
{
    for (const QString &help : {QStringLiteral("-h"), QStringLiteral("--help")}) {
        const ToolSandbox::Result result = m_sandbox.runTool({help});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.out, fileLogLine() + kUsage);
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(m_sandbox.runLog(), "");
    }
}

TEST_F(ToolEndToEndTest, OtherArgumentsSkipThePassAfterConnecting)
{
    addInstances({1});
    addRow(1, 5, QStringLiteral(R"({"a":"\u0000"})"));
    const QList<QStringList> argumentLists = {{QStringLiteral("-H")}, {QStringLiteral("help")},
        {QStringLiteral("--help"), QStringLiteral("x")}, {QStringLiteral("a"), QStringLiteral("b")}};
    for (const QStringList &arguments : argumentLists) {
        const ToolSandbox::Result result = m_sandbox.runTool(arguments);
        EXPECT_EQ(result.exitCode, 0) << arguments.join(QLatin1Char(' ')).toStdString();
        EXPECT_EQ(result.out, fileLogLine());
        EXPECT_EQ(result.err, "");
    }
    EXPECT_EQ(rows(QStringLiteral("SELECT filetype_details FROM scan.file")),
        QStringList({QStringLiteral(R"({"a":"\u0000"})")}));
    EXPECT_EQ(m_sandbox.runLog(), "");
}

TEST_F(ToolEndToEndTest, MissingLogDirectoryEndsTheRun)
{
    ASSERT_TRUE(QDir(m_sandbox.dataDirectory() + QStringLiteral("/logs")).removeRecursively());
    const ToolSandbox::Result result = m_sandbox.runTool();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, fileLogLine());
    EXPECT_EQ(result.err, "ERROR: Cannot open file log: " + m_sandbox.runLogPath().toUtf8() + "\n");
    EXPECT_FALSE(QDir(m_sandbox.dataDirectory() + QStringLiteral("/logs")).exists());
}

TEST_F(ToolEndToEndTest, ConfigurationErrorsEndTheProcessAbnormallyBeforeAnyLog)
{
    const QList<QByteArray> configurations = {
        "[global]\nrestaddress=127.0.0.1\n",
        "[global]\nrestaddress=127.0.0.1\nrestport=1\n[dbserver]\ndbname=x\n",
    };
    for (const QByteArray &configuration : configurations) {
        m_sandbox.writeConfig(
            configuration + "[internal]\ndata_directory=" + m_sandbox.dataDirectory().toUtf8() + "\n");
        const ToolSandbox::Result result = m_sandbox.runTool();
        EXPECT_TRUE(result.crashed);
        EXPECT_EQ(result.out, "");
        EXPECT_FALSE(QFile::exists(m_sandbox.runLogPath()));
    }
    // Without the file the native settings hold nothing, so the required keys are missing.
    QFile::remove(m_sandbox.configPath());
    EXPECT_TRUE(m_sandbox.runTool().crashed);
}

TEST_F(ToolEndToEndTest, UnreachableServerIsAConnectionFailure)
{
    provision(m_sandbox, TestPostgresServer::freePort());
    const ToolSandbox::Result result = m_sandbox.runTool();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, fileLogLine());
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(m_sandbox.runLogMasked(), QStringLiteral("[ERROR\t] <ts>: Cannot connect to Postgres server: product\n"));
}

TEST_F(ToolEndToEndTest, UnreadableInstanceListFailsTheRun)
{
    ASSERT_EQ(db(QStringLiteral("DROP TABLE warehouse.control_refresh")), QString());
    const ToolSandbox::Result result = m_sandbox.runTool();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, fileLogLine());
    EXPECT_EQ(result.err, "ERROR: Data normalization is failed.\n");
    EXPECT_TRUE(m_sandbox.runLogMasked().startsWith(
        QStringLiteral("[ERROR\t] <ts>: Select all last_request_id unsuccessfully. ERROR:  relation "
                       "\"warehouse.control_refresh\" does not exist")))
        << m_sandbox.runLogMasked().toStdString();
}

TEST_F(ToolEndToEndTest, OneFailingInstanceDoesNotStopTheOthers)
{
    addInstances({1, 2, 3});
    for (int instance : {1, 2, 3})
        addRow(instance, 10, QStringLiteral(R"({"a":"\x41"})"));
    ASSERT_EQ(db(QStringLiteral(
                  "CREATE FUNCTION refuse_two() RETURNS trigger AS $$ BEGIN IF NEW.instance_id = 2 THEN "
                  "RAISE EXCEPTION 'instance two is locked'; END IF; RETURN NEW; END $$ LANGUAGE plpgsql;"
                  "CREATE TRIGGER refuse BEFORE UPDATE ON scan.file FOR EACH ROW EXECUTE FUNCTION refuse_two();")),
        QString());
    const ToolSandbox::Result result = m_sandbox.runTool();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, fileLogLine() + doneLine(1) + doneLine(3));
    EXPECT_EQ(result.err, "WARNING: Data normalization is failed, data: filetype_details, instance id: 2\n");
    const QStringList lines = m_sandbox.runLogMasked().split(QLatin1Char('\n'));
    EXPECT_EQ(lines.value(0),
        QStringLiteral("[INFO\t] <ts>: Data normalization is done, data: filetype_details, instance id: 1"));
    EXPECT_TRUE(lines.value(1).startsWith(
        QStringLiteral("[WARNING] <ts>: Data normalization is failed, data: filetype_details, instance id: 2. "
                       "ERROR:  instance two is locked")))
        << lines.value(1).toStdString();
    EXPECT_TRUE(m_sandbox.runLogMasked().endsWith(
        QStringLiteral("[INFO\t] <ts>: Data normalization is done, data: filetype_details, instance id: 3\n")));
    EXPECT_EQ(rows(QStringLiteral("SELECT filetype_details FROM scan.file ORDER BY instance_id")),
        QStringList({QStringLiteral(R"({"a":"\\x41"})"), QStringLiteral(R"({"a":"\x41"})"),
            QStringLiteral(R"({"a":"\\x41"})")}));
}

TEST_F(ToolEndToEndTest, EmptyInstanceListIsASilentSuccess)
{
    const ToolSandbox::Result result = m_sandbox.runTool();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, fileLogLine());
    EXPECT_EQ(result.err, "");
    EXPECT_TRUE(QFile::exists(m_sandbox.runLogPath()));
    EXPECT_EQ(m_sandbox.runLog(), "");
}

TEST_F(ToolEndToEndTest, ProductExceptionIsReportedRawAfterTeardown)
{
    m_sandbox.writeConfig("InstallationFolder=" + m_sandbox.installation().toUtf8()
        + "\n[global]\nrestaddress=127.0.0.1\nrestport=8008\n[internal]\ndb_connection=0\n"
          "data_directory="
        + m_sandbox.dataDirectory().toUtf8() + "\n");
    const ToolSandbox::Result result = m_sandbox.runTool();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, fileLogLine());
    EXPECT_EQ(result.err, "Invalid total database connections value: 0");
    EXPECT_EQ(m_sandbox.runLog(), "Invalid total database connections value: 0\n");
}

TEST_F(ToolEndToEndTest, OnlyListedInstancesAndLaterRequestsAreRewrittenOnce)
{
    addInstances({5, 7});
    const QString bad = QStringLiteral(R"({"a":"\u0000"})");
    const QString fixed = QStringLiteral(R"({"a":"\\u0000"})");
    addRow(5, 5, bad); // request id not above the instance id
    addRow(5, 6, bad);
    addRow(7, 100, bad);
    addRow(8, 100, bad); // instance not listed
    ASSERT_EQ(m_sandbox.runTool().exitCode, 0);
    const QStringList expected = {bad, fixed, fixed, bad};
    const QString select = QStringLiteral("SELECT filetype_details FROM scan.file ORDER BY id");
    EXPECT_EQ(rows(select), expected);
    ASSERT_EQ(m_sandbox.runTool().exitCode, 0);
    EXPECT_EQ(rows(select), expected) << "a second run leaves repaired rows as they are";
}

TEST_F(ToolEndToEndTest, EscapeKindsAreNeutralisedAndValidTextKept)
{
    const struct {
        const char *input;
        const char *expected;
    } cases[] = {
        {R"({"a":"\ud800"})", R"({"a":"\\ud800"})"},
        {R"({"a":"\udc00x"})", R"({"a":"\\udc00x"})"},
        {R"({"a":"\ud83d\ude00"})", R"({"a":"\ud83d\ude00"})"},
        {R"({"a":"\uD83D\uDE00"})", R"({"a":"\uD83D\uDE00"})"},
        {R"({"a":"\ud800\ud800"})", R"({"a":"\\ud800\\ud800"})"},
        {R"({"a":"\u0000"})", R"({"a":"\\u0000"})"},
        {R"({"a":"\U0000"})", R"({"a":"\\U0000"})"},
        {R"({"a":"\\\u0000"})", R"({"a":"\\u0000"})"},
        {R"({"a":"\\\\\ud800"})", R"({"a":"\\ud800"})"},
        {R"({"a":"\x41"})", R"({"a":"\\x41"})"},
        {R"({"a":"\X41"})", R"({"a":"\\X41"})"},
        {R"({"a":"\\ud800"})", R"({"a":"\\ud800"})"},
        {R"({"a":"\\\\"})", R"({"a":"\\\\"})"},
        {R"({"a":"\u00e9\n"})", R"({"a":"\u00e9\n"})"},
        {"", ""},
    };
    addInstances({1});
    for (const auto &c : cases)
        addRow(1, 2, QString::fromUtf8(c.input));
    ASSERT_EQ(m_sandbox.runTool().exitCode, 0);
    const QStringList actual = rows(QStringLiteral("SELECT filetype_details FROM scan.file ORDER BY id"));
    ASSERT_EQ(actual.size(), static_cast<int>(std::size(cases)));
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(actual[static_cast<int>(i)], QString::fromUtf8(cases[i].expected)) << cases[i].input;
    EXPECT_TRUE(rows(QStringLiteral("SELECT count(*) FROM scan.file WHERE id < 14 AND filetype_details::jsonb IS NULL"))
                    .value(0)
        == QStringLiteral("0"));
}

TEST_F(ToolEndToEndTest, JsonTestSuiteDocumentsMatchTheServersOwnReplacement)
{
    const QString suite = QStringLiteral(ZENTRIX_JSON_SUITE_PATH);
    if (!QFileInfo(suite).isDir())
        GTEST_SKIP() << "the JSONTestSuite corpus is not at " << suite.toStdString();
    ASSERT_EQ(db(QStringLiteral("CREATE TABLE corpus (id int, name text, original text)")), QString());
    addInstances({1});
    int count = 0;
    int skipped = 0;
    QDirIterator it(suite, {QStringLiteral("*.json")}, QDir::Files);
    while (it.hasNext()) {
        QFile file(it.next());
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        const QString text = decoder.decode(bytes);
        // A text column holds neither NUL bytes nor invalid UTF-8.
        if (bytes.contains('\0') || decoder.hasError()) {
            ++skipped;
            continue;
        }
        ++count;
        ASSERT_EQ(db(QStringLiteral("WITH row AS (INSERT INTO scan.file (instance_id, request_id, filetype_details) "
                                    "VALUES (1, 2, %2) RETURNING id) INSERT INTO corpus SELECT id, %1, %2 FROM row")
                          .arg(quoted(QFileInfo(file).fileName()), quoted(text))),
            QString());
    }
    ASSERT_GT(count, 250);
    ASSERT_EQ(m_sandbox.runTool().exitCode, 0);
    const QStringList mismatches = rows(QStringLiteral("SELECT c.name FROM corpus c JOIN scan.file f ON f.id = c.id "
                                                       "WHERE f.filetype_details IS DISTINCT FROM %1")
                                            .arg(serverReplacement(QStringLiteral("c.original"))));
    EXPECT_EQ(mismatches, QStringList());
    const QStringList changed = rows(QStringLiteral("SELECT c.name FROM corpus c JOIN scan.file f ON f.id = c.id "
                                                    "WHERE f.filetype_details <> c.original ORDER BY 1"));
    EXPECT_TRUE(changed.contains(QStringLiteral("i_string_1st_surrogate_but_2nd_missing.json")))
        << changed.join(QLatin1Char(' ')).toStdString();
    EXPECT_TRUE(changed.contains(QStringLiteral("n_string_escape_x.json")));
    EXPECT_FALSE(changed.contains(QStringLiteral("y_string_accepted_surrogate_pair.json")));
    EXPECT_FALSE(changed.contains(QStringLiteral("y_string_escaped_backslash.json")));
    std::cout << count << " documents, " << skipped << " skipped (NUL bytes or invalid UTF-8), " << changed.size()
              << " rewritten\n";
}

TEST_F(ToolEndToEndTest, FirstRunSavesGeneratedValuesOnceAndTheSecondWritesNothing)
{
    ToolSandbox sandbox;
    provision(sandbox, s_server->port(), QString());
    const QString information = sandbox.installation() + QStringLiteral("/zentrix_postgres.dat");
    EXPECT_EQ(sandbox.runTool().exitCode, 1) << "the generated database does not exist";
    const ToolSandbox::Result shown = sandbox.runDbInfo({QStringLiteral("show"), QStringLiteral("--reveal")});
    ASSERT_EQ(shown.exitCode, 0);
    const QJsonObject stored = QJsonDocument::fromJson(shown.out).object();
    const QString token = stored.value(QStringLiteral("deployment_id")).toString();
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^[0-9a-z]{6}$")).match(token).hasMatch()) << token.toStdString();
    EXPECT_EQ(stored.value(QStringLiteral("instance_name")).toString(), token);
    EXPECT_EQ(stored.value(QStringLiteral("dbname")).toString(), QStringLiteral("sentrova_core_") + token);
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^[0-9a-f]{32}$"))
                    .match(stored.value(QStringLiteral("private_password")).toString())
                    .hasMatch());
    EXPECT_TRUE(sandbox.runLogMasked().contains(QStringLiteral("Cannot connect to Postgres server: sentrova_core_")));

    QFile file(information);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray before = file.readAll();
    const QDateTime modified = QFileInfo(information).lastModified();
    file.close();
    EXPECT_EQ(sandbox.runTool().exitCode, 1);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), before);
    EXPECT_EQ(QFileInfo(information).lastModified(), modified);
}

TEST_F(ToolEndToEndTest, DryRunCountsWhatTheRunThenChangesAndWritesNothing)
{
    addInstances({1, 2, 3});
    const QStringList documents = {QStringLiteral(R"({"a":"\ud800"})"), QStringLiteral(R"({"a":"ok"})"),
        QStringLiteral(R"({"a":"\x41 \u0000"})"), QStringLiteral(R"({"a":"\\ud800"})")};
    for (int instance : {1, 2, 3}) {
        for (int request = 0; request < 7; ++request)
            addRow(instance, request, documents[(instance + request) % documents.size()]);
    }
    // Per instance: rows rewritten (a new row version) and rows whose text changed since the snapshot.
    ASSERT_EQ(db(QStringLiteral("CREATE TABLE original AS SELECT id, xmin::text AS x, filetype_details AS doc FROM "
                                "scan.file")),
        QString());
    const QString effect = QStringLiteral(
        "SELECT f.instance_id || ' ' || count(*) FILTER (WHERE f.xmin::text <> o.x) || ' ' || count(*) FILTER "
        "(WHERE f.filetype_details <> o.doc) FROM scan.file f JOIN original o USING (id) GROUP BY f.instance_id "
        "ORDER BY f.instance_id");
    const QString updatedTuples = QStringLiteral("SELECT n_tup_upd FROM pg_stat_user_tables WHERE relname = 'file'");

    const ToolSandbox::Result dry
        = m_sandbox.runTool({QStringLiteral("--dry-run"), QStringLiteral("--jobs"), QStringLiteral("3")});
    EXPECT_EQ(dry.exitCode, 0);
    EXPECT_EQ(dry.err, "");
    EXPECT_EQ(rows(effect), QStringList({"1 0 0", "2 0 0", "3 0 0"}));
    QStringList reported;
    for (const QByteArray &line : dry.out.split('\n')) {
        const QString cells = QString::fromUtf8(line).simplified();
        if (!cells.isEmpty() && cells.front().isDigit())
            reported << cells;
    }
    EXPECT_TRUE(m_sandbox.runLogMasked().contains(QStringLiteral("[INFO\t] <ts>: Dry run, nothing is written")));

    ASSERT_EQ(m_sandbox.runTool().exitCode, 0);
    const QStringList changed = rows(effect);
    EXPECT_EQ(reported, changed) << dry.out.constData();
    int inRange = 0;
    for (const QString &row : changed)
        inRange += row.section(QLatin1Char(' '), 1, 1).toInt();
    // Statistics arrive when a server process ends; the dry run's would come first.
    QDeadlineTimer deadline(10000);
    while (rows(updatedTuples).value(0).toInt() < inRange && !deadline.hasExpired())
        QThread::msleep(50);
    EXPECT_EQ(rows(updatedTuples), QStringList({QString::number(inRange)})) << "the dry run updated nothing";
}

TEST_F(ToolEndToEndTest, JobsSpreadTheInstancesAndBadCountsEndTheRunFirst)
{
    addInstances({1, 2, 3, 4});
    for (int instance : {1, 2, 3, 4})
        addRow(instance, 10, QStringLiteral(R"({"a":"\x41"})"));
    ASSERT_EQ(db(QStringLiteral(
                  "CREATE FUNCTION refuse_two() RETURNS trigger AS $$ BEGIN IF NEW.instance_id = 2 THEN "
                  "RAISE EXCEPTION 'instance two is locked'; END IF; RETURN NEW; END $$ LANGUAGE plpgsql;"
                  "CREATE TRIGGER refuse BEFORE UPDATE ON scan.file FOR EACH ROW EXECUTE FUNCTION refuse_two();")),
        QString());
    const QString select = QStringLiteral("SELECT filetype_details FROM scan.file ORDER BY instance_id");
    for (const QString &bad : {QStringLiteral("x"), QStringLiteral("0"), QStringLiteral("11"), QString()}) {
        const QStringList arguments
            = bad.isNull() ? QStringList{QStringLiteral("--jobs")} : QStringList{QStringLiteral("--jobs"), bad};
        const ToolSandbox::Result result = m_sandbox.runTool(arguments);
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.out, fileLogLine());
        EXPECT_TRUE(result.err.startsWith("ERROR: --jobs needs a number from 1 to 10")) << result.err.constData();
        EXPECT_EQ(result.err.count('\n'), 1);
    }
    EXPECT_EQ(m_sandbox.runLog(), "");
    EXPECT_EQ(rows(select).count(QStringLiteral(R"({"a":"\x41"})")), 4);

    const ToolSandbox::Result result = m_sandbox.runTool({QStringLiteral("--jobs"), QStringLiteral("3")});
    EXPECT_EQ(result.exitCode, 0);
    QList<QByteArray> out = result.out.split('\n');
    std::sort(out.begin(), out.end());
    EXPECT_EQ(out.join('\n'), "\n" + doneLine(1) + doneLine(3) + doneLine(4) + fileLogLine().chopped(1));
    EXPECT_EQ(result.err, "WARNING: Data normalization is failed, data: filetype_details, instance id: 2\n");
    EXPECT_EQ(m_sandbox.runLogMasked().count(QStringLiteral(" <ts>: Data normalization is ")), 4)
        << m_sandbox.runLog().constData();
    EXPECT_EQ(rows(select),
        QStringList({QStringLiteral(R"({"a":"\\x41"})"), QStringLiteral(R"({"a":"\x41"})"),
            QStringLiteral(R"({"a":"\\x41"})"), QStringLiteral(R"({"a":"\\x41"})")}));
}
