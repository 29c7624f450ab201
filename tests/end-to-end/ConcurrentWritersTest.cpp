#include "end-to-end/ToolTest.h"

#include "app/sql/SqlLiteral.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QRegularExpression>

namespace {

constexpr int kRows = 3000;

// Rows of instances 1 to 3, every other one damaged, slow to repair (not to update otherwise), so
// that a run of one block per range lasts long enough to be met half way.
void damagedRows(const char *secondsPerRow = "0.002")
{
    TestServer::shared().sql(
        u"INSERT INTO scan.file (instance_id, request_id, filetype_details) SELECT 1 + g % 3, 100, CASE WHEN g % 2 = 0 "
        "THEN %1 ELSE %2 END FROM generate_series(1, %3) g;"_s.arg(SqlLiteral::of(kBad), SqlLiteral::of(kFixed))
            .arg(kRows)
        + trigger(u"slow"_s, u"PERFORM pg_sleep(%1); RETURN NEW;"_s.arg(QLatin1String(secondsPerRow)),
            u"ROW WHEN (NEW.filetype_details IS DISTINCT FROM OLD.filetype_details)"_s));
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
        QProcess tool;
        startInSmallUnits(tool, arguments);
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
        EXPECT_EQ(tool.exitCode(), 0) << tool.readAllStandardError().constData();
        EXPECT_TRUE(has(tool.readAllStandardOutput(), "(100%)"));
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
        QProcess tool;
        startInSmallUnits(tool, {u"--journal"_s});
        ASSERT_TRUE(eventually([] { return count(kFixed) >= kRows / 2 + kRows / 6; }));
        tool.kill();
        ASSERT_TRUE(tool.waitForFinished(kEventuallyLimitMs));
        waitForItsStatementsToEnd();
        sql(u"DROP TRIGGER slow ON scan.file"_s);
        for (const QString &statement : c.statements)
            sql(statement);
        const ToolSandbox::Result resumed = m_sandbox.runTool({u"--journal"_s});
        EXPECT_EQ(resumed.exitCode, 0) << resumed.err.constData();
        EXPECT_TRUE(has(resumed.out, "Resuming run 1: "));
        EXPECT_TRUE(has(resumed.out, "(100%)"));
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
    const char *rowLocked = "Row left unrepaired, data: filetype_details, instance id: 1, row: id=1500. The row is "
                            "locked by server process ";
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
        {"a row held, --changed-only", {u"--changed-only"_s}, RowThroughTheRun, 1, 1, 2, rowLocked},
        {"a row held, --batched", {u"--batched"_s}, RowThroughTheRun, 1, 1, 2, rowLocked},
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
        if (c.hold == RowThroughTheUndo) {
            ASSERT_EQ(m_sandbox.runTool({u"--journal"_s}).exitCode, 0);
        }
        HeldLock lock(c.hold == TableShareMode ? u"LOCK TABLE scan.file IN SHARE MODE"_s
                                               : u"SELECT 1 FROM scan.file WHERE id = 1500 FOR UPDATE"_s);
        ASSERT_TRUE(lock.held());
        QFile::remove(m_sandbox.runLogPath());
        // Long enough for the test to see the wait and end it; short for the rest.
        qputenv("ZENTRIX_LOCK_WAIT_MS", c.hold == RowReleasedWhileWaited ? "20000" : "300");
        QProcess tool;
        startInSmallUnits(tool, c.arguments + QStringList{u"--verbose"_s});
        qunsetenv("ZENTRIX_LOCK_WAIT_MS");
        if (c.hold == RowReleasedWhileWaited) {
            EXPECT_TRUE(eventually([] { return !sql(u"SELECT 1 FROM pg_locks WHERE NOT granted"_s).isEmpty(); }));
            lock.end();
        }
        ASSERT_TRUE(tool.waitForFinished(kEventuallyLimitMs));
        lock.end();
        const QByteArray err = tool.readAllStandardError();
        EXPECT_EQ(tool.exitCode(), c.exitCode) << err.constData();
        EXPECT_EQ(count(kBad), c.rowsLeft);
        const QString log = m_sandbox.runLog();
        EXPECT_TRUE(has(log, QString::fromUtf8(c.logHas).replace(u"%1"_s, lock.pid())));
        EXPECT_EQ(log.count(u"Row left unrepaired"_s), c.hold == RowThroughTheRun ? 1 : 0) << log.toStdString();
        EXPECT_EQ(logOf(m_sandbox).count(u"lock timeout"_s), c.lockWaits) << log.toStdString();
        EXPECT_EQ(log.count(u"Row not restored"_s), c.hold == RowThroughTheUndo ? 1 : 0) << log.toStdString();
        EXPECT_EQ(err.contains("rows restored: 1499, rows not restored: 1"), c.hold == RowThroughTheUndo)
            << err.constData();
        EXPECT_EQ(err.contains("Rows left unrepaired: 1 (instance 1: 1)"), c.hold == RowThroughTheRun)
            << err.constData();
    }
}

