#include "app/journal/RunJournal.h"

#include "app/sql/SqlLiteral.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSqlError>
#include <QSqlQuery>
#include <QStringList>
#include <QVariant>

const QString RunJournal::kSchema = QStringLiteral("zentrix_normalizer");

QString RunJournal::stateName(RunState state)
{
    switch (state) {
    case RunState::Running:
        return QStringLiteral("running");
    case RunState::Finished:
        return QStringLiteral("finished");
    case RunState::Interrupted:
        return QStringLiteral("interrupted");
    case RunState::Undoing:
        return QStringLiteral("undoing");
    case RunState::Undone:
        return QStringLiteral("undone");
    case RunState::Forgotten:
        return QStringLiteral("forgotten");
    }
    return QString();
}

namespace {
// The journal's tables, one statement each: a failing statement in the middle of a script passes
// for a success through Qt's driver. Original texts are found by run and sequence.
const QStringList kCreate = {
    QStringLiteral("CREATE SCHEMA IF NOT EXISTS zentrix_normalizer"),
    QStringLiteral("CREATE TABLE IF NOT EXISTS zentrix_normalizer.run (id serial PRIMARY KEY, started timestamptz NOT "
                   "NULL DEFAULT clock_timestamp(), ended timestamptz, options text NOT NULL, state text NOT NULL "
                   "DEFAULT 'running', rows_changed bigint, rows_restored bigint)"),
    QStringLiteral("CREATE TABLE IF NOT EXISTS zentrix_normalizer.range (run int NOT NULL, relation text NOT NULL, "
                   "first bigint NOT NULL, \"end\" bigint NOT NULL)"),
    QStringLiteral("CREATE INDEX IF NOT EXISTS range_run ON zentrix_normalizer.range (run)"),
    QStringLiteral("CREATE TABLE IF NOT EXISTS zentrix_normalizer.original (seq bigserial PRIMARY KEY, run int NOT "
                   "NULL, relation text NOT NULL, key text[], version tid, written text NOT NULL, original text, "
                   "restored boolean NOT NULL DEFAULT false)"),
    QStringLiteral("CREATE INDEX IF NOT EXISTS original_run ON zentrix_normalizer.original (run, seq)"),
    QStringLiteral("CREATE TABLE IF NOT EXISTS zentrix_normalizer.left_row (run int NOT NULL, at timestamptz NOT NULL "
                   "DEFAULT clock_timestamp(), instance text, row text NOT NULL, reason text NOT NULL)"),
    // What a resumed run needs to know whether a committed range still holds the rows it held: the
    // snapshot the run began with, the instances it repaired, and the file each range was read in
    // (VACUUM FULL, CLUSTER and table rewrites move every row into a new one). Journals of earlier
    // versions get them empty, and their ranges are then done again.
    QStringLiteral("ALTER TABLE zentrix_normalizer.run ADD COLUMN IF NOT EXISTS since bigint, ADD COLUMN IF NOT "
                   "EXISTS instances text[]"),
    QStringLiteral("ALTER TABLE zentrix_normalizer.range ADD COLUMN IF NOT EXISTS filenode oid"),
};
} // namespace

bool RunJournal::exists(QSqlQuery &query)
{
    return query.exec(QStringLiteral("SELECT to_regclass('zentrix_normalizer.run') IS NOT NULL")) && query.next()
        && query.value(0).toBool();
}

bool RunJournal::open(QSqlQuery &query, const QString &options, qint64 since, const QStringList &instances)
{
    for (const QString &statement : kCreate) {
        if (!query.exec(statement)) {
            m_error = query.lastError().databaseText().simplified();
            return false;
        }
    }
    if (!query.exec(QStringLiteral("SELECT id, since, array_to_json(instances) FROM zentrix_normalizer.run "
                                   "WHERE state IN ('running', 'interrupted') ORDER BY id DESC LIMIT 1"))) {
        m_error = query.lastError().databaseText().simplified();
        return false;
    }
    if (query.next()) {
        m_run = query.value(0).toInt();
        m_resumed = true;
        m_since = query.value(1).isNull() ? -1 : query.value(1).toLongLong();
        for (const QJsonValue &instance : QJsonDocument::fromJson(query.value(2).toString().toUtf8()).array())
            m_instances << instance.toString();
        if (!markRun(query, m_run, RunState::Running) || !readCommitted(query)) {
            m_error = query.lastError().databaseText().simplified();
            return false;
        }
        return true;
    }
    QStringList literals;
    for (const QString &instance : instances)
        literals << SqlLiteral::of(instance);
    m_since = since;
    m_instances = instances;
    if (!query.exec(QStringLiteral("INSERT INTO zentrix_normalizer.run (options, since, instances) VALUES (%1, %2, "
                                   "ARRAY[%3]::text[]) RETURNING id")
                        .arg(SqlLiteral::of(options))
                        .arg(since)
                        .arg(literals.join(QLatin1Char(','))))
        || !query.next()) {
        m_error = query.lastError().databaseText().simplified();
        return false;
    }
    m_run = query.value(0).toInt();
    return true;
}

