#include "end-to-end/ToolTest.h"

#include <QRegularExpression>

#include <future>
#include <random>

namespace {
constexpr int kDocuments = 3000;
constexpr int kListed = 24;
// Instance 23 has the long rows, listed instance 24 none; instance 21 has rows, none in its range.
constexpr int kWithRows = 22;
constexpr int kLongRows = 23;
// Up to this length the product's own statement is the reference; beyond, it would take minutes.
constexpr int kProductLengthLimit = 40'000;
// The rows a second connection rewrites while the run waits for them: to a new bad text and
// to a good one. Neither may be written from its old text; the bad one is repaired from its new.
const QString kNewBad = uR"({"k":"\udc00 new"})"_s;
const QString kNewBadRepaired = uR"({"k":"\\udc00 new"})"_s;
const QString kNewGood = uR"({"k":"good"})"_s;

// Random runs of backslashes in front of lone, paired and broken surrogate escapes, NUL and
// \x in any case, between ordinary text.
QString fuzzedDocument(std::mt19937 &random)
{
    static const QStringList escapes
        = {u"ud800"_s, u"uDBFF"_s, u"udc00"_s, u"uDfFf"_s, u"ud83d\\ude00"_s, u"uD83D\\uDE00"_s, u"ud83d\\\\ude00"_s,
            u"ud800\\udc0"_s, u"u0000"_s, u"U0000"_s, u"x41"_s, u"X"_s, u"n"_s, u"u00e9"_s, u"\""_s};
    static const QStringList texts = {u"a"_s, u" "_s, u"é"_s, u"ud800"_s, u"x"_s};
    QString text;
    for (int part = random() % 7; part > 0; --part) {
        if (random() % 3 == 0)
            text += texts[random() % texts.size()];
        else
            text += QString(1 + random() % 4, QLatin1Char('\\')) + escapes[random() % escapes.size()];
    }
    return u"{\"k\":\"%1\"}"_s.arg(text);
}

// The product's expression run by PCRE2, whose fixed-length look-behind costs the same at
// every position: the reference for rows too long for the server to run the product's own.
QString repairedByPcre(const QString &text)
{
    static const QRegularExpression pattern(
        uR"((?<![\\]ud[89ab][0-9a-f]{2})[\\]+(?=ud[c-f][0-9a-f]{2})|)"
        uR"([\\]+(?=ud[89ab][0-9a-f]{2}(?![\\]ud[c-f][0-9a-f]{2}))|[\\]+(?=u0000|x))"_s,
        QRegularExpression::CaseInsensitiveOption);
    QString repaired;
    qsizetype done = 0;
    for (QRegularExpressionMatchIterator it = pattern.globalMatch(text); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        repaired += text.mid(done, match.capturedStart() - done) + u"\\\\"_s;
        done = match.capturedEnd();
    }
    return repaired + text.mid(done);
}

// Rows of 10 KB to 1 MB, each a unit repeated: lone lows, repaired ones, pairs, a mix, fuzz.
QStringList longRows(std::mt19937 &random)
{
    QString fuzz;
    while (fuzz.size() < 1'000'000)
        fuzz += fuzzedDocument(random);
    const QStringList units
        = {uR"(\udc00 )"_s, uR"(\\udc00 )"_s, uR"(\ud800\udc00)"_s, uR"(\UD800x\\\uDC00\u0000\X)"_s, fuzz};
    QStringList rows;
    for (const int length : {10'000, kProductLengthLimit, 300'000, 1'000'000}) {
        for (const QString &unit : units)
            rows << unit.repeated(length / unit.size() + 1).left(length);
    }
    return rows;
}

// The ids of the rows written since the snapshot.
const QString kRewritten
    = u"SELECT string_agg(id::text, ' ') FROM scan.file f JOIN before b USING (id) WHERE f.xmin::text <> b.x"_s;
const QString kDifferingFromTheProduct = u"SELECT count(*) FROM scan.file f JOIN by_product p USING (id) WHERE "
                                         "f.filetype_details IS DISTINCT FROM p.filetype_details"_s;
// Rows rewritten whose text did not change, and rows whose text changed that were not rewritten.
const QString kRewrittenUnlikeChanged
    = u"SELECT count(*) FROM scan.file f JOIN before b USING (id) JOIN original o USING (id) WHERE (f.xmin::text <> "
      "b.x) <> (f.filetype_details IS DISTINCT FROM o.filetype_details)"_s;

// "<instance> <rows changed>" of each done line, sorted.
QStringList doneLines(const QByteArray &out)
{
    QStringList lines = QString::fromUtf8(out).split(u'\n').filter(u"is done"_s);
    lines.replaceInStrings(QRegularExpression(uR"(^.*instance id: (\d+), rows changed: (\d+)$)"_s), u"\\1 \\2"_s);
    lines.sort();
    return lines;
}
} // namespace

