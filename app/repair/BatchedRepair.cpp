#include "app/repair/BatchedRepair.h"

#include "app/journal/RunJournal.h"
#include "app/output/Progress.h"
#include "app/output/Reporter.h"
#include "app/output/VerboseLog.h"
#include "app/repair/InstanceLines.h"
#include "app/repair/RepairStatements.h"
#include "app/repair/ServerFailure.h"
#include "app/repair/StrategyContext.h"
#include "app/sql/SqlLiteral.h"

#include <QElapsedTimer>
#include <QSqlError>
#include <QSqlQuery>

BatchedRepair::BatchedRepair(
    const StrategyContext &context, bool journaled, const QString &options, qint64 unitTargetMs)
    : RewritingStrategy(journaled ? QStringLiteral("--journal") : QStringLiteral("--batched"), context,
        journaled ? &context.journal : nullptr)
    , m_options(options)
    , m_unitTargetMs(unitTargetMs)
{ }

bool BatchedRepair::prepare(QSqlQuery &query)
{
    if (!checkServer(query, m_reporter, m_option) || !m_instances.read(query, m_reporter))
        return false;
    if (m_instances.isEmpty())
        return true;
    if (!readTable(query))
        return false;
    qint64 since = 0;
    if (!readSnapshotXmin(query, since)) {
        m_reporter.error(QStringLiteral("%1 cannot read the server's snapshot. %2")
                             .arg(m_option, query.lastError().databaseText().simplified()));
        return false;
    }
    m_cursor = std::make_unique<RangeCursor>(m_table, m_unitTargetMs);
    m_since = QVector<qint64>(m_table.relations().size(), since);
    for (const ScanTable::Relation &relation : m_table.relations())
        m_filenodes << relation.filenode;
    m_progress.setTotal(m_cursor->totalSlots(), QStringLiteral("scan.file"));
    return !m_journal || openJournal(query, since);
}

bool BatchedRepair::readSnapshotXmin(QSqlQuery &query, qint64 &xmin)
{
    if (!query.exec(QStringLiteral("SELECT pg_snapshot_xmin(pg_current_snapshot())::text::bigint")) || !query.next())
        return false;
    xmin = query.value(0).toLongLong();
    return true;
}

namespace {
// Transaction ids are compared modulo 2^32: a row written since a snapshot reads as newer than it
// only while fewer than 2^31 transactions have begun since.
constexpr qint64 kXidHalf = Q_INT64_C(2147483648);
} // namespace

// A frozen row keeps the xmin it was written with, so a vacuum (VACUUM FREEZE too) takes nothing
// from the test; a rewrite of the relation (VACUUM FULL, CLUSTER) moves every row, old ones into
// ranges done already, and makes a new file.
bool BatchedRepair::sinceHolds(QSqlQuery &query, int relation, qint64 since, QString *filenodeNow) const
{
    const QString state = QStringLiteral(
        "SELECT pg_relation_filenode(%1::regclass), pg_snapshot_xmax(pg_current_snapshot())::text::bigint");
    if (!query.exec(state.arg(SqlLiteral::of(m_table.relations()[relation].name))) || !query.next())
        return false;
    if (filenodeNow)
        *filenodeNow = query.value(0).toString();
    if (since < 0)
        return false;
    QString filenode;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        filenode = m_filenodes.value(relation);
    }
    return query.value(0).toString() == filenode && query.value(1).toLongLong() - since < kXidHalf;
}

bool BatchedRepair::checkServer(QSqlQuery &query, const Reporter &reporter, const QString &option)
{
    if (query.exec(QStringLiteral("SELECT current_setting('server_version_num')::int, "
                                  "current_setting('server_version')"))
        && query.next() && query.value(0).toInt() >= kFirstServerWithRanges)
        return true;
    const QString line = query.isActive()
        ? QStringLiteral("%1 needs PostgreSQL 14 or newer, which can read a table by ranges of blocks; the server "
                         "runs PostgreSQL %2. Use --changed-only there.")
              .arg(option, query.value(1).toString())
        : QStringLiteral("Cannot read the server's version for %1. %2").arg(option, query.lastError().text());
    reporter.error(line);
    return false;
}

