#pragma once

#include "app/repair/InstanceList.h"
#include "app/repair/RangeCursor.h"
#include "app/repair/RepairStrategy.h"
#include "app/repair/ScanTable.h"

#include <QHash>
#include <QSet>
#include <QStringList>

#include <atomic>
#include <memory>
#include <mutex>

class Progress;
class Reporter;
struct StrategyContext;

// --verify: per listed instance, the rows in its range whose text fails a jsonb cast, for any
// reason (the three escapes, a truncated document, an invalid escape), counted with the first
// few named and the server's reason. The rows in range are first cast all at once, which the
// server spreads over its parallel workers; when a cast fails, the table is read in ranges spread
// over the run's connections, and a range that does not cast whole is read row by row, each
// cast's error caught in a subtransaction (which parallel workers cannot start). Nothing is
// created but a temporary function per session; where none can be made (a standby, a read-only
// database, a role without TEMP) the rows of a range that does not cast are cast in halves,
// down to single rows, by plain reads. An instance whose rows could not all be cast has no count.
class VerifyCheck : public RepairStrategy
{
public:
    // Rows named per instance; the count says how many more there are.
    static constexpr int kNamedPerInstance = 3;

    explicit VerifyCheck(const StrategyContext &context);

    bool prepare(QSqlQuery &query) override;
    bool nextUnit(WorkUnit &unit) override;
    Result run(QSqlQuery &query, const WorkUnit &unit) override;
    QString step(const WorkUnit &unit) const override;
    QVector<WorkUnit> split(QSqlQuery &query, const WorkUnit &unit) override;
    bool leave(QSqlQuery &query, const WorkUnit &unit, const ServerFailure &failure) override;
    void conclude(QSqlQuery &query, bool interrupted) override;
    void report(bool interrupted) const override;

private:
    // The session's temporary function that says why a text fails the cast, made once per session.
    bool prepareSession(QSqlQuery &query);
    Result castAll(QSqlQuery &query);
    Result castRange(QSqlQuery &query, const WorkUnit &unit);
    // A range's rows by their row versions, as one unit; false with the server's error on the query.
    bool rowsOf(QSqlQuery &query, const WorkUnit &range, WorkUnit &rows);
    // Rows that do not cast together are cast in halves; one that does not cast alone fails.
    Result castRows(QSqlQuery &query, const WorkUnit &unit);
    void castByHalves(const QString &reason);
    // Counts the failing rows a query returned (instance, ctid, reason) and names the first few.
    void nameFailing(QSqlQuery &query, const QString &relation);
    void countFailing(const ScanTable::Row &row, const QString &reason);
    // Rows of an instance, or of every instance (an empty id), that could not be cast.
    void notVerified(const QString &instance, const QString &what, const QString &reason);
    QString relationOf(const WorkUnit &unit) const { return m_table.relations()[unit.relation].name; }
    QString rangeWhere(const WorkUnit &unit) const;

    const Reporter &m_reporter;
    Progress &m_progress;
    RunTally &m_tally;
    ScanTable m_table;
    InstanceList m_instances;
    std::unique_ptr<RangeCursor> m_cursor;
    bool m_wholeTried = false;
    // Set once the whole table did not cast: it is then read range by range.
    std::atomic<bool> m_byRanges{false};
    // Set once a session could not make the temporary function.
    std::atomic<bool> m_byHalves{false};

    std::mutex m_mutex;
    QSet<int> m_preparedSessions;
    QHash<QString, qint64> m_failing;
    // Why an instance, or every instance, has no count.
    QHash<QString, QString> m_notVerified;
    QString m_noneVerified;
};