bool RunJournal::readCommitted(QSqlQuery &query)
{
    if (!query.exec(QStringLiteral("SELECT relation, first, \"end\", filenode FROM zentrix_normalizer.range WHERE "
                                   "run = %1 ORDER BY relation, first")
                        .arg(m_run)))
        return false;
    while (query.next())
        m_committed[query.value(0).toString()][query.value(3).toString()].append(
            {query.value(1).toLongLong(), query.value(2).toLongLong()});
    if (!query.exec(QStringLiteral("SELECT count(*) FROM zentrix_normalizer.original WHERE run = %1").arg(m_run))
        || !query.next())
        return false;
    m_rowsChangedBefore = query.value(0).toLongLong();
    return true;
}

QString RunJournal::records(const QString &relation) const
{
    return QStringLiteral("journal AS (INSERT INTO zentrix_normalizer.original (run, relation, key, version, written, "
                          "original) SELECT %1, %2, key, version, written, original FROM changed)")
        .arg(m_run)
        .arg(SqlLiteral::of(relation));
}

QString RunJournal::rangeRecord(const QString &relation, qint64 first, qint64 end) const
{
    return QStringLiteral("done AS (INSERT INTO zentrix_normalizer.range (run, relation, first, \"end\", filenode) "
                          "VALUES (%1, %2, %3, %4, pg_relation_filenode(%2::regclass)))")
        .arg(m_run)
        .arg(SqlLiteral::of(relation))
        .arg(first)
        .arg(end);
}

bool RunJournal::leaveRow(QSqlQuery &query, const QString &instance, const QString &row, const QString &reason) const
{
    return query.exec(QStringLiteral("INSERT INTO zentrix_normalizer.left_row (run, instance, row, reason) VALUES (%1, "
                                     "%2, %3, %4)")
                          .arg(m_run)
                          .arg(SqlLiteral::of(instance), SqlLiteral::of(row), SqlLiteral::of(reason)));
}

bool RunJournal::close(QSqlQuery &query, RunState state)
{
    return query.exec(QStringLiteral("UPDATE zentrix_normalizer.run SET ended = clock_timestamp(), state = %1, "
                                     "rows_changed = (SELECT count(*) FROM zentrix_normalizer.original WHERE run = %2) "
                                     "WHERE id = %2")
                          .arg(SqlLiteral::of(stateName(state)))
                          .arg(m_run));
}

bool RunJournal::listRuns(QSqlQuery &query, QVector<RunSummary> &runs)
{
    // Nothing else works on the installation while this runs, so a run still marked running was
    // killed: it is as interrupted, and the next --journal run resumes it.
    const QString list = QStringLiteral(
        "SELECT r.id, to_char(r.started, 'YYYY-MM-DD HH24:MI:SS'), coalesce(to_char(r.ended, 'YYYY-MM-DD "
        "HH24:MI:SS'), '-'), CASE r.state WHEN 'running' THEN 'interrupted' ELSE r.state END, "
        "coalesce(r.rows_changed, (SELECT count(*) FROM zentrix_normalizer.original o WHERE o.run = r.id)), (SELECT "
        "count(*) FROM zentrix_normalizer.left_row l WHERE l.run = r.id), coalesce(r.rows_restored, (SELECT count(*) "
        "FROM zentrix_normalizer.original o WHERE o.run = r.id AND o.restored)) FROM zentrix_normalizer.run r ORDER "
        "BY r.id");
    if (!query.exec(list))
        return false;
    while (query.next())
        runs.append(
            {query.value(0).toString(), query.value(1).toString(), query.value(2).toString(), query.value(3).toString(),
                query.value(4).toString(), query.value(5).toString(), query.value(6).toString()});
    return true;
}

