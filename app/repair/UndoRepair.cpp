#include "app/repair/UndoRepair.h"

#include "app/journal/RunJournal.h"
#include "app/output/Progress.h"
#include "app/output/Reporter.h"
#include "app/output/VerboseLog.h"
#include "app/repair/InstanceLines.h"
#include "app/repair/ServerFailure.h"
#include "app/repair/StrategyContext.h"

#include <QElapsedTimer>
#include <QSqlError>
#include <QSqlQuery>

namespace {
// Records are counted one by one: the sizer's "block" is one record.
constexpr int kRecordsPerSlot = 1;
const QString kNotRestored = QStringLiteral("Its text is no longer what the run wrote (changed since, or the row is "
                                            "gone); it was left as it is.");
} // namespace

UndoRepair::UndoRepair(const StrategyContext &context, int run, qint64 unitTargetMs)
    : m_run(run)
    , m_unitTargetMs(unitTargetMs)
    , m_reporter(context.reporter)
    , m_verbose(context.verbose)
    , m_progress(context.progress)
    , m_tally(context.tally)
    , m_journal(context.journal)
{ }

bool UndoRepair::refuse(const QString &line)
{
    m_reporter.error(line);
    return false;
}

bool UndoRepair::prepare(QSqlQuery &query)
{
    if (!m_journal.exists(query))
        return refuse(QStringLiteral("There is no journaled run in this database (no schema %1): --undo takes back a "
                                     "run made with --journal.")
                          .arg(RunJournal::kSchema));
    if (!readRun(query))
        return false;
    if (!m_table.read(query, InstanceLines::kColumn) || !m_table.readRelations(query))
        return refuse(QStringLiteral("--undo cannot read the shape of scan.file. %1").arg(m_table.error()));
    if (m_table.hasKey())
        m_relations = QStringList{QStringLiteral("scan.file")};
    else
        m_journal.relationsOf(query, m_run, m_relations);
    if (!m_journal.markRun(query, m_run, RunJournal::RunState::Undoing))
        return refuse(QStringLiteral("--undo cannot mark run %1 as being undone. %2")
                          .arg(m_run)
                          .arg(query.lastError().databaseText().simplified()));
    m_sizer = std::make_unique<UnitSizer>(kRecordsPerSlot, m_unitTargetMs);
    m_position = m_firstSeq;
    m_progress.setTotal(std::max<qint64>(m_endSeq - m_firstSeq, 0) * std::max<int>(m_relations.size(), 1),
        QStringLiteral("run %1's records").arg(m_run));
    return true;
}

bool UndoRepair::readRun(QSqlQuery &query)
{
    RunJournal::UndoSpan span;
    if (!m_journal.readUndoSpan(query, m_run, span))
        return refuse(QStringLiteral("--undo cannot read run %1. %2")
                          .arg(m_run)
                          .arg(query.lastError().databaseText().simplified()));
    if (!span.found)
        return refuse(QStringLiteral("There is no journaled run %1 in this database; --runs lists them.").arg(m_run));
    if (span.state == RunJournal::stateName(RunJournal::RunState::Forgotten))
        return refuse(QStringLiteral("Run %1 was forgotten: its original texts were dropped (--forget), so it cannot "
                                     "be undone.")
                          .arg(m_run));
    m_firstSeq = span.firstSeq;
    m_endSeq = span.endSeq;
    return true;
}

bool UndoRepair::nextUnit(WorkUnit &unit)
{
    while (m_relation < m_relations.size() && m_position >= m_endSeq) {
        ++m_relation;
        m_position = m_firstSeq;
    }
    if (m_relation >= m_relations.size() || m_endSeq <= m_firstSeq)
        return false;
    unit = WorkUnit();
    unit.kind = WorkUnit::Kind::Range;
    unit.relation = m_relation;
    unit.first = m_position;
    unit.end = std::min(m_position + m_sizer->size(), m_endSeq);
    m_position = unit.end;
    return true;
}

QString UndoRepair::step(const WorkUnit &unit) const
{
    return QStringLiteral("records %1 to %2 of run %3").arg(unit.first).arg(unit.end - 1).arg(m_run);
}

QString UndoRepair::records(const WorkUnit &unit) const
{
    return RunJournal::recordSpan(
        m_run, unit.first, unit.end, m_table.hasKey() ? QString() : m_relations[unit.relation]);
}

QString UndoRepair::rowMatch(const QString &record) const
{
    return m_table.hasKey() ? m_table.keyMatch(QStringLiteral("f"), record + QStringLiteral(".key"))
                            : QStringLiteral("f.ctid = %1.version").arg(record);
}

// A record is restored only where the row's text is still the one the run wrote; the record is
// marked in the same statement.
// On a unit's last try the rows another session holds are skipped rather than waited for; they
// are left, named with that session's server process, and tried again by the next --undo.
QString UndoRepair::statement(const WorkUnit &unit) const
{
    return RunJournal::restore(
        records(unit), m_relations[unit.relation], InstanceLines::kColumn, rowMatch(QStringLiteral("j")), unit.lastTry);
}