// The product's statement on one copy of the rows is the reference for the tool's modes on
// another. Rows of up to 1 MB, which the product's expression would take minutes over, are
// repaired as PCRE2 reads the product's pattern (checked against the server on the shorter ones).
// The product's pass takes seconds: it runs once, and each case gets a copy of the database it left.
class ChangedOnlyTest : public ToolTest
{
protected:
    static inline const QString kReference = u"changed_only_reference"_s;

    void SetUp() override
    {
        ToolTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        if (s_expected.isEmpty()) {
            makeReference();
            return;
        }
        server().sql(u"DROP DATABASE product WITH (FORCE)"_s, u"postgres"_s);
        server().sql(u"CREATE DATABASE product TEMPLATE "_s + kReference, u"postgres"_s);
    }
    static void TearDownTestSuite()
    {
        if (!s_expected.isEmpty())
            server().sql(u"DROP DATABASE "_s + kReference, u"postgres"_s);
        s_expected.clear();
        s_changedPerInstance.clear();
    }

    void makeReference()
    {
        s_changedPerInstance.clear();
        std::mt19937 random(20261123);
        sql(u"INSERT INTO warehouse.control_refresh SELECT i, 0 FROM generate_series(1, %1) i"_s.arg(kListed));
        QStringList rows;
        for (int i = 0; i < kDocuments; ++i) {
            const int instance = 1 + random() % kWithRows;
            const int request = instance == 21 ? random() % 22 : random() % 40;
            const QString document = random() % 40 == 0 ? u"NULL"_s
                : random() % 40 == 0                    ? u"''"_s
                                                        : quoted(fuzzedDocument(random));
            rows << u"(%1, %2, %3)"_s.arg(instance).arg(request).arg(document);
        }
        QStringList tooLongForTheProduct;
        for (const QString &text : longRows(random)) {
            if (text.size() > kProductLengthLimit)
                tooLongForTheProduct << text;
            else
                rows << u"(%1, 100, %2)"_s.arg(kLongRows).arg(quoted(text));
        }
        sql(u"INSERT INTO scan.file (instance_id, request_id, filetype_details) VALUES "_s + rows.join(u',')
            + u"; INSERT INTO scan.file (instance_id, request_id, filetype_details) VALUES (99, 100, '\\u0000');"
              "CREATE TABLE original AS SELECT * FROM scan.file"_s);
        ASSERT_EQ(m_sandbox.runTool().exitCode, 0);
        sql(u"CREATE TABLE by_product AS SELECT id, filetype_details FROM scan.file"_s);
        for (const QString &text : tooLongForTheProduct) {
            sql(u"WITH r AS (INSERT INTO scan.file (instance_id, request_id, filetype_details) VALUES (%1, 100, %2) "
                "RETURNING *), o AS (INSERT INTO original SELECT * FROM r) INSERT INTO by_product SELECT id, %3 FROM r"_s
                    .arg(kLongRows)
                    .arg(quoted(text), quoted(repairedByPcre(text))));
        }
        sql(u"TRUNCATE scan.file; INSERT INTO scan.file SELECT * FROM original"_s);
        snapshot();
        // Per listed instance and in all: rows in range and rows whose text the product's statement changed.
        const QStringList expected
            = sql(u"SELECT coalesce(i::text, 'total') || ' ' || count(o.id) || ' ' || count(o.id) FILTER "
                  "(WHERE o.filetype_details IS DISTINCT FROM p.filetype_details) FROM generate_series(1, %1) i "
                  "LEFT JOIN original o ON o.instance_id = i AND o.request_id > i LEFT JOIN by_product p USING "
                  "(id) GROUP BY ROLLUP (i) ORDER BY i"_s.arg(kListed));
        for (const QString &line : expected.mid(0, expected.size() - 1))
            s_changedPerInstance << line.section(u' ', 0, 0) + u' ' + line.section(u' ', 2, 2);
        s_changedPerInstance.sort();
        server().sql(u"CREATE DATABASE %1 TEMPLATE product"_s.arg(kReference), u"postgres"_s);
        s_expected = expected;
    }

