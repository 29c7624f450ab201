#include "end-to-end/ToolTest.h"

#include "app/repair/RepairStatements.h"
#include "app/repair/UnitSizer.h"
#include "app/sql/SqlLiteral.h"

#include <QProcess>
#include <QRegularExpression>
#include <QSqlQuery>

using namespace Qt::StringLiterals;

namespace {

constexpr int kRows = 3000;
const QString kBad = uR"({"type":"PE32","name":"lone \ud800 here"})"_s;
const QString kFixed = uR"({"type":"PE32","name":"lone \\ud800 here"})"_s;

// Rows of instances 1 to 3, every other one damaged, slow to repair (not to update otherwise), so
// that a run of one block per range lasts long enough to be met half way.
void damagedRows(const char *secondsPerRow = "0.002")
{
    TestServer::shared().sql(
        u"INSERT INTO scan.file (instance_id, request_id, filetype_details) SELECT 1 + g % 3, 100, CASE WHEN g % 2 = 0 "
        "THEN %1 ELSE %2 END FROM generate_series(1, %3) g; CREATE FUNCTION slow() RETURNS trigger AS $$ BEGIN "
        "PERFORM pg_sleep(%4); RETURN NEW; END $$ LANGUAGE plpgsql; CREATE TRIGGER slow BEFORE UPDATE ON scan.file "
        "FOR EACH ROW WHEN (NEW.filetype_details IS DISTINCT FROM OLD.filetype_details) EXECUTE FUNCTION slow()"_s
            .arg(SqlLiteral::of(kBad), SqlLiteral::of(kFixed))
            .arg(kRows)
            .arg(QLatin1String(secondsPerRow)));
}

int count(const QString &text)
{
    return TestServer::shared()
        .sql(u"SELECT count(*) FROM scan.file WHERE filetype_details = %1"_s.arg(SqlLiteral::of(text)))
        .value(0)
        .toInt();
}

QString logOf(const ToolSandbox &sandbox)
{
    return QString::fromUtf8(ToolSandbox::read(sandbox.runLogPath()));
}

} // namespace

// Rows that the product rewrites while a run goes on get new versions wherever the table has room:
// past the end the run took at its start, or in the ranges it has done. A run that says it covered
// the whole table has repaired them too.
TEST_F(ToolTest, RowsOtherSessionsRewriteDuringTheRunAreRepairedBeforeItSaysItIsDone)
{
    for (const QStringList &arguments :
        {QStringList{u"--batched"_s, u"--jobs"_s, u"2"_s}, QStringList{u"--journal"_s, u"--jobs"_s, u"2"_s}}) {
        SCOPED_TRACE(arguments.join(u' ').toStdString());
        SetUp();
        addInstances({1, 2, 3});
        damagedRows("0.005");
        qputenv(UnitSizer::kBlocksVariable, "1");
        QProcess tool;
        m_sandbox.startTool(tool, arguments);
        qunsetenv(UnitSizer::kBlocksVariable);
        ASSERT_TRUE(eventually([] { return count(kFixed) >= kRows / 2 + kRows / 8; }));
        // As autovacuum would, a vacuum frees the room of the versions the run replaced; then the
        // product rewrites another column of every row still to repair, and writes new rows: their
        // versions go into that room, behind the run, and past the table's end as the run took it.
        sql(u"VACUUM scan.file"_s);
        sql(u"UPDATE scan.file SET request_id = request_id + 1 WHERE id IN (SELECT id FROM scan.file WHERE "
            "filetype_details = %1 FOR UPDATE SKIP LOCKED)"_s.arg(quoted(kBad)));
        sql(u"INSERT INTO scan.file (instance_id, request_id, filetype_details) SELECT 1 + g % 3, 100, %1 FROM "
            "generate_series(1, %2) g"_s.arg(quoted(kBad))
                .arg(kRows / 2));
        ASSERT_FALSE(tool.waitForFinished(0)) << "the rows were written after the run";
        ASSERT_TRUE(tool.waitForFinished(kEventuallyLimitMs));
        const QByteArray out = tool.readAllStandardOutput();
        EXPECT_EQ(tool.exitCode(), 0) << tool.readAllStandardError().constData();
        EXPECT_TRUE(out.contains("(100%)")) << out.constData();
        EXPECT_EQ(count(kBad), 0);
        EXPECT_EQ(count(kFixed), kRows + kRows / 2);
    }
}

