#include "app/repair/RewritingStrategy.h"

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

#include <algorithm>

RewritingStrategy::RewritingStrategy(const QString &option, const StrategyContext &context, RunJournal *journal)
    : m_option(option)
    , m_reporter(context.reporter)
    , m_verbose(context.verbose)
    , m_progress(context.progress)
    , m_tally(context.tally)
    , m_journal(journal)
{ }

bool RewritingStrategy::readTable(QSqlQuery &query)
{
    QString refusal;
    if (!m_table.read(query, InstanceLines::kColumn))
        refusal = QStringLiteral("%1 cannot read the shape of scan.file. %2").arg(m_option, m_table.error());
    else
        refusal = m_table.refusal(m_option, true);
    if (refusal.isEmpty() && !m_table.readRelations(query))
        refusal = QStringLiteral("%1 cannot read the partitions of scan.file: %2").arg(m_option, m_table.error());
    if (refusal.isEmpty())
        return true;
    m_reporter.error(refusal);
    return false;
}

QStringList RewritingStrategy::idsOf(const WorkUnit &unit) const
{
    return unit.instance >= 0 ? QStringList{m_instances[unit.instance].id} : m_instances.ids();
}

bool RewritingStrategy::mayWrite(QSqlQuery &query, const WorkUnit &unit)
{
    return ServerFailure::roleMayWrite(query, relationOf(unit), InstanceLines::kColumn);
}

QString RewritingStrategy::relationOf(const WorkUnit &unit) const
{
    return m_table.relations()[unit.relation].name;
}

QString RewritingStrategy::statement(const WorkUnit &unit, const QString &where, bool lastTry) const
{
    const QString relation = relationOf(unit);
    const bool range = unit.kind == WorkUnit::Kind::Range;
    if (!m_journal) {
        const QString update = lastTry
            ? RepairStatements::updateSkippingLocked(InstanceLines::kColumn, relation, idsOf(unit), where)
            : RepairStatements::update(InstanceLines::kColumn, relation, idsOf(unit), where);
        return range ? RepairStatements::countingRead(update, relation, where) : update;
    }
    QString records = m_journal->records(relation);
    // A range of the run's own list is done when its one statement commits; the parts of a split
    // one, and the ranges of rows written during the run, are not one.
    if (range && unit.round == 0)
        records += QStringLiteral(", ") + m_journal->rangeRecord(relation, unit.first, unit.end);
    const QString update = RepairStatements::journaledUpdate(
        InstanceLines::kColumn, relation, idsOf(unit), where, lastTry, m_table.keyArray(QStringLiteral("f")), records);
    return range ? RepairStatements::countingRead(update, relation, where) : update;
}

RepairStrategy::Result RewritingStrategy::repair(
    QSqlQuery &query, const WorkUnit &unit, const QString &where, const QString &step)
{
    const bool lastTry = unit.lastTry;
    QElapsedTimer elapsed;
    elapsed.start();
    query.setForwardOnly(true);
    Result result;
    result.ok = query.exec(statement(unit, where, lastTry));
    qint64 changed = 0;
    while (result.ok && query.next()) {
        if (query.value(0).isNull()) {
            result.rowsRead = query.value(1).toLongLong();
            continue;
        }
        result.changed[query.value(0).toString()] += query.value(1).toLongLong();
        result.transaction = query.value(2).toLongLong();
        changed += query.value(1).toLongLong();
    }
    result.ok = result.ok && query.lastError().type() == QSqlError::NoError;
    if (m_verbose.enabled())
        m_verbose.line(
            QStringLiteral("%1: %2 s, rows changed: %3%4")
                .arg(step, QString::number(elapsed.elapsed() / 1000.0, 'f', 3))
                .arg(changed)
                .arg(result.ok ? QString() : QStringLiteral(", failed: ") + query.lastError().text().simplified()));
    if (result.ok) {
        m_progress.advance(0, changed);
        if (lastTry)
            leaveLeftovers(query, unit, where, result);
    }
    return result;
}