    // The row versions as they are, for kRewritten to compare with.
    static void snapshot()
    {
        sql(u"DROP TABLE IF EXISTS before; CREATE TABLE before AS SELECT id, xmin::text AS x FROM scan.file"_s);
    }
    static QString first(const QString &query) { return sql(query).value(0); }

    // "<instance> <rows in range> <rows changed>" and the totals, as the dry run reports them.
    static inline QStringList s_expected;
    // "<instance> <rows changed>", as doneLines() reads the runs' lines.
    static inline QStringList s_changedPerInstance;
};

TEST_F(ChangedOnlyTest, PcreReadsTheProductsPatternAsTheServerDoes)
{
    EXPECT_GT(s_expected.constLast().section(u' ', 2).toInt(), kDocuments / 4) << "the fuzz changes rows enough";
    int pcreDisagrees = 0;
    for (const QString &pair :
        sql(u"SELECT o.filetype_details, p.filetype_details FROM original o JOIN by_product p "
            "USING (id) WHERE o.instance_id <= %1 AND o.request_id > o.instance_id"_s.arg(kListed)))
        pcreDisagrees += repairedByPcre(pair.section(u'|', 0, 0)) != pair.section(u'|', 1);
    EXPECT_EQ(pcreDisagrees, 0);
}

TEST_F(ChangedOnlyTest, DryRunCountsExactlyTheRowsThatChangeAndWritesNothing)
{
    const ToolSandbox::Result dry = m_sandbox.runFresh({u"--dry-run"_s, u"--jobs"_s, u"3"_s});
    EXPECT_EQ(dry.exitCode, 0);
    QStringList reported;
    for (const QByteArray &line : dry.out.split('\n')) {
        const QString cells = QString::fromUtf8(line).simplified();
        if (!cells.isEmpty() && (cells.front().isDigit() || cells.startsWith(u"total")))
            reported << cells;
    }
    EXPECT_EQ(reported, s_expected) << dry.out.constData();
    EXPECT_EQ(m_sandbox.runLog().count(u"[INFO\t] <ts>: "_s), s_expected.size() + 2) << "the report, line for line";
    EXPECT_EQ(first(kRewritten), QString());
}

