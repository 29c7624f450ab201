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
class RunLog;

// --verify: per listed instance, the rows in its range whose text fails a jsonb cast, for any
// reason (the three escapes, a truncated document, an invalid escape), counted with the first
// few named and the server's reason. The rows in range are first cast all at once, which the
// server spreads over its parallel workers; when a cast fails, the table is read in ranges spread
// over the run's connections, and a range that does not cast whole is read row by row, each
// cast's error caught in a subtransaction (which parallel workers cannot start). Nothing is
// created but a temporary function per session.
class VerifyCheck : public RepairStrategy
{
public:
    // Rows named per instance; the count says how many more there are.
    static constexpr int kNamedPerInstance = 3;

    VerifyCheck(RunLog &log, Progress &progress, RunTally &tally);

    bool prepare(QSqlQuery &query) override;
    bool nextUnit(WorkUnit &unit) override;
    Result run(QSqlQuery &query, const WorkUnit &unit) override;
    QString step(const WorkUnit &unit) const override;
    bool leave(QSqlQuery &query, const WorkUnit &unit, const ServerFailure &failure) override;
    void report(bool interrupted) override;

private:
    // The session's temporary function that says why a text fails the cast, made once per session.
    bool prepareSession(QSqlQuery &query);
    Result castAll(QSqlQuery &query);
    // Counts the failing rows a query returned (instance, ctid, reason) and names the first few.
    void nameFailing(QSqlQuery &query, const QString &relation);

    RunLog &m_log;
    Progress &m_progress;
    RunTally &m_tally;
    ScanTable m_table;
    InstanceList m_instances;
    std::unique_ptr<RangeCursor> m_cursor;
    bool m_wholeTried = false;
    // Set once the whole table did not cast: it is then read range by range.
    std::atomic<bool> m_byRanges{false};

    std::mutex m_mutex;
    QSet<int> m_preparedSessions;
    QHash<QString, qint64> m_failing;
    QHash<QString, QStringList> m_named;
};