RepairStrategy::Result UndoRepair::run(QSqlQuery &query, const WorkUnit &unit)
{
    QElapsedTimer elapsed;
    elapsed.start();
    query.setForwardOnly(true);
    Result result;
    result.ok = query.exec(statement(unit));
    qint64 restored = 0;
    while (result.ok && query.next()) {
        result.changed[query.value(0).toString()] += query.value(1).toLongLong();
        restored += query.value(1).toLongLong();
    }
    result.ok = result.ok && query.lastError().type() == QSqlError::NoError;
    if (m_verbose.enabled())
        m_verbose.line(
            QStringLiteral("%1: %2 s, rows restored: %3%4")
                .arg(step(unit), QString::number(elapsed.elapsed() / 1000.0, 'f', 3))
                .arg(restored)
                .arg(result.ok ? QString() : QStringLiteral(", failed: ") + query.lastError().text().simplified()));
    if (!result.ok)
        return result;
    m_sizer->measured(unit.end - unit.first, elapsed.elapsed());
    m_progress.advance(unit.end - unit.first, restored);
    leaveUnrestored(query, unit, result);
    return result;
}

void UndoRepair::leaveUnrestored(QSqlQuery &query, const WorkUnit &unit, Result &result)
{
    if (!query.exec(rowsOf(unit)))
        return;
    while (query.next()) {
        const QString name = rowName(query);
        QString reason = kNotRestored;
        if (!query.value(3).isNull()) {
            reason = QStringLiteral("The row is locked by server process %1, which held it through every try of "
                                    "the run; a later --undo restores it.")
                         .arg(query.value(3).toString());
            ++m_refused;
        }
        result.left.append({QString(), name, reason});
        logNotRestored(name, reason);
    }
}

// Key, row version and relation of the records still to restore, and the server process of
// another session that holds the row they name locked, if one does.
QString UndoRepair::rowsOf(const WorkUnit &unit) const
{
    return RunJournal::recordedRows(records(unit), m_relations[unit.relation], rowMatch(QStringLiteral("o")));
}

QString UndoRepair::rowName(const QSqlQuery &query) const
{
    if (!m_table.hasKey())
        return QStringLiteral("ctid %1 in %2").arg(query.value(1).toString(), query.value(2).toString());
    // The text form of a text array: {a,b}, elements quoted where needed.
    QString values = query.value(0).toString();
    values = values.mid(1, values.size() - 2);
    return m_table.keyName(values.split(QLatin1Char(',')));
}

void UndoRepair::logNotRestored(const QString &row, const QString &reason) const
{
    m_reporter.logWarning(QStringLiteral("Row not restored, run %1, data: %2, row: %3. %4")
                              .arg(m_run)
                              .arg(InstanceLines::kColumn, row, reason));
}

QVector<WorkUnit> UndoRepair::split(QSqlQuery &, const WorkUnit &unit)
{
    if (unit.end - unit.first < 2)
        return {};
    WorkUnit first = unit;
    WorkUnit second = unit;
    first.end = second.first = unit.first + (unit.end - unit.first) / 2;
    return {first, second};
}

// A unit split down to one record whose restore the server refuses leaves that row, named.
bool UndoRepair::leave(QSqlQuery &query, const WorkUnit &unit, const ServerFailure &failure)
{
    if (unit.end - unit.first == 1 && query.exec(rowsOf(unit)) && query.next()) {
        const QString name = rowName(query);
        ++m_refused;
        m_tally.leaveRow({QString(), name, failure.serverMessage()});
        logNotRestored(name, failure.serverMessage());
        return false;
    }
    const QString what = QStringLiteral("records %1 to %2 of run %3").arg(unit.first).arg(unit.end - 1).arg(m_run);
    m_tally.fail(what, failure.serverMessage());
    m_reporter.logWarning(
        QStringLiteral("Not restored, data: %1: %2. %3").arg(InstanceLines::kColumn, what, failure.serverMessage()));
    return true;
}

bool UndoRepair::mayWrite(QSqlQuery &query, const WorkUnit &unit)
{
    return ServerFailure::roleMayWrite(query, m_relations[unit.relation], InstanceLines::kColumn);
}

// A killed or interrupted undo, or one whose rows the server refused, stays undoing; the next
// --undo of the run finishes it.
void UndoRepair::conclude(QSqlQuery &query, bool interrupted)
{
    if (!interrupted && m_tally.stopReason().isEmpty() && m_refused == 0 && m_tally.failures().isEmpty())
        m_journal.markUndone(query, m_run);
}

void UndoRepair::report(bool interrupted) const
{
    const qint64 restored = m_tally.totalChanged();
    const int left = m_tally.leftRows().size();
    const bool over = !interrupted && m_tally.stopReason().isEmpty();
    const QString line = QStringLiteral("Undo of run %1%2, data: %3, rows restored: %4, rows not restored: %5")
                             .arg(m_run)
                             .arg(over ? QStringLiteral(" is done") : QStringLiteral(" was cut short"))
                             .arg(InstanceLines::kColumn)
                             .arg(restored)
                             .arg(left);
    if (over && m_tally.complete())
        m_reporter.info(line);
    else
        m_reporter.warning(line);
    m_reporter.runStopped(m_tally.stopReason());
}