// What a last try skipped: rows another session holds are put aside for one more try at the end
// (or, on that try, left and named with that session's server process); rows rewritten meanwhile
// are tried once more, waiting on nothing.
void RewritingStrategy::leaveLeftovers(QSqlQuery &query, const WorkUnit &unit, const QString &where, Result &result)
{
    if (!query.exec(RepairStatements::rowsToChange(InstanceLines::kColumn, relationOf(unit), idsOf(unit), where))) {
        m_tally.fail(QStringLiteral("rows of %1 that a last try skipped").arg(relationOf(unit)),
            query.lastError().text().simplified());
        return;
    }
    QStringList rewritten;
    QList<QPair<QString, QString>> locked;
    while (query.next()) {
        if (!query.value(2).isNull())
            locked.append({query.value(0).toString(), query.value(2).toString()});
        else
            rewritten << query.value(0).toString();
    }
    result.setAside += locked.size() + rewritten.size();
    for (const auto &row : locked) {
        if (!unit.leftovers) {
            const std::lock_guard<std::mutex> lock(m_heldMutex);
            m_held.insert({unit.relation, row.first}, {unit.instance, row.second});
            continue;
        }
        leaveRow(query, m_table.describeRow(query, relationOf(unit), row.first),
            QStringLiteral("The row is locked by server process %1, which held it through every try of the run.")
                .arg(row.second));
    }
    if (rewritten.isEmpty())
        return;
    if (unit.leftovers) {
        for (const QString &tid : rewritten)
            leaveRow(query, m_table.describeRow(query, relationOf(unit), tid),
                QStringLiteral(
                    "Another session rewrote the row with text still to repair each time the run tried it."));
        return;
    }
    WorkUnit again = unit;
    again.kind = WorkUnit::Kind::Rows;
    again.tids = rewritten;
    again.leftovers = true;
    result.more.append(again);
}

bool RewritingStrategy::hasHeldRows(int instance) const
{
    const std::lock_guard<std::mutex> lock(m_heldMutex);
    for (const HeldRow &row : m_held) {
        if (instance < 0 || row.instance == instance)
            return true;
    }
    return false;
}

QVector<WorkUnit> RewritingStrategy::heldRows(int instance)
{
    QMap<int, WorkUnit> perRelation;
    const std::lock_guard<std::mutex> lock(m_heldMutex);
    for (auto it = m_held.begin(); it != m_held.end();) {
        if (instance >= 0 && it.value().instance != instance) {
            ++it;
            continue;
        }
        WorkUnit &unit = perRelation[it.key().first];
        unit.kind = WorkUnit::Kind::Rows;
        unit.instance = instance;
        unit.relation = it.key().first;
        unit.lastTry = true;
        unit.leftovers = true;
        unit.tids << it.key().second;
        it = m_held.erase(it);
    }
    return perRelation.values().toVector();
}

QStringList RewritingStrategy::withoutHeld(int relation, const QStringList &tids) const
{
    const std::lock_guard<std::mutex> lock(m_heldMutex);
    if (m_held.isEmpty())
        return tids;
    QStringList kept;
    for (const QString &tid : tids) {
        if (!m_held.contains({relation, tid}))
            kept << tid;
    }
    return kept;
}

namespace {
// Modes of another session's lock on a whole relation that the tool's UPDATE (ROW EXCLUSIVE)
// waits for: LOCK TABLE in these modes, CREATE INDEX (SHARE), most ALTER TABLE forms (ACCESS
// EXCLUSIVE).
const QString kWholeRelationModes
    = QStringLiteral("'ShareLock', 'ShareRowExclusiveLock', 'ExclusiveLock', 'AccessExclusiveLock'");
} // namespace

// Asked after a lock wait ran past the tool's bound: a lock on the whole relation would hold every
// one of its units alike, so the relation is given up at once rather than met unit after unit.
bool RewritingStrategy::relationLocked(QSqlQuery &query, const WorkUnit &unit)
{
    if (relationGivenUp(unit.relation))
        return true;
    const QString relation = relationOf(unit);
    const QString holder = QStringLiteral(
        "SELECT l.pid, l.mode FROM pg_locks l WHERE l.locktype = 'relation' AND l.database = (SELECT oid FROM "
        "pg_database WHERE datname = current_database()) AND l.relation = %1::regclass AND l.granted AND l.pid <> "
        "pg_backend_pid() AND l.mode IN (%2) ORDER BY l.pid LIMIT 1");
    if (!query.exec(holder.arg(SqlLiteral::of(relation), kWholeRelationModes)) || !query.next())
        return false;
    const QString reason = QStringLiteral("%1 is locked as a whole by server process %2 (%3), which held it "
                                          "through the run's wait; what the run had not repaired of it is left "
                                          "to the next run.")
                               .arg(relation, query.value(0).toString(), query.value(1).toString());
    {
        const std::lock_guard<std::mutex> lock(m_heldMutex);
        if (m_givenUp.contains(unit.relation))
            return true;
        m_givenUp.insert(unit.relation, reason);
    }
    m_tally.fail(givenUp(unit), reason);
    m_reporter.logWarning(reason);
    return true;
}