namespace {
// Still running, and no row repaired.
bool waitedOn(QProcess &tool)
{
    return !tool.waitForFinished(0) && count(kBad) == kRows / 2;
}
} // namespace

// The operator's pause file holds every new unit back without a kill: an interrupt then ends the
// run at once, a pause longer than --max-pause ends it resumable, and once the file goes the run
// goes on where it was and says how long it paused.
TEST_F(ToolTest, APauseFileHoldsTheRunUntilItGoes)
{
    addInstances({1, 2, 3});
    damagedRows("0");
    const QString pauseFile = m_sandbox.root() + u"/pause"_s;
    ToolSandbox::write(pauseFile, QByteArray());
    const QStringList arguments = {u"--journal"_s, u"--pause-file"_s, pauseFile};

    const ToolSandbox::Result tooLong = m_sandbox.runTool(arguments + QStringList{u"--max-pause"_s, u"1"_s});
    EXPECT_EQ(tooLong.exitCode, 1);
    EXPECT_TRUE(has(QString::fromUtf8(tooLong.err),
        u"ERROR: The run stopped before its end: it paused longer than --max-pause allows (1 s) because the pause "
        "file %1 exists; what it committed stays, and a --journal run resumes where it stopped"_s.arg(pauseFile)));

    QProcess interrupted;
    m_sandbox.startTool(interrupted, arguments);
    QThread::msleep(1500);
    ASSERT_TRUE(waitedOn(interrupted));
    ToolSandbox::interrupt(interrupted);
    QElapsedTimer sinceInterrupt;
    sinceInterrupt.start();
    ASSERT_TRUE(interrupted.waitForFinished(kEventuallyLimitMs));
    EXPECT_LT(sinceInterrupt.elapsed(), 3000);
    EXPECT_EQ(interrupted.exitCode(), 1);

    QProcess tool;
    m_sandbox.startTool(tool, arguments);
    QThread::msleep(1500);
    ASSERT_TRUE(waitedOn(tool));
    QFile::remove(pauseFile);
    ASSERT_TRUE(tool.waitForFinished(kEventuallyLimitMs));
    const QByteArray out = tool.readAllStandardOutput();
    EXPECT_EQ(tool.exitCode(), 0) << tool.readAllStandardError().constData();
    EXPECT_TRUE(out.contains("Resuming run 1: ")) << out.constData();
    EXPECT_TRUE(has(QString::fromUtf8(out),
        QRegularExpression(u"\nPaused \\d+ s in all \\(1 pause; the run log names each with its cause\\)\r?\n"_s)));
    EXPECT_TRUE(has(logOf(m_sandbox),
        QRegularExpression(u"Paused \\d+ s, from [0-9:]{8} to [0-9:]{8}: the pause file %1 exists\n"_s.arg(
            QRegularExpression::escape(pauseFile)))));
    EXPECT_EQ(count(kBad), 0);
}

// Whichever connection takes a unit, its session compresses its WAL, hands its page writes to the
// kernel early and, under a pace, works as one process.
TEST_F(ToolTest, EverySessionOfAPacedRunSparesTheServer)
{
    addInstances({1, 2, 3});
    damagedRows("0");
    sql(u"CREATE TABLE seen (pid int, settings text); "_s
        + trigger(u"seen"_s,
            u"INSERT INTO seen VALUES (pg_backend_pid(), concat_ws(' ', current_setting('wal_compression'), "
            "current_setting('backend_flush_after'), current_setting('max_parallel_workers_per_gather'))); "
            "RETURN NEW;"_s));
    QProcess tool;
    startInSmallUnits(tool, {u"--batched"_s, u"--jobs"_s, u"2"_s, u"--pace"_s, u"50"_s});
    ASSERT_TRUE(tool.waitForFinished(kEventuallyLimitMs));
    EXPECT_EQ(tool.exitCode(), 0) << tool.readAllStandardError().constData();
    EXPECT_EQ(count(kBad), 0);
    EXPECT_EQ(sql(u"SELECT count(DISTINCT pid), string_agg(DISTINCT settings, ', ') FROM seen"_s),
        QStringList({u"2|lz4 2MB 0"_s}));
}