// A resumed run's committed ranges are done: they count as covered, and no unit is made of them,
// where they still hold the rows they held: read in the relation's present file, and the rows
// written into them since can be told. The rows written since the run began are read again at
// its end, and so are the rows of instances it did not list then.
bool BatchedRepair::openJournal(QSqlQuery &query, qint64 since)
{
    if (!m_journal->open(query, m_options, since, m_instances.ids())) {
        m_reporter.error(QStringLiteral("--journal cannot record the run in schema %1 of the database. %2")
                             .arg(RunJournal::kSchema, m_journal->error()));
        return false;
    }
    qint64 done = 0;
    for (int relation = 0; relation < m_table.relations().size(); ++relation) {
        const RangeCursor::Ranges committed
            = m_journal->committed().value(m_table.relations()[relation].name).value(m_filenodes[relation]);
        if (committed.isEmpty() || !sinceHolds(query, relation, m_journal->since()))
            continue;
        done += m_cursor->skip(relation, committed);
        m_since[relation] = m_journal->since();
    }
    for (const QString &id : m_instances.ids()) {
        if (!m_journal->instances().contains(id))
            m_newInstances << id;
    }
    m_tally.cover(done);
    m_progress.advance(done, 0);
    const qint64 total = m_cursor->totalSlots();
    const int slotsPerBlock = m_table.slotsPerBlock();
    const QString line = m_journal->resumed()
        ? QStringLiteral("Resuming run %1: %2 of %3 blocks of scan.file were done before (%4%), rows changed: %5")
              .arg(m_journal->run())
              .arg(done / slotsPerBlock)
              .arg(total / slotsPerBlock)
              .arg(total == 0 ? 100 : int(done * 100 / total))
              .arg(m_journal->rowsChangedBefore())
        : QStringLiteral("Journaled as run %1 in schema %2").arg(m_journal->run()).arg(RunJournal::kSchema);
    m_reporter.info(line);
    return true;
}

bool BatchedRepair::nextUnit(WorkUnit &unit)
{
    if (!m_cursor)
        return false;
    if (!m_pending.isEmpty()) {
        unit = m_pending.takeFirst();
        handOut(unit, -1);
        return true;
    }
    if (m_cursor->next(unit)) {
        handOut(unit, unit.end - unit.first);
        return true;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_open > 0)
            return false;
    }
    if (!closingUnits())
        return false;
    unit = m_pending.takeFirst();
    handOut(unit, -1);
    return true;
}

void BatchedRepair::handOut(WorkUnit &unit, qint64 slotCount)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    unit.rootUnit = m_rangeSlots.size();
    m_rangeSlots.append(slotCount);
    m_ranges += slotCount >= 0;
    ++m_open;
}

bool BatchedRepair::closingUnits()
{
    if (hasHeldRows(-1)) {
        m_pending = heldRows(-1);
        return true;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        closeRound();
        if (m_round > kClosingRounds || (m_round > 0 && !m_roundFound)) {
            m_roundsOver = true;
            return false;
        }
        ++m_round;
        m_roundFound = false;
        m_roundReads = QVector<RoundReads>(m_table.relations().size());
    }
    for (int relation = 0; relation < m_table.relations().size(); ++relation)
        addRoundReads(relation);
    return !m_pending.isEmpty();
}

void BatchedRepair::addRoundReads(int relation)
{
    const UnitSizer &sizer = m_cursor->sizer();
    const qint64 step
        = sizer.fixed() ? std::max<qint64>(1, sizer.size() / m_table.slotsPerBlock()) : UnitSizer::kMostBlocks;
    const qint64 blocks = m_table.relations()[relation].blocks;
    for (qint64 first = 0; first == 0 || first < blocks; first += step) {
        WorkUnit read;
        read.kind = WorkUnit::Kind::WrittenSince;
        read.relation = relation;
        read.round = m_round;
        read.first = first;
        read.end = first + step < blocks ? first + step : -1;
        m_pending.append(read);
    }
}

