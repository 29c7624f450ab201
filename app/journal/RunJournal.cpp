#include "app/journal/RunJournal.h"

#include "app/repair/RepairStatements.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSqlError>
#include <QSqlQuery>
#include <QStringList>
#include <QVariant>

const QString RunJournal::kSchema = QStringLiteral("zentrix_normalizer");
const QString RunJournal::kRunning = QStringLiteral("running");
const QString RunJournal::kFinished = QStringLiteral("finished");
const QString RunJournal::kInterrupted = QStringLiteral("interrupted");
const QString RunJournal::kUndoing = QStringLiteral("undoing");
const QString RunJournal::kUndone = QStringLiteral("undone");
const QString RunJournal::kForgotten = QStringLiteral("forgotten");

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
        if (!query.exec(QStringLiteral("UPDATE zentrix_normalizer.run SET state = 'running' WHERE id = %1").arg(m_run))
            || !readCommitted(query)) {
            m_error = query.lastError().databaseText().simplified();
            return false;
        }
        return true;
    }
    QStringList literals;
    for (const QString &instance : instances)
        literals << RepairStatements::literal(instance);
    m_since = since;
    m_instances = instances;
    if (!query.exec(QStringLiteral("INSERT INTO zentrix_normalizer.run (options, since, instances) VALUES (%1, %2, "
                                   "ARRAY[%3]::text[]) RETURNING id")
                        .arg(RepairStatements::literal(options))
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
        .arg(RepairStatements::literal(relation));
}

QString RunJournal::rangeRecord(const QString &relation, qint64 first, qint64 end) const
{
    return QStringLiteral("done AS (INSERT INTO zentrix_normalizer.range (run, relation, first, \"end\", filenode) "
                          "VALUES (%1, %2, %3, %4, pg_relation_filenode(%2::regclass)))")
        .arg(m_run)
        .arg(RepairStatements::literal(relation))
        .arg(first)
        .arg(end);
}

bool RunJournal::leaveRow(QSqlQuery &query, const QString &instance, const QString &row, const QString &reason) const
{
    return query.exec(QStringLiteral("INSERT INTO zentrix_normalizer.left_row (run, instance, row, reason) VALUES (%1, "
                                     "%2, %3, %4)")
                          .arg(m_run)
                          .arg(RepairStatements::literal(instance), RepairStatements::literal(row),
                              RepairStatements::literal(reason)));
}

bool RunJournal::close(QSqlQuery &query, const QString &state)
{
    return query.exec(QStringLiteral("UPDATE zentrix_normalizer.run SET ended = clock_timestamp(), state = %1, "
                                     "rows_changed = (SELECT count(*) FROM zentrix_normalizer.original WHERE run = %2) "
                                     "WHERE id = %2")
                          .arg(RepairStatements::literal(state))
                          .arg(m_run));
}
