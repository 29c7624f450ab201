#include "app/repair/BatchedRepair.h"

#include "app/journal/RunJournal.h"
#include "app/output/Console.h"
#include "app/output/Progress.h"
#include "app/output/RunLog.h"
#include "app/repair/InstanceLines.h"
#include "app/repair/RepairStatements.h"
#include "app/repair/ServerFailure.h"

#include <QElapsedTimer>
#include <QSqlError>
#include <QSqlQuery>

BatchedRepair::BatchedRepair(RunLog &log, const VerboseLog &verbose, Progress &progress, RunTally &tally,
    RunJournal *journal, const QString &options)
    : RowRepair(journal ? QStringLiteral("--journal") : QStringLiteral("--batched"), log, verbose, progress, tally)
    , m_options(options)
{
    m_journal = journal;
}

bool BatchedRepair::prepare(QSqlQuery &query)
{
    if (!checkServer(query, m_log, m_option) || !m_instances.read(query, m_log))
        return false;
    if (m_instances.isEmpty())
        return true;
    if (!readTable(query))
        return false;
    m_mainQuery = &query;
    m_cursor = std::make_unique<RangeCursor>(m_table);
    m_progress.setTotal(m_cursor->totalSlots(), QStringLiteral("scan.file"));
    return !m_journal || openJournal(query);
}

bool BatchedRepair::checkServer(QSqlQuery &query, RunLog &log, const QString &option)
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
    Console::err(QStringLiteral("ERROR: ") + line);
    log.writeLine(RunLog::Error, line);
    return false;
}

// A resumed run's committed ranges are done: they count as covered, and no unit is made of them.
bool BatchedRepair::openJournal(QSqlQuery &query)
{
    if (!m_journal->open(query, m_options)) {
        const QString line = QStringLiteral("--journal cannot record the run in schema %1 of the database. %2")
                                 .arg(RunJournal::kSchema, m_journal->error());
        Console::err(QStringLiteral("ERROR: ") + line);
        m_log.writeLine(RunLog::Error, line);
        return false;
    }
    qint64 done = 0;
    for (auto it = m_journal->committed().cbegin(); it != m_journal->committed().cend(); ++it) {
        const int relation = m_table.relationIndex(it.key());
        if (relation >= 0)
            done += m_cursor->skip(relation, it.value());
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
    Console::out(line);
    m_log.writeLine(RunLog::Info, line);
    return true;
}

bool BatchedRepair::nextUnit(WorkUnit &unit)
{
    if (!m_cursor || !m_cursor->next(unit))
        return false;
    const std::lock_guard<std::mutex> lock(m_mutex);
    unit.origin = m_rangeSlots.size();
    m_rangeSlots.append(unit.end - unit.first);
    return true;
}

QString BatchedRepair::step(const WorkUnit &unit) const
{
    if (unit.kind == WorkUnit::Kind::Rows)
        return QStringLiteral("%1 rows of %2").arg(unit.tids.size()).arg(relationOf(unit));
    return m_cursor->text(unit);
}

RepairStrategy::Result BatchedRepair::run(QSqlQuery &query, const WorkUnit &unit)
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
    return result;
}

// The rows to change of a range that failed, as one unit to split further; none to change any
// more leaves an empty unit, which is done at once.
QVector<WorkUnit> BatchedRepair::split(QSqlQuery &query, const WorkUnit &unit)
{
    if (unit.kind == WorkUnit::Kind::Rows)
        return splitRows(unit);
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
    const QString what = unit.kind == WorkUnit::Kind::Range
        ? QStringLiteral("row versions %1").arg(m_cursor->text(unit))
        : QStringLiteral("%1 rows of %2").arg(unit.tids.size()).arg(relationOf(unit));
    return leaveRows(query, unit, what, failure.words());
}

void BatchedRepair::rangeFinished(int origin, bool covered)
{
    if (!covered)
        return;
    qint64 slotCount = 0;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        slotCount = m_rangeSlots[origin];
        ++m_rangesDone;
    }
    m_tally.cover(slotCount);
    m_progress.advance(slotCount, 0);
}

void BatchedRepair::report(bool interrupted)
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
    QString coverage = QStringLiteral("Batched repair covered %1 of %2 blocks of scan.file (%3%) in %4 of %5 batches, "
                                      "rows changed: %6")
                           .arg(covered / slotsPerBlock)
                           .arg(total / slotsPerBlock)
                           .arg(percent)
                           .arg(m_rangesDone)
                           .arg(m_rangeSlots.size())
                           .arg(m_tally.totalChanged());
    if (!m_tally.leftRows().isEmpty())
        coverage += QStringLiteral(", rows left: %1").arg(m_tally.leftRows().size());
    // A run that did not cover everything says how far it got as a warning, not that it is done.
    if (covered == total && !interrupted) {
        Console::out(coverage);
        m_log.writeLine(RunLog::Info, coverage);
    } else {
        Console::err(coverage);
        m_log.writeLine(RunLog::Warning, coverage);
    }
    if (!interrupted)
        reportLeft();
    // A run that stopped early is resumed by the next --journal run.
    if (m_journal && m_mainQuery)
        m_journal->close(*m_mainQuery,
            interrupted || !m_tally.stopReason().isEmpty() ? RunJournal::kInterrupted : RunJournal::kFinished);
}
