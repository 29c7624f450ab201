#include "app/repair/BatchedRepair.h"

#include "app/output/Console.h"
#include "app/output/Progress.h"
#include "app/output/RunLog.h"
#include "app/repair/InstanceLines.h"
#include "app/repair/RepairStatements.h"
#include "app/repair/ServerFailure.h"

#include <QElapsedTimer>
#include <QSqlError>
#include <QSqlQuery>

BatchedRepair::BatchedRepair(RunLog &log, const VerboseLog &verbose, Progress &progress, RunTally &tally)
    : RowRepair(QStringLiteral("--batched"), log, verbose, progress, tally)
{ }

bool BatchedRepair::prepare(QSqlQuery &query)
{
    if (!checkServer(query) || !m_instances.read(query, m_log))
        return false;
    if (m_instances.isEmpty())
        return true;
    if (!readTable(query))
        return false;
    m_sizer = std::make_unique<UnitSizer>(m_table.slotsPerBlock());
    for (const ScanTable::Relation &relation : m_table.relations())
        m_totalSlots += relation.blocks * m_table.slotsPerBlock();
    m_progress.setTotal(m_totalSlots, QStringLiteral("scan.file"));
    return true;
}

bool BatchedRepair::checkServer(QSqlQuery &query)
{
    if (query.exec(QStringLiteral("SELECT current_setting('server_version_num')::int, "
                                  "current_setting('server_version')"))
        && query.next() && query.value(0).toInt() >= kFirstServerWithRanges)
        return true;
    const QString line = query.isActive()
        ? QStringLiteral("--batched needs PostgreSQL 14 or newer, which can read a table by ranges of blocks; the "
                         "server runs PostgreSQL %1. Use --changed-only there.")
              .arg(query.value(1).toString())
        : QStringLiteral("Cannot read the server's version for --batched. %1").arg(query.lastError().text());
    Console::err(QStringLiteral("ERROR: ") + line);
    m_log.writeLine(RunLog::Error, line);
    return false;
}

// Blocks appended while the run goes on (rows the product writes, new versions of the rows this
// run rewrites) are left to the next run.
bool BatchedRepair::nextUnit(WorkUnit &unit)
{
    if (m_instances.isEmpty())
        return false;
    const QVector<ScanTable::Relation> &relations = m_table.relations();
    while (m_relation < relations.size() && m_position >= relations[m_relation].blocks * m_table.slotsPerBlock()) {
        ++m_relation;
        m_position = 0;
    }
    if (m_relation >= relations.size())
        return false;
    unit = WorkUnit();
    unit.kind = WorkUnit::Kind::Range;
    unit.relation = m_relation;
    unit.first = m_position;
    unit.end = std::min(m_position + m_sizer->size(), relations[m_relation].blocks * m_table.slotsPerBlock());
    m_position = unit.end;
    const std::lock_guard<std::mutex> lock(m_mutex);
    unit.origin = m_rangeSlots.size();
    m_rangeSlots.append(unit.end - unit.first);
    return true;
}

QString BatchedRepair::tidOf(qint64 slot) const
{
    return RepairStatements::tid(slot / m_table.slotsPerBlock(), int(slot % m_table.slotsPerBlock()));
}

QString BatchedRepair::rangeText(const WorkUnit &unit) const
{
    return QStringLiteral("%1 to %2 of %3").arg(tidOf(unit.first), tidOf(unit.end), relationOf(unit));
}

QString BatchedRepair::step(const WorkUnit &unit) const
{
    if (unit.kind == WorkUnit::Kind::Rows)
        return QStringLiteral("%1 rows of %2").arg(unit.tids.size()).arg(relationOf(unit));
    return rangeText(unit);
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
    const Result result = repair(query, unit, RepairStatements::tidRange(tidOf(unit.first), tidOf(unit.end)),
        QStringLiteral("%1 (%2 blocks)")
            .arg(rangeText(unit), QString::number(double(unit.end - unit.first) / m_table.slotsPerBlock(), 'f', 2)));
    if (result.ok)
        m_sizer->measured(unit.end - unit.first, elapsed.elapsed());
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
            RepairStatements::tidRange(tidOf(unit.first), tidOf(unit.end)))))
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
        ? QStringLiteral("row versions %1").arg(rangeText(unit))
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
    if (m_instances.isEmpty())
        return;
    const qint64 covered = m_tally.covered();
    const int slotsPerBlock = std::max(m_table.slotsPerBlock(), 1);
    const int percent = m_totalSlots == 0 ? 100 : int(covered * 100 / m_totalSlots);
    // A range holds rows of any instance: one that was not covered leaves every instance unfinished.
    const QString unfinished
        = covered < m_totalSlots ? QStringLiteral("the run covered %1% of scan.file").arg(percent) : QString();
    if (!interrupted) {
        for (int i = 0; i < m_instances.size(); ++i)
            instanceLine(i, unfinished);
    }
    QString coverage = QStringLiteral("Batched repair covered %1 of %2 blocks of scan.file (%3%) in %4 of %5 batches, "
                                      "rows changed: %6")
                           .arg(covered / slotsPerBlock)
                           .arg(m_totalSlots / slotsPerBlock)
                           .arg(percent)
                           .arg(m_rangesDone)
                           .arg(m_rangeSlots.size())
                           .arg(m_tally.totalChanged());
    if (!m_tally.leftRows().isEmpty())
        coverage += QStringLiteral(", rows left: %1").arg(m_tally.leftRows().size());
    // A run that did not cover everything says how far it got as a warning, not that it is done.
    if (covered == m_totalSlots && !interrupted) {
        Console::out(coverage);
        m_log.writeLine(RunLog::Info, coverage);
    } else {
        Console::err(coverage);
        m_log.writeLine(RunLog::Warning, coverage);
    }
    if (!interrupted)
        reportLeft();
}