// A second connection rewrites two rows of instance 1 that the run will repair, and holds them
// until the run waits for them: the one rewritten to a new bad text is read again and repaired
// from its new text in the same run, the good one is left as it is. Every other row is the
// product's, and only the rows whose text changes are written.
TEST_F(ChangedOnlyTest, RowsRewrittenByAnotherConnectionDuringTheRunAreRepairedFromTheirNewText)
{
    const QStringList held = sql(u"SELECT id FROM original o JOIN by_product p USING (id) WHERE o.instance_id = 1 "
                                 "AND o.filetype_details <> p.filetype_details ORDER BY id LIMIT 2"_s);
    ASSERT_EQ(held.size(), 2);
    HeldLock writer(u"UPDATE scan.file SET filetype_details = CASE id WHEN %1 THEN %2 ELSE %3 END WHERE id IN (%1, "
                    "%4)"_s.arg(held[0], quoted(kNewBad), quoted(kNewGood), held[1]));
    ASSERT_TRUE(writer.held());
    std::future<ToolSandbox::Result> run = std::async(std::launch::async, [this] {
        return m_sandbox.runTool({u"--changed-only"_s, u"--jobs=3"_s});
    });
    EXPECT_TRUE(eventually([] {
        return sql(u"SELECT count(*) FROM pg_stat_activity WHERE wait_event_type = 'Lock' AND query LIKE "
                   "'%UPDATE scan.file%'"_s)
            == QStringList({u"1"_s});
    })) << "the run never waited for the held rows";
    ASSERT_TRUE(writer.end(u"COMMIT"_s));
    const ToolSandbox::Result changedOnly = run.get();
    EXPECT_EQ(changedOnly.exitCode, 0) << changedOnly.err.constData();
    QStringList changed;
    for (const QString &line : s_changedPerInstance)
        changed << line.section(u' ', 0, 0) + u' '
                + QString::number(line.section(u' ', 1).toInt() - (line.startsWith(u"1 "_s) ? 1 : 0));
    EXPECT_EQ(doneLines(changedOnly.out), changed);
    EXPECT_EQ(sql(u"SELECT filetype_details FROM scan.file WHERE id IN (%1, %2) ORDER BY id"_s.arg(held[0], held[1])),
        QStringList({kNewBadRepaired, kNewGood}));
    const QString others = u" AND id NOT IN (%1, %2)"_s.arg(held[0], held[1]);
    EXPECT_EQ(first(kDifferingFromTheProduct + others), u"0"_s);
    EXPECT_EQ(first(kRewrittenUnlikeChanged + others), u"0"_s);
}

// One block per batch and three batches at once.
TEST_F(ChangedOnlyTest, BatchedLeavesTheProductsResultAndWritesOnlyTheRowsThatChange)
{
    qputenv(UnitSizer::kBlocksVariable, "1");
    const ToolSandbox::Result batched = m_sandbox.runTool({u"--batched"_s, u"--jobs"_s, u"3"_s});
    qunsetenv(UnitSizer::kBlocksVariable);
    EXPECT_EQ(batched.exitCode, 0) << batched.err.constData();
    EXPECT_EQ(doneLines(batched.out), s_changedPerInstance);
    EXPECT_TRUE(has(batched.out, " blocks of scan.file (100%) in "));
    EXPECT_EQ(first(kDifferingFromTheProduct), u"0"_s);
    EXPECT_EQ(first(kRewrittenUnlikeChanged), u"0"_s);
}

// A run over the product's result, as a run after a complete one finds the table.
TEST_F(ChangedOnlyTest, ARunOverARepairedTableWritesNothing)
{
    sql(u"UPDATE scan.file f SET filetype_details = p.filetype_details FROM by_product p WHERE p.id = f.id AND "
        "f.filetype_details IS DISTINCT FROM p.filetype_details"_s);
    snapshot();
    for (const QString &mode : {u"--changed-only"_s, u"--batched"_s}) {
        SCOPED_TRACE(mode.toStdString());
        const ToolSandbox::Result again = m_sandbox.runTool({mode});
        EXPECT_EQ(again.exitCode, 0);
        EXPECT_EQ(doneLines(again.out).size(), kListed);
        EXPECT_EQ(first(kRewritten), QString());
    }
    EXPECT_EQ(sql(u"SELECT count(*) FROM pg_namespace WHERE nspname = 'zentrix_normalizer'"_s), QStringList({u"0"_s}))
        << "a run without --journal made an object";
}