bool RewritingStrategy::relationGivenUp(int relation) const
{
    const std::lock_guard<std::mutex> lock(m_heldMutex);
    return m_givenUp.contains(relation);
}

bool RewritingStrategy::skips(const WorkUnit &unit) const
{
    QString reason;
    {
        const std::lock_guard<std::mutex> lock(m_heldMutex);
        reason = m_givenUp.value(unit.relation);
    }
    if (reason.isEmpty())
        return false;
    // Each instance's line says what was given up with the relation.
    m_tally.fail(givenUp(unit), reason);
    return true;
}

bool RewritingStrategy::leaveRows(QSqlQuery &query, const WorkUnit &unit, const QString &what, const QString &reason)
{
    if (unit.kind == WorkUnit::Kind::Rows && unit.tids.size() == 1) {
        leaveRow(query, m_table.describeRow(query, relationOf(unit), unit.tids.first()), reason);
        return false;
    }
    m_tally.fail(what, reason);
    m_reporter.logWarning(
        QStringLiteral("Left unrepaired, data: %1: %2. %3").arg(InstanceLines::kColumn, what, reason));
    return true;
}

void RewritingStrategy::leaveRow(QSqlQuery &query, const ScanTable::Row &row, const QString &reason)
{
    if (!m_tally.leaveRow({row.instance, row.name, reason}))
        return;
    if (m_journal)
        m_journal->leaveRow(query, row.instance, row.name, reason);
    m_reporter.logWarning(QStringLiteral("Row left unrepaired, data: %1, instance id: %2, row: %3. %4")
                              .arg(InstanceLines::kColumn, row.instance, row.name, reason));
}

void RewritingStrategy::instanceLine(int index, const QString &unfinished) const
{
    const InstanceList::Instance &instance = m_instances[index];
    const qint64 changed = m_tally.changed(instance.id);
    const QString failure = m_tally.failureOf(QStringLiteral("instance ") + instance.id);
    const int left = m_tally.leftRowsOf(instance.id);
    if (failure.isEmpty() && left == 0 && unfinished.isEmpty()) {
        InstanceLines::done(instance, m_reporter, QStringLiteral(", rows changed: %1").arg(changed));
        return;
    }
    QStringList reasons;
    if (left > 0)
        reasons << QStringLiteral("rows left unrepaired: %1 (each named in this log)").arg(left);
    if (!failure.isEmpty())
        reasons << failure;
    if (!unfinished.isEmpty())
        reasons << unfinished;
    InstanceLines::failed(instance, m_reporter,
        QStringLiteral("rows changed: %1, %2").arg(changed).arg(reasons.join(QStringLiteral("; "))));
}

void RewritingStrategy::reportLeft() const
{
    const QVector<RunTally::LeftRow> left = m_tally.leftRows();
    const QStringList failures = m_tally.failures();
    if (!left.isEmpty()) {
        QMap<QString, int> perInstance;
        for (const RunTally::LeftRow &row : left)
            ++perInstance[row.instance];
        QStringList where;
        for (auto it = perInstance.cbegin(); it != perInstance.cend(); ++it)
            where << QStringLiteral("instance %1: %2").arg(it.key()).arg(it.value());
        m_reporter.warning(QStringLiteral("Rows left unrepaired: %1 (%2); the run log names each row and why. "
                                          "A later run repairs them once that is dealt with.")
                               .arg(left.size())
                               .arg(where.join(QStringLiteral(", "))));
    }
    if (!failures.isEmpty())
        m_reporter.warning(
            QStringLiteral("Not repaired: %1; the run log says why.").arg(failures.join(QStringLiteral(", "))));
    m_reporter.runStopped(m_tally.stopReason());
}