void BatchedRepair::recordRead(int relation, qint64 since, const QString &filenode, qint64 blocks)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    RoundReads &reads = m_roundReads[relation];
    if (!reads.any || filenode != reads.filenode)
        reads.filenode = reads.any || filenode.isNull() ? QString() : filenode;
    reads.since = reads.any ? std::min(reads.since, since) : since;
    reads.any = true;
    reads.blocks += blocks;
}

void BatchedRepair::closeRound()
{
    for (int relation = 0; relation < m_roundReads.size(); ++relation) {
        const RoundReads &reads = m_roundReads[relation];
        if (!reads.any)
            continue;
        m_since[relation] = reads.since;
        m_filenodes[relation] = reads.filenode;
        if (reads.blocks > 0)
            m_reporter.logInfo(
                QStringLiteral("Rows written during the run, round %1: %2 blocks of %3 hold rows to repair")
                    .arg(m_round)
                    .arg(reads.blocks)
                    .arg(m_table.relations()[relation].name));
    }
    m_roundReads.clear();
}

QString BatchedRepair::step(const WorkUnit &unit) const
{
    if (unit.kind == WorkUnit::Kind::WrittenSince)
        return QStringLiteral("rows of %1 written during the run, round %2").arg(relationOf(unit)).arg(unit.round);
    if (unit.kind == WorkUnit::Kind::Rows)
        return QStringLiteral("%1 rows of %2").arg(unit.tids.size()).arg(relationOf(unit));
    return m_cursor->text(unit);
}

RepairStrategy::Result BatchedRepair::run(QSqlQuery &query, const WorkUnit &unit)
{
    if (unit.kind == WorkUnit::Kind::WrittenSince)
        return readWrittenSince(query, unit);
    const Result result = repairUnit(query, unit);
    if (result.transaction != 0) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ownTransactions.append(result.transaction);
    }
    return result;
}

RepairStrategy::Result BatchedRepair::repairUnit(QSqlQuery &query, const WorkUnit &unit)
{
    if (unit.kind == WorkUnit::Kind::Rows) {
        if (unit.tids.isEmpty())
            return Result{true, {}, {}, {}};
        return repair(query, unit, RepairStatements::tidList(unit.tids), step(unit));
    }
    QElapsedTimer elapsed;
    elapsed.start();
    const Result result
        = repair(query, unit, RepairStatements::tidRange(m_cursor->tidOf(unit.first), m_cursor->tidOf(unit.end)),
            QStringLiteral("%1 (%2 blocks)")
                .arg(m_cursor->text(unit),
                    QString::number(double(unit.end - unit.first) / m_table.slotsPerBlock(), 'f', 2)));
    if (result.ok)
        m_cursor->sizer().measured(unit.end - unit.first, elapsed.elapsed(), result.rowsRead);
    else
        m_cursor->sizer().failed();
    if (result.ok && result.rowsRead == 0)
        m_cursor->heldNoRow(unit);
    if (result.ok && unit.round > 0) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (const qint64 changed : result.changed)
            m_roundChanged += changed;
    }
    return result;
}