// A journaled run killed half way, then what may happen before the next one: a vacuum frees the
// space of the rows it rewrote and the product's updates move rows still to repair into it; VACUUM
// FULL moves every row; another instance is listed. The resumed run trusts none of its committed
// ranges that may no longer hold what they held, and leaves no row to repair.
TEST_F(ToolTest, AResumedRunRepairsRowsMovedIntoItsCommittedRangesOrListedSince)
{
    const struct {
        const char *name;
        QStringList statements;
    } cases[] = {
        {"a vacuum, then the product's updates",
            {u"VACUUM scan.file"_s,
                u"UPDATE scan.file SET request_id = request_id + 1 WHERE filetype_details = %1"_s.arg(quoted(kBad))}},
        // Frozen, a row version's xmin no longer tells when it was written.
        {"the product's updates, then VACUUM FREEZE",
            {u"VACUUM scan.file"_s,
                u"UPDATE scan.file SET request_id = request_id + 1 WHERE filetype_details = %1"_s.arg(quoted(kBad)),
                u"VACUUM FREEZE scan.file"_s}},
        {"VACUUM FULL", {u"VACUUM FULL scan.file"_s}},
        {"an instance listed since", {u"INSERT INTO warehouse.control_refresh VALUES (3, 0)"_s}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        const bool listedSince = c.statements.first().contains(u"control_refresh"_s);
        addInstances(listedSince ? QList<int>{1, 2} : QList<int>{1, 2, 3});
        damagedRows();
        qputenv(UnitSizer::kBlocksVariable, "1");
        QProcess tool;
        m_sandbox.startTool(tool, {u"--journal"_s});
        qunsetenv(UnitSizer::kBlocksVariable);
        ASSERT_TRUE(eventually([] { return count(kFixed) >= kRows / 2 + kRows / 6; }));
        tool.kill();
        ASSERT_TRUE(tool.waitForFinished(kEventuallyLimitMs));
        ASSERT_TRUE(eventually([] {
            return TestServer::shared().sql(u"SELECT count(*) FROM pg_stat_activity WHERE query LIKE 'WITH%'"_s)
                == QStringList({u"0"_s});
        }));
        sql(u"DROP TRIGGER slow ON scan.file"_s);
        for (const QString &statement : c.statements)
            sql(statement);
        const ToolSandbox::Result resumed = m_sandbox.runTool({u"--journal"_s});
        EXPECT_EQ(resumed.exitCode, 0) << resumed.err.constData();
        EXPECT_TRUE(resumed.out.contains("Resuming run 1: ")) << resumed.out.constData();
        EXPECT_TRUE(resumed.out.contains("(100%)")) << resumed.out.constData();
        EXPECT_EQ(count(kBad), 0);
    }
}

// A lock held by another session costs the run two bounded waits, whatever the number of rows or
// ranges behind it: a locked row is tried once more at the end and, still held, named and counted
// once; a row released meanwhile is repaired; a lock on the whole table is seen as one and ends
// the run's work on it, naming the holder.
TEST_F(ToolTest, ALockAnotherSessionHoldsIsWaitedForTwiceAtMostAndCountedOnce)
{
    enum Hold { RowThroughTheRun, RowReleasedWhileWaited, TableShareMode, RowThroughTheUndo };
    const struct {
        const char *name;
        QStringList arguments;
        Hold hold;
        int exitCode;
        int rowsLeft;
        // Statements that ran into the lock wait's bound.
        int lockWaits;
        const char *logHas;
    } cases[] = {
        {"a row held, --changed-only", {u"--changed-only"_s}, RowThroughTheRun, 1, 1, 2,
            "Row left unrepaired, data: filetype_details, instance id: 1, row: id=1500. The row is locked by server "
            "process "},
        {"a row held, --batched", {u"--batched"_s}, RowThroughTheRun, 1, 1, 2,
            "Row left unrepaired, data: filetype_details, instance id: 1, row: id=1500. The row is locked by server "
            "process "},
        {"a row released while waited for", {u"--changed-only"_s}, RowReleasedWhileWaited, 0, 0, 0,
            "Data normalization is done, data: filetype_details, instance id: 2"},
        {"the table in SHARE mode", {u"--batched"_s}, TableShareMode, 1, kRows / 2, 1,
            "[WARNING] <ts>: scan.file is locked as a whole by server process %1 (ShareLock)"},
        // Left to the next --undo, which finds it again.
        {"a row held, --undo", {u"--undo"_s, u"1"_s}, RowThroughTheUndo, 1, kRows / 2 - 1, 2,
            "Row not restored, run 1, data: filetype_details, row: id=1500. The row is locked by server process %1"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        addInstances({1, 2, 3});
        damagedRows();
        sql(u"DROP TRIGGER slow ON scan.file"_s);
        if (c.hold == RowThroughTheUndo)
            ASSERT_EQ(m_sandbox.runTool({u"--journal"_s}).exitCode, 0);
        const QString holder = u"holder"_s;
        QSqlDatabase holding = TestServer::connectionAt(server().port(), u"product"_s, holder);
        QSqlQuery lock(holding);
        ASSERT_TRUE(lock.exec(u"BEGIN"_s)
            && lock.exec(c.hold == TableShareMode ? u"LOCK TABLE scan.file IN SHARE MODE"_s
                                                  : u"SELECT 1 FROM scan.file WHERE id = 1500 FOR UPDATE"_s));
        ASSERT_TRUE(lock.exec(u"SELECT pg_backend_pid()"_s) && lock.next());
        const QString holderPid = lock.value(0).toString();
        QFile::remove(m_sandbox.runLogPath());
        // Long enough for the test to see the wait and end it; short for the rest.
        qputenv("ZENTRIX_LOCK_WAIT_MS", c.hold == RowReleasedWhileWaited ? "20000" : "300");
        qputenv(UnitSizer::kBlocksVariable, "1");
        QProcess tool;
        m_sandbox.startTool(tool, c.arguments + QStringList{u"--verbose"_s});
        qunsetenv("ZENTRIX_LOCK_WAIT_MS");
        qunsetenv(UnitSizer::kBlocksVariable);
        if (c.hold == RowReleasedWhileWaited) {
            EXPECT_TRUE(eventually(
                [] { return !TestServer::shared().sql(u"SELECT 1 FROM pg_locks WHERE NOT granted"_s).isEmpty(); }));
            lock.exec(u"ROLLBACK"_s);
        }
        ASSERT_TRUE(tool.waitForFinished(kEventuallyLimitMs));
        lock.exec(u"ROLLBACK"_s);
        lock = QSqlQuery();
        holding = QSqlDatabase();
        QSqlDatabase::removeDatabase(holder);
        const QByteArray err = tool.readAllStandardError();
        EXPECT_EQ(tool.exitCode(), c.exitCode) << err.constData();
        EXPECT_EQ(count(kBad), c.rowsLeft);
        const QString log = m_sandbox.runLog();
        EXPECT_TRUE(log.contains(QString::fromUtf8(c.logHas).replace(u"%1"_s, holderPid))) << log.toStdString();
        EXPECT_EQ(log.count(u"Row left unrepaired"_s), c.hold == RowThroughTheRun ? 1 : 0) << log.toStdString();
        EXPECT_EQ(logOf(m_sandbox).count(u"lock timeout"_s), c.lockWaits) << log.toStdString();
        if (c.hold == RowThroughTheUndo) {
            EXPECT_TRUE(err.contains("rows restored: 1499, rows not restored: 1")) << err.constData();
            EXPECT_EQ(log.count(u"Row not restored"_s), 1) << log.toStdString();
        }
        if (c.hold == RowThroughTheRun)
            EXPECT_TRUE(err.contains("Rows left unrepaired: 1 (instance 1: 1)")) << err.constData();
    }
}