// One statement: the counts are kept with the run before its records go.
bool RunJournal::forget(QSqlQuery &query, int run, bool &found, qint64 &dropped)
{
    const QString forget = QStringLiteral(
        "WITH counts AS (SELECT count(*) AS changed, count(*) FILTER (WHERE restored) AS restored FROM "
        "zentrix_normalizer.original WHERE run = %1), marked AS (UPDATE zentrix_normalizer.run r SET state = %2, "
        "rows_changed = coalesce(r.rows_changed, counts.changed), rows_restored = coalesce(r.rows_restored, "
        "counts.restored) FROM counts WHERE r.id = %1 RETURNING r.id), dropped AS (DELETE FROM "
        "zentrix_normalizer.original WHERE run = %1 AND EXISTS (SELECT FROM marked) RETURNING 1) SELECT (SELECT "
        "count(*) FROM marked), (SELECT count(*) FROM dropped)");
    if (!query.exec(forget.arg(run).arg(SqlLiteral::of(stateName(RunState::Forgotten)))) || !query.next())
        return false;
    found = query.value(0).toInt() > 0;
    dropped = query.value(1).toLongLong();
    return true;
}

bool RunJournal::readUndoSpan(QSqlQuery &query, int run, UndoSpan &span)
{
    if (!query.exec(
            QStringLiteral("SELECT state, (SELECT min(seq) FROM zentrix_normalizer.original o WHERE o.run = "
                           "r.id AND NOT o.restored), (SELECT max(seq) + 1 FROM zentrix_normalizer.original o "
                           "WHERE o.run = r.id AND NOT o.restored) FROM zentrix_normalizer.run r WHERE r.id = %1")
                .arg(run)))
        return false;
    span.found = query.next();
    if (!span.found)
        return true;
    span.state = query.value(0).toString();
    span.firstSeq = query.value(1).toLongLong();
    span.endSeq = query.value(2).toLongLong();
    return true;
}

bool RunJournal::relationsOf(QSqlQuery &query, int run, QStringList &relations)
{
    if (!query.exec(
            QStringLiteral("SELECT DISTINCT relation FROM zentrix_normalizer.original WHERE run = %1 ORDER BY 1")
                .arg(run)))
        return false;
    while (query.next())
        relations << query.value(0).toString();
    return true;
}

bool RunJournal::markRun(QSqlQuery &query, int run, RunState state)
{
    return query.exec(QStringLiteral("UPDATE zentrix_normalizer.run SET state = %1 WHERE id = %2")
                          .arg(SqlLiteral::of(stateName(state)))
                          .arg(run));
}

bool RunJournal::markUndone(QSqlQuery &query, int run)
{
    return query.exec(QStringLiteral("UPDATE zentrix_normalizer.run SET state = %1, rows_restored = (SELECT "
                                     "count(*) FROM zentrix_normalizer.original WHERE run = %2 AND restored) "
                                     "WHERE id = %2")
                          .arg(SqlLiteral::of(stateName(RunState::Undone)))
                          .arg(run));
}

QString RunJournal::recordSpan(int run, qint64 first, qint64 end, const QString &relation)
{
    QString where = QStringLiteral("run = %1 AND seq >= %2 AND seq < %3 AND NOT restored").arg(run).arg(first).arg(end);
    if (!relation.isEmpty())
        where += QStringLiteral(" AND relation = %1").arg(SqlLiteral::of(relation));
    return where;
}

QString RunJournal::restore(
    const QString &span, const QString &relation, const QString &column, const QString &match, bool skipLocked)
{
    const QString skip = skipLocked
        ? QStringLiteral(" AND f.ctid = ANY (ARRAY(SELECT f.ctid FROM %1 f JOIN j ON %2 WHERE md5(f.%3::text) = "
                         "j.written FOR UPDATE OF f SKIP LOCKED))")
              .arg(relation, match, column)
        : QString();
    return QStringLiteral(
        "WITH j AS (SELECT seq, key, version, written, original FROM zentrix_normalizer.original "
        "WHERE %1), restored AS (UPDATE %2 f SET %3 = j.original FROM j WHERE %4 AND md5(f.%3::text) "
        "= j.written%5 RETURNING j.seq, f.instance_id), mark AS (UPDATE zentrix_normalizer.original o "
        "SET restored = true FROM restored r WHERE o.seq = r.seq) SELECT instance_id, count(*) FROM "
        "restored GROUP BY instance_id")
        .arg(span, relation, column, match, skip);
}

QString RunJournal::recordedRows(const QString &span, const QString &relation, const QString &match)
{
    return QStringLiteral("SELECT key, version, relation, (SELECT min(l.pid) FROM %1 f JOIN pg_locks l ON l.locktype = "
                          "'transactionid' AND l.transactionid = f.xmax AND l.granted AND l.pid <> pg_backend_pid() "
                          "WHERE %2) FROM zentrix_normalizer.original o WHERE %3")
        .arg(relation, match, span);
}
