#include "app/repair/VerifyCheck.h"

#include "app/output/Progress.h"
#include "app/output/Reporter.h"
#include "app/repair/InstanceLines.h"
#include "app/repair/RepairStatements.h"
#include "app/repair/ServerFailure.h"
#include "app/repair/StrategyContext.h"
#include "app/run/LibpqHandle.h"

#include <QElapsedTimer>
#include <QSqlError>
#include <QSqlQuery>

namespace {
// The SQLSTATE class of a text the cast refuses.
const QString kDataException = QStringLiteral("22");
// In place of a count that was not made, as the dry run says it.
const QString kFailed = QStringLiteral("failed");
const QString kFunction = QStringLiteral(
    "CREATE OR REPLACE FUNCTION pg_temp.zentrix_jsonb_error(t text) RETURNS text LANGUAGE plpgsql AS $$ BEGIN "
    "PERFORM t::jsonb; RETURN NULL; EXCEPTION WHEN others THEN RETURN SQLERRM; END $$");
} // namespace

VerifyCheck::VerifyCheck(const StrategyContext &context)
    : m_reporter(context.reporter)
    , m_progress(context.progress)
    , m_tally(context.tally)
{ }

bool VerifyCheck::prepare(QSqlQuery &query)
{
    if (!m_instances.read(query, m_reporter))
        return false;
    if (m_instances.isEmpty())
        return true;
    QString refusal;
    if (!m_table.read(query, InstanceLines::kColumn))
        refusal = QStringLiteral("--verify cannot read the shape of scan.file. %1").arg(m_table.error());
    else if (!m_table.holdsRows())
        refusal = QStringLiteral("--verify reads scan.file by ranges of row versions, which scan.file, a %1 here, does "
                                 "not have.")
                      .arg(m_table.kindName());
    else if (!m_table.readRelations(query))
        refusal = QStringLiteral("--verify cannot read the partitions of scan.file: %1").arg(m_table.error());
    if (!refusal.isEmpty()) {
        m_reporter.error(refusal);
        return false;
    }
    m_cursor = std::make_unique<RangeCursor>(m_table);
    m_progress.setTotal(m_cursor->totalSlots(), QStringLiteral("scan.file verified"));
    return true;
}

bool VerifyCheck::nextUnit(WorkUnit &unit)
{
    if (!m_cursor)
        return false;
    if (!m_wholeTried) {
        m_wholeTried = true;
        unit = WorkUnit();
        unit.kind = WorkUnit::Kind::AllInstances;
        return true;
    }
    return m_byRanges && m_cursor->next(unit);
}

QString VerifyCheck::step(const WorkUnit &unit) const
{
    if (unit.kind == WorkUnit::Kind::AllInstances)
        return QStringLiteral("verifying every row at once");
    if (unit.kind == WorkUnit::Kind::Rows)
        return QStringLiteral("verifying %1 rows of %2").arg(unit.tids.size()).arg(relationOf(unit));
    return QStringLiteral("verifying ") + m_cursor->text(unit);
}

bool VerifyCheck::prepareSession(QSqlQuery &query)
{
    const int session = LibpqHandle::serverProcess(query.driver());
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_preparedSessions.contains(session))
            return true;
    }
    if (!query.exec(kFunction))
        return false;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_preparedSessions.insert(session);
    return true;
}

QString VerifyCheck::rangeWhere(const WorkUnit &unit) const
{
    return RepairStatements::tidRange(m_cursor->tidOf(unit.first), m_cursor->tidOf(unit.end)) + QStringLiteral(" AND ")
        + RepairStatements::inRange(m_instances.ids());
}

RepairStrategy::Result VerifyCheck::run(QSqlQuery &query, const WorkUnit &unit)
{
    switch (unit.kind) {
    case WorkUnit::Kind::AllInstances:
        return castAll(query);
    case WorkUnit::Kind::Rows:
        return castRows(query, unit);
    default:
        return castRange(query, unit);
    }
}