// --journal --verify: the product's table after it, and per instance the rows that still fail a
// jsonb cast (faults other than the three escapes).
TEST_F(ChangedOnlyTest, JournalVerifyCountsPerInstanceTheRowsThatStillFailTheCast)
{
    sql(u"CREATE FUNCTION fails(t text) RETURNS bool AS $$ BEGIN PERFORM t::jsonb; RETURN false; EXCEPTION WHEN "
        "others THEN RETURN true; END $$ LANGUAGE plpgsql"_s);
    const ToolSandbox::Result journaled = m_sandbox.runTool({u"--journal"_s, u"--verify"_s, u"--jobs"_s, u"3"_s});
    EXPECT_TRUE(has(journaled.out, "Journaled as run 1 in schema zentrix_normalizer"));
    EXPECT_EQ(doneLines(journaled.out), s_changedPerInstance);
    EXPECT_EQ(first(kDifferingFromTheProduct), u"0"_s);
    const QStringList verified = sql(u"SELECT 'Verified data: filetype_details, instance id: ' || i || ', rows that "
                                     "fail a jsonb cast: ' || count(p.id) FILTER (WHERE fails(p.filetype_details)) "
                                     "FROM generate_series(1, %1) i LEFT JOIN scan.file p ON p.instance_id = i AND "
                                     "p.request_id > i GROUP BY i ORDER BY i"_s.arg(kListed));
    EXPECT_EQ(QString::fromUtf8(journaled.out).split(u'\n').filter(u"Verified data"_s), verified);
    EXPECT_EQ(journaled.exitCode, 1) << "some fuzzed rows fail the cast for other reasons";
}

// --undo, cut short by a kill and run again, brings every row back exactly (the lossy corner of
// four and more backslashes included) but one whose text was edited since, which is named; one
// whose other columns changed is found by its key. A second undo changes nothing.
TEST_F(ChangedOnlyTest, UndoCutShortAndRunAgainGivesEveryRowBackButOneEditedSince)
{
    ASSERT_EQ(m_sandbox.runTool({u"--journal"_s, u"--jobs"_s, u"3"_s}).exitCode, 0);
    const QStringList edited = sql(u"SELECT id FROM original o JOIN by_product p USING (id) WHERE "
                                   "o.filetype_details <> p.filetype_details ORDER BY id DESC LIMIT 2"_s);
    sql(u"UPDATE scan.file SET filetype_details = filetype_details || ' ' WHERE id = %1; UPDATE scan.file SET "
        "request_id = request_id + 1000 WHERE id = %2;"_s.arg(edited[0], edited[1])
        + trigger(u"slow"_s, u"PERFORM pg_sleep(0.001); RETURN NEW;"_s));
    const QString restored = u"SELECT count(*) FROM zentrix_normalizer.original WHERE restored"_s;
    QProcess undo;
    m_sandbox.startTool(undo, {u"--undo"_s, u"1"_s});
    ASSERT_TRUE(eventually([&restored] { return sql(restored).value(0).toInt() > 100; }));
    undo.kill();
    undo.waitForFinished();
    sql(u"DROP TRIGGER slow ON scan.file"_s);
    const ToolSandbox::Result undone = m_sandbox.runTool({u"--undo"_s, u"1"_s, u"--jobs"_s, u"2"_s});
    EXPECT_EQ(undone.exitCode, 1);
    EXPECT_TRUE(has(undone.err, ", rows not restored: 1\n"));
    EXPECT_EQ(sql(u"SELECT string_agg(id::text, ' ') FROM scan.file f JOIN original o USING (id) WHERE "
                  "f.filetype_details IS DISTINCT FROM o.filetype_details"_s),
        QStringList({edited[0]}));
    EXPECT_TRUE(m_sandbox.runLog().contains(
        u"Row not restored, run 1, data: filetype_details, row: id=%1. Its text is no longer"_s.arg(edited[0])));
    snapshot();
    EXPECT_EQ(m_sandbox.runTool({u"--undo"_s, u"1"_s}).exitCode, 1);
    EXPECT_EQ(first(kRewritten), QString()) << "a second undo changes nothing";
}