// A standby that does not replay holds the run back while it is further behind than --max-lag;
// once it has replayed what it was sent, the run goes on.
TEST_F(ToolTest, ARunWaitsForAStandbyBehindInReplaying)
{
    if (server().isExternal())
        GTEST_SKIP() << "a standby needs PostgreSQL's programs here, beside the server";
    TestServer standby(server(), {});
    ASSERT_EQ(standby.error(), QString());
    addInstances({1, 2, 3});
    damagedRows("0");
    TestServer::sqlAt(standby.port(), u"SELECT pg_wal_replay_pause()"_s, u"postgres"_s);
    // The server measures how far behind a standby is only as it sends it WAL.
    ASSERT_TRUE(eventually([] {
        sql(u"UPDATE scan.file SET request_id = request_id WHERE id % 10 = 0"_s);
        QThread::msleep(500);
        return sql(u"SELECT count(*) FROM pg_stat_replication WHERE replay_lag > interval '2 s'"_s)
            == QStringList({u"1"_s});
    }));
    QProcess tool;
    m_sandbox.startTool(tool, {u"--batched"_s, u"--max-lag"_s, u"1"_s});
    QThread::msleep(2000);
    ASSERT_TRUE(waitedOn(tool));
    TestServer::sqlAt(standby.port(), u"SELECT pg_wal_replay_resume()"_s, u"postgres"_s);
    ASSERT_TRUE(tool.waitForFinished(kEventuallyLimitMs));
    EXPECT_EQ(tool.exitCode(), 0) << tool.readAllStandardError().constData();
    EXPECT_EQ(count(kBad), 0);
    EXPECT_TRUE(has(logOf(m_sandbox),
        QRegularExpression(
            u"Paused \\d+ s, from [0-9:]{8} to [0-9:]{8}: the standby \"[^\"]+\" is \\d+ s behind \\(at most 1 s\\)\n"_s)));
}

// WAL the archiver cannot copy stays in pg_wal: the run waits while more than --max-archive-backlog
// waits, and goes on once the archiver copies again. A role that may not read the archive status,
// nor set wal_compression, runs without either, said under --verbose.
TEST_F(ToolTest, ARunWaitsForTheArchiverUnlessTheRoleMayNotSeeIt)
{
    if (server().isExternal())
        GTEST_SKIP() << "a server of its own needs PostgreSQL's programs here";
    TestServer archived;
    ASSERT_EQ(archived.error(), QString());
    const QString archive = QFileInfo(archived.dataDirectory()).path() + u"/archive"_s;
    archived.sql(u"ALTER SYSTEM SET archive_mode = on"_s, u"postgres"_s);
    archived.sql(u"ALTER SYSTEM SET archive_command = 'test -d %1 && cp %p %1/%f'"_s.arg(archive), u"postgres"_s);
    archived.stop();
    ASSERT_TRUE(archived.start());
    archived.sql(u"CREATE DATABASE product"_s, u"postgres"_s);
    archived.sql(TestServer::productSchema()
        + u"; INSERT INTO warehouse.control_refresh VALUES (1, 0), (2, 0), (3, 0); "
          "CREATE ROLE limited LOGIN PASSWORD '%1'; GRANT USAGE ON SCHEMA scan, warehouse TO limited; GRANT ALL "
          "ON ALL TABLES IN SCHEMA scan, warehouse TO limited"_s.arg(QLatin1String(TestServer::kPassword)));
    const auto damage = [&archived] {
        archived.sql(
            u"INSERT INTO scan.file (instance_id, request_id, filetype_details) SELECT 1 + g % 3, 100, %1 FROM "
            "generate_series(1, 100) g; SELECT pg_switch_wal()"_s.arg(SqlLiteral::of(kBad)));
    };
    const auto bad = [&archived] {
        return archived.sql(u"SELECT count(*) FROM scan.file WHERE filetype_details = %1"_s.arg(SqlLiteral::of(kBad)));
    };
    damage();
    ASSERT_TRUE(m_sandbox.provision(archived.port(), u"product"_s, u"remote"_s, {u"user=limited"_s}));
    const ToolSandbox::Result limited
        = m_sandbox.runTool({u"--batched"_s, u"--max-archive-backlog"_s, u"1"_s, u"--verbose"_s});
    EXPECT_EQ(limited.exitCode, 0) << limited.err.constData();
    EXPECT_TRUE(limited.err.contains("--max-archive-backlog is off: the role may not read the archive status"));
    EXPECT_TRUE(limited.err.contains("The run's sessions write their WAL uncompressed: the role may not set "
                                     "wal_compression"));
    EXPECT_EQ(bad(), QStringList({u"0"_s}));

    damage();
    ASSERT_TRUE(m_sandbox.provision(archived.port(), u"product"_s));
    QProcess tool;
    m_sandbox.startTool(tool, {u"--batched"_s, u"--max-archive-backlog"_s, u"1"_s});
    QThread::msleep(1500);
    ASSERT_FALSE(tool.waitForFinished(0));
    EXPECT_EQ(bad(), QStringList({u"100"_s}));
    QDir().mkpath(archive);
    archived.account().handOver(archive);
    // The archiver, having failed three times, sleeps until a segment is done. The next segment,
    // filled past the limit, is not the archiver's yet: the run goes on beside it.
    archived.sql(u"CREATE TABLE nudge (); SELECT pg_switch_wal(); CREATE TABLE pad AS SELECT repeat('x', 1000) "
                 "FROM generate_series(1, 3000)"_s,
        u"postgres"_s);
    ASSERT_TRUE(tool.waitForFinished(kEventuallyLimitMs));
    EXPECT_EQ(tool.exitCode(), 0) << tool.readAllStandardError().constData();
    EXPECT_EQ(bad(), QStringList({u"0"_s}));
    EXPECT_TRUE(logOf(m_sandbox).contains(u"MB of WAL wait for the archiver (at most 1 MB)\n"_s));
}