// A range is first cast whole, which costs the server little when every text casts; only a range
// where one fails is read again row by row, each cast's error caught.
RepairStrategy::Result VerifyCheck::castRange(QSqlQuery &query, const WorkUnit &unit)
{
    Result result;
    QElapsedTimer elapsed;
    elapsed.start();
    const QString relation = relationOf(unit);
    const QString where = rangeWhere(unit);
    result.ok = query.exec(
        QStringLiteral("SELECT count(%1::text::jsonb) FROM %2 WHERE %3").arg(InstanceLines::kColumn, relation, where));
    if (!result.ok) {
        // Any other failure is the engine's to judge, with the server's words for it.
        if (!query.lastError().nativeErrorCode().startsWith(kDataException))
            return result;
        if (m_byHalves || !prepareSession(query)) {
            castByHalves(query.lastError().databaseText().simplified());
            WorkUnit rows;
            result.ok = rowsOf(query, unit, rows);
            if (result.ok && !rows.tids.isEmpty())
                result.more = {rows};
            if (result.ok)
                m_progress.advance(unit.end - unit.first, 0);
            return result;
        }
        query.setForwardOnly(true);
        result.ok = query.exec(QStringLiteral("SELECT instance_id::text, ctid::text, e FROM (SELECT instance_id, ctid, "
                                              "pg_temp.zentrix_jsonb_error(%1::text) AS e FROM %2 WHERE %3) checked "
                                              "WHERE e IS NOT NULL")
                                   .arg(InstanceLines::kColumn, relation, where));
        if (!result.ok)
            return result;
        nameFailing(query, relation);
    }
    m_cursor->sizer().measured(unit.end - unit.first, elapsed.elapsed());
    m_progress.advance(unit.end - unit.first, 0);
    return result;
}

void VerifyCheck::castByHalves(const QString &reason)
{
    if (m_byHalves.exchange(true))
        return;
    m_reporter.logInfo(QStringLiteral("--verify cannot make its temporary function here, so the rows of a range that "
                                      "does not cast are cast in halves down to single rows. %1")
                           .arg(reason));
}

bool VerifyCheck::rowsOf(QSqlQuery &query, const WorkUnit &range, WorkUnit &rows)
{
    query.setForwardOnly(true);
    if (!query.exec(QStringLiteral("SELECT ctid::text FROM %1 WHERE %2").arg(relationOf(range), rangeWhere(range))))
        return false;
    rows = range;
    rows.kind = WorkUnit::Kind::Rows;
    rows.tids.clear();
    while (query.next())
        rows.tids << query.value(0).toString();
    return query.lastError().type() == QSqlError::NoError;
}

RepairStrategy::Result VerifyCheck::castRows(QSqlQuery &query, const WorkUnit &unit)
{
    Result result;
    const QString relation = relationOf(unit);
    result.ok = query.exec(QStringLiteral("SELECT count(%1::text::jsonb) FROM %2 WHERE %3 AND %4")
                               .arg(InstanceLines::kColumn, relation, RepairStatements::tidList(unit.tids),
                                   RepairStatements::inRange(m_instances.ids())));
    if (result.ok || !query.lastError().nativeErrorCode().startsWith(kDataException))
        return result;
    result.ok = true;
    if (unit.tids.size() > 1) {
        result.more = split(query, unit);
        return result;
    }
    const QString reason = query.lastError().databaseText().simplified();
    const ScanTable::Row row = m_table.describeRow(query, relation, unit.tids.first());
    if (row.instance.isEmpty())
        notVerified(QString(), QStringLiteral("row %1").arg(row.name), reason);
    else
        countFailing(row, reason);
    return result;
}

// A cast that fails is no failure of the unit: it says the table must be read range by range.
RepairStrategy::Result VerifyCheck::castAll(QSqlQuery &query)
{
    Result result;
    result.ok = query.exec(QStringLiteral("SELECT count(%1::text::jsonb) FROM scan.file WHERE %2")
                               .arg(InstanceLines::kColumn, RepairStatements::inRange(m_instances.ids())));
    if (!result.ok && query.lastError().nativeErrorCode().startsWith(kDataException)) {
        m_byRanges = true;
        result.ok = true;
    }
    if (result.ok && !m_byRanges)
        m_progress.advance(m_cursor->totalSlots(), 0);
    return result;
}