// --forget drops the original texts: --undo then refuses, and --runs still counts the run's rows.
TEST_F(ChangedOnlyTest, AForgottenRunCannotBeUndoneAndKeepsItsCounts)
{
    const auto state
        = [this] { return QString::fromUtf8(m_sandbox.runTool({u"--runs"_s}).out).section(u", "_s, 2, 2); };
    ASSERT_EQ(m_sandbox.runTool({u"--journal"_s, u"--jobs"_s, u"3"_s}).exitCode, 0);
    EXPECT_EQ(state(), u"finished"_s);
    EXPECT_EQ(m_sandbox.runTool({u"--undo"_s, u"1"_s}).exitCode, 0);
    EXPECT_EQ(state(), u"undone"_s);
    EXPECT_EQ(m_sandbox.runTool({u"--forget"_s, u"1"_s}).exitCode, 0);
    const ToolSandbox::Result refused = m_sandbox.runTool({u"--undo=1"_s});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(QString::fromUtf8(refused.err).split(u'\n').filter(u"ERROR: "_s),
        QStringList({u"ERROR: Run 1 was forgotten: its original texts were dropped (--forget), so it cannot be "
                     "undone."_s}));
    int total = 0;
    for (const QString &line : s_changedPerInstance)
        total += line.section(u' ', 1).toInt();
    const ToolSandbox::Result runs = m_sandbox.runTool({u"--runs"_s});
    EXPECT_EQ(runs.exitCode, 0);
    EXPECT_TRUE(has(QString::fromUtf8(runs.out),
        QRegularExpression(u"\nRun 1: started [0-9: -]+, ended [0-9: -]+, forgotten, rows changed: %1, rows left: 0, "
                           "rows restored: %1\n"_s.arg(total))));
}

// Rows of instance 2 that cannot be read: its count fails, the others are counted, and the dry
// run names it with the server's reason and ends with status 1.
TEST_F(ToolTest, ADryRunNamesAnInstanceWhoseRowsCannotBeRead)
{
    addInstances({1, 2, 3});
    sql(u"INSERT INTO scan.file (instance_id, request_id, filetype_details) SELECT i, 5, '{\"a\":\"\\ud800\"}' FROM "
        "generate_series(1, 3) i; ALTER TABLE scan.file RENAME TO stored; CREATE FUNCTION refuse(i int, t text) "
        "RETURNS text AS $$ BEGIN IF i = 2 THEN RAISE EXCEPTION 'rows of instance two are unreadable'; END IF; "
        "RETURN t; END $$ LANGUAGE plpgsql; CREATE VIEW scan.file AS SELECT instance_id, request_id, "
        "refuse(instance_id, filetype_details) AS filetype_details FROM scan.stored"_s);
    const ToolSandbox::Result failing = m_sandbox.runTool({u"--dry-run"_s, u"--jobs"_s, u"2"_s});
    EXPECT_EQ(failing.exitCode, 1);
    const QString table = QString::fromUtf8(failing.out).simplified();
    EXPECT_TRUE(has(table, u" 2 failed failed 3 "_s));
    EXPECT_TRUE(has(table, u" total of counted "_s));
    EXPECT_TRUE(failing.err.startsWith("WARNING: Dry run count is failed, data: filetype_details, instance id: 2. "));
    EXPECT_TRUE(has(failing.err, "rows of instance two are unreadable"));
    EXPECT_EQ(failing.err.count("WARNING"), 1);
    EXPECT_TRUE(m_sandbox.runLog().contains(
        u"[WARNING] <ts>: Dry run count is failed, data: filetype_details, instance id: 2. <server error>"_s));
}