// Rows written since the relation's snapshot (or, where they cannot be told, every row), and in the
// first round every row of an instance the run's start did not list, in one of the round's runs
// of blocks.
RepairStrategy::Result BatchedRepair::readWrittenSince(QSqlQuery &query, const WorkUnit &unit)
{
    Result result;
    qint64 since = 0;
    QVector<qint64> own;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        since = m_since[unit.relation];
        own = m_ownTransactions;
    }
    qint64 next = 0;
    if (!readSnapshotXmin(query, next)) {
        recordRead(unit.relation, since, QString(), 0);
        return result;
    }
    QString filenode;
    const bool told = sinceHolds(query, unit.relation, since, &filenode);
    // The run's own rows are repaired already: only the others' text is worth testing.
    QString which = QStringLiteral("(%1 AND %2)")
                        .arg(told ? RepairStatements::writtenSince(since) : QStringLiteral("true"),
                            RepairStatements::notWrittenBy(own));
    if (unit.first == 0)
        m_verbose.line(told ? QStringLiteral("%1, round %2: the rows written since transaction %3 are read by their "
                                             "xmin")
                                  .arg(relationOf(unit))
                                  .arg(unit.round)
                                  .arg(since)
                            : QStringLiteral("%1, round %2: every row is read, the rows written since transaction %3 "
                                             "cannot be told by their xmin (the relation was rewritten, or 2^31 "
                                             "transactions have begun since)")
                                  .arg(relationOf(unit))
                                  .arg(unit.round)
                                  .arg(since));
    if (unit.round == 1 && !m_newInstances.isEmpty()) {
        QStringList literals;
        for (const QString &id : m_newInstances)
            literals << SqlLiteral::of(id);
        which = QStringLiteral("(%1 OR instance_id IN (%2))").arg(which, literals.join(QLatin1Char(',')));
    }
    const QString range = RepairStatements::blockRange(unit.first, unit.end);
    if (unit.round > kClosingRounds) {
        leaveWrittenSince(query, unit, which, range, result);
        return result;
    }
    query.setForwardOnly(true);
    // The planner expects half the rows to pass and would compile the filter first (JIT), which
    // on 2 000 000 rows took longer than the read itself.
    query.exec(QStringLiteral("SET jit = off"));
    result.ok = query.exec(
        RepairStatements::blocksToChange(InstanceLines::kColumn, relationOf(unit), m_instances.ids(), which, range));
    QVector<qint64> blocks;
    while (result.ok && query.next())
        blocks << query.value(0).toLongLong();
    result.ok = result.ok && query.lastError().type() == QSqlError::NoError;
    // A failed read leaves its error on the query for the engine to judge.
    if (!result.ok) {
        recordRead(unit.relation, since, QString(), 0);
        return result;
    }
    query.exec(QStringLiteral("RESET jit"));
    recordRead(unit.relation, next, filenode, blocks.size());
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_roundFound = m_roundFound || !blocks.isEmpty();
    }
    result.more = rangesOfBlocks(blocks, unit);
    return result;
}

// What the rounds could not repair: another session kept writing text to repair.
void BatchedRepair::leaveWrittenSince(
    QSqlQuery &query, const WorkUnit &unit, const QString &which, const QString &range, Result &result)
{
    query.setForwardOnly(true);
    result.ok = query.exec(RepairStatements::rowVersionsToChange(
        InstanceLines::kColumn, relationOf(unit), m_instances.ids(), which, range));
    QStringList tids;
    while (result.ok && query.next())
        tids << query.value(0).toString();
    result.ok = result.ok && query.lastError().type() == QSqlError::NoError;
    if (!result.ok)
        return;
    const QString reason = QStringLiteral("Another session wrote the row with text to repair during the run, "
                                          "after the run had read the rows written meanwhile %1 times; a later run "
                                          "repairs it.")
                               .arg(kClosingRounds);
    for (const QString &tid : tids)
        leaveRow(query, m_table.describeRow(query, relationOf(unit), tid), reason);
}

// The blocks as ranges: neighbours together, each range no larger than the sizer's present size.
QVector<WorkUnit> BatchedRepair::rangesOfBlocks(const QVector<qint64> &blocks, const WorkUnit &read) const
{
    const qint64 slotsPerBlock = m_table.slotsPerBlock();
    const qint64 mostSlots = std::max(m_cursor->sizer().size(), slotsPerBlock);
    QVector<WorkUnit> ranges;
    for (const qint64 block : blocks) {
        const qint64 first = block * slotsPerBlock;
        if (!ranges.isEmpty() && ranges.last().end == first && ranges.last().end - ranges.last().first < mostSlots) {
            ranges.last().end += slotsPerBlock;
            continue;
        }
        WorkUnit range;
        range.kind = WorkUnit::Kind::Range;
        range.relation = read.relation;
        range.round = read.round;
        range.rootUnit = read.rootUnit;
        range.first = first;
        range.end = first + slotsPerBlock;
        ranges.append(range);
    }
    return ranges;
}

