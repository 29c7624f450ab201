#include "app/repair/VerifyCheck.h"

#include "app/output/Console.h"
#include "app/output/Progress.h"
#include "app/output/RunLog.h"
#include "app/repair/InstanceLines.h"
#include "app/repair/RepairStatements.h"
#include "app/repair/ServerFailure.h"
#include "app/run/LibpqHandle.h"

#include <QElapsedTimer>
#include <QSqlError>
#include <QSqlQuery>

namespace {
// The SQLSTATE class of a text the cast refuses.
const QString kDataException = QStringLiteral("22");
const QString kFunction = QStringLiteral(
    "CREATE OR REPLACE FUNCTION pg_temp.zentrix_jsonb_error(t text) RETURNS text LANGUAGE plpgsql AS $$ BEGIN "
    "PERFORM t::jsonb; RETURN NULL; EXCEPTION WHEN others THEN RETURN SQLERRM; END $$");
} // namespace

VerifyCheck::VerifyCheck(RunLog &log, Progress &progress, RunTally &tally)
    : m_log(log)
    , m_progress(progress)
    , m_tally(tally)
{ }

bool VerifyCheck::prepare(QSqlQuery &query)
{
    if (!m_instances.read(query, m_log))
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
        Console::err(QStringLiteral("ERROR: ") + refusal);
        m_log.writeLine(RunLog::Error, refusal);
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

// A range is first cast whole, which costs the server little when every text casts; only a range
// where one fails is read again row by row, each cast's error caught.
RepairStrategy::Result VerifyCheck::run(QSqlQuery &query, const WorkUnit &unit)
{
    if (unit.kind == WorkUnit::Kind::AllInstances)
        return castAll(query);
    Result result;
    QElapsedTimer elapsed;
    elapsed.start();
    const QString relation = m_table.relations()[unit.relation].name;
    const QString where = RepairStatements::tidRange(m_cursor->tidOf(unit.first), m_cursor->tidOf(unit.end))
        + QStringLiteral(" AND ") + RepairStatements::inRange(m_instances.ids());
    result.ok = query.exec(
        QStringLiteral("SELECT count(%1::text::jsonb) FROM %2 WHERE %3").arg(InstanceLines::kColumn, relation, where));
    if (!result.ok) {
        if (!prepareSession(query))
            return result;
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
        m_log.writeLine(RunLog::Warning,
            QStringLiteral("Row that fails a jsonb cast, data: %1, instance id: %2, row: %3. %4")
                .arg(InstanceLines::kColumn, row.first, described.name, row.second.second));
    }
}

bool VerifyCheck::leave(QSqlQuery &, const WorkUnit &unit, const ServerFailure &failure)
{
    const QString what = QStringLiteral("verification of %1").arg(m_cursor->text(unit));
    m_tally.fail(what, failure.words());
    m_log.writeLine(RunLog::Warning, QStringLiteral("Not verified: %1. %2").arg(what, failure.words()));
    return true;
}

void VerifyCheck::report(bool interrupted)
{
    if (interrupted)
        return;
    qint64 failing = 0;
    for (const InstanceList::Instance &instance : m_instances.instances()) {
        const qint64 count = m_failing.value(instance.first);
        failing += count;
        const QString line = QStringLiteral("Verified data: %1, instance id: %2, rows that fail a jsonb cast: %3")
                                 .arg(InstanceLines::kColumn, instance.first)
                                 .arg(count);
        Console::out(line);
        m_log.writeLine(RunLog::Info, line);
    }
    if (failing > 0)
        m_tally.fail(QStringLiteral("verification"), QStringLiteral("%1 rows fail a jsonb cast").arg(failing));
    const QString stop = m_tally.stopReason();
    if (!stop.isEmpty()) {
        const QString line = QStringLiteral("The run stopped before its end: %1").arg(stop);
        Console::err(QStringLiteral("ERROR: ") + line);
        m_log.writeLine(RunLog::Error, line);
    }
}