void VerifyCheck::nameFailing(QSqlQuery &query, const QString &relation)
{
    QList<QPair<QString, QPair<QString, QString>>> toName;
    while (query.next()) {
        const QString instance = query.value(0).toString();
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (++m_failing[instance] <= kNamedPerInstance)
            toName.append({instance, {query.value(1).toString(), query.value(2).toString()}});
    }
    for (const auto &row : toName) {
        const ScanTable::Row described = m_table.describeRow(query, relation, row.second.first);
        m_reporter.logWarning(QStringLiteral("Row that fails a jsonb cast, data: %1, instance id: %2, row: %3. %4")
                                  .arg(InstanceLines::kColumn, row.first, described.name, row.second.second));
    }
}

void VerifyCheck::countFailing(const ScanTable::Row &row, const QString &reason)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (++m_failing[row.instance] > kNamedPerInstance)
            return;
    }
    m_reporter.logWarning(QStringLiteral("Row that fails a jsonb cast, data: %1, instance id: %2, row: %3. %4")
                              .arg(InstanceLines::kColumn, row.instance, row.name, reason));
}

// A range or rows that failed for a reason of their own, not the cast's: their rows are cast in
// halves, so that what is left is one row, and one instance without a count.
QVector<WorkUnit> VerifyCheck::split(QSqlQuery &query, const WorkUnit &unit)
{
    if (unit.kind == WorkUnit::Kind::Range) {
        WorkUnit rows;
        if (!rowsOf(query, unit, rows))
            return {};
        m_progress.advance(unit.end - unit.first, 0);
        return {rows};
    }
    return halvesOfRows(unit);
}

bool VerifyCheck::leave(QSqlQuery &query, const WorkUnit &unit, const ServerFailure &failure)
{
    if (unit.kind == WorkUnit::Kind::Rows && unit.tids.size() == 1) {
        const ScanTable::Row row = m_table.describeRow(query, relationOf(unit), unit.tids.first());
        notVerified(row.instance, QStringLiteral("row %1").arg(row.name), failure.serverMessage());
        return false;
    }
    QString what = QStringLiteral("every row at once");
    if (unit.kind == WorkUnit::Kind::Rows)
        what = QStringLiteral("%1 rows of %2").arg(unit.tids.size()).arg(relationOf(unit));
    else if (unit.kind == WorkUnit::Kind::Range)
        what = m_cursor->text(unit);
    notVerified(QString(), what, failure.serverMessage());
    return true;
}

void VerifyCheck::notVerified(const QString &instance, const QString &what, const QString &reason)
{
    const QString verification = QStringLiteral("verification of %1").arg(what);
    m_tally.fail(verification, reason);
    m_reporter.logWarning(QStringLiteral("Not verified: %1. %2").arg(verification, reason));
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (instance.isEmpty() && m_noneVerified.isEmpty())
        m_noneVerified = reason;
    else if (!instance.isEmpty() && !m_notVerified.contains(instance))
        m_notVerified.insert(instance, reason);
}

// A count that was not made is never a number: an instance the run could not verify says so, and why.
void VerifyCheck::conclude(QSqlQuery &, bool interrupted)
{
    if (interrupted)
        return;
    qint64 failing = 0;
    for (const InstanceList::Instance &instance : m_instances.instances())
        failing += m_failing.value(instance.id);
    if (failing > 0)
        m_tally.fail(QStringLiteral("verification"), QStringLiteral("%1 rows fail a jsonb cast").arg(failing));
}

void VerifyCheck::report(bool interrupted) const
{
    if (interrupted)
        return;
    const QString stop = m_tally.stopReason();
    m_reporter.runStopped(stop);
    for (const InstanceList::Instance &instance : m_instances.instances()) {
        const QString reason = stop.isEmpty() ? m_notVerified.value(instance.id, m_noneVerified) : stop;
        const QString count = reason.isEmpty() ? QString::number(m_failing.value(instance.id)) : kFailed;
        m_reporter.info(QStringLiteral("Verified data: %1, instance id: %2, rows that fail a jsonb cast: %3")
                            .arg(InstanceLines::kColumn, instance.id, count));
        if (reason.isEmpty() || !stop.isEmpty())
            continue;
        m_reporter.warning(QStringLiteral("Verification is failed, data: %1, instance id: %2. %3")
                               .arg(InstanceLines::kColumn, instance.id, reason));
    }
}