// The rows to change of a range that failed, as one unit to split further; none to change any
// more leaves an empty unit, which is done at once.
QVector<WorkUnit> BatchedRepair::split(QSqlQuery &query, const WorkUnit &unit)
{
    if (unit.kind == WorkUnit::Kind::WrittenSince)
        return {};
    if (unit.kind == WorkUnit::Kind::Rows)
        return halvesOfRows(unit);
    query.setForwardOnly(true);
    if (!query.exec(RepairStatements::rowsToChange(InstanceLines::kColumn, relationOf(unit), idsOf(unit),
            RepairStatements::tidRange(m_cursor->tidOf(unit.first), m_cursor->tidOf(unit.end)))))
        return {};
    WorkUnit rows = unit;
    rows.kind = WorkUnit::Kind::Rows;
    while (query.next())
        rows.tids << query.value(0).toString();
    if (query.lastError().type() != QSqlError::NoError)
        return {};
    return {rows};
}

bool BatchedRepair::leave(QSqlQuery &query, const WorkUnit &unit, const ServerFailure &failure)
{
    QString what = QStringLiteral("%1 rows of %2").arg(unit.tids.size()).arg(relationOf(unit));
    if (unit.kind == WorkUnit::Kind::Range)
        what = QStringLiteral("row versions %1").arg(m_cursor->text(unit));
    else if (unit.kind == WorkUnit::Kind::WrittenSince)
        what = QStringLiteral("rows of %1 written during the run").arg(relationOf(unit));
    return leaveRows(query, unit, what, failure.serverMessage());
}

QString BatchedRepair::givenUp(const WorkUnit &unit) const
{
    return QStringLiteral("the rows of %1 not repaired yet").arg(relationOf(unit));
}

void BatchedRepair::rangeFinished(int rootUnit, bool covered)
{
    qint64 slotCount = 0;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        --m_open;
        slotCount = m_rangeSlots[rootUnit];
        if (!covered || slotCount < 0)
            return;
        ++m_rangesDone;
    }
    m_tally.cover(slotCount);
    m_progress.advance(slotCount, 0);
}

// A run that stopped early is resumed by the next --journal run.
void BatchedRepair::conclude(QSqlQuery &query, bool interrupted)
{
    if (!m_journal || !m_cursor)
        return;
    m_journal->close(query,
        interrupted || !m_tally.stopReason().isEmpty() ? RunJournal::RunState::Interrupted
                                                       : RunJournal::RunState::Finished);
}

void BatchedRepair::report(bool interrupted) const
{
    if (m_instances.isEmpty() || !m_cursor)
        return;
    const qint64 covered = m_tally.covered();
    const qint64 total = m_cursor->totalSlots();
    const int slotsPerBlock = std::max(m_table.slotsPerBlock(), 1);
    const int percent = total == 0 ? 100 : int(covered * 100 / total);
    // A range holds rows of any instance: one that was not covered leaves every instance unfinished.
    const QString unfinished
        = covered < total ? QStringLiteral("the run covered %1% of scan.file").arg(percent) : QString();
    if (!interrupted) {
        for (int i = 0; i < m_instances.size(); ++i)
            instanceLine(i, unfinished);
    }
    // Every block is not every row until the closing rounds have read again what others wrote.
    const QString share = covered == total && !m_roundsOver
        ? QStringLiteral("100% of its blocks, the rows written during the run not all read again")
        : QStringLiteral("%1%").arg(percent);
    QString coverage = QStringLiteral("Batched repair covered %1 of %2 blocks of scan.file (%3) in %4 of %5 batches, "
                                      "rows changed: %6")
                           .arg(covered / slotsPerBlock)
                           .arg(total / slotsPerBlock)
                           .arg(share)
                           .arg(m_rangesDone)
                           .arg(m_ranges)
                           .arg(m_tally.totalChanged());
    if (!m_tally.leftRows().isEmpty())
        coverage += QStringLiteral(", rows left: %1").arg(m_tally.leftRows().size());
    // A run that did not cover everything says how far it got as a warning, not that it is done.
    if (covered == total && !interrupted)
        m_reporter.info(coverage);
    else
        m_reporter.shortfall(coverage);
    if (m_roundChanged > 0)
        m_reporter.logInfo(
            QStringLiteral("Rows repaired by the closing rounds (written during the run by other sessions, or of "
                           "instances listed since the run began): %1")
                .arg(m_roundChanged));
    if (!interrupted)
        reportLeft();
}
