#pragma once

#include "app/repair/RewritingStrategy.h"

#include <QHash>
#include <QStringList>

#include <mutex>

// --changed-only: the same repair, written only to the rows whose text it changes. One read
// finds those rows for all instances at once; each instance's rows (per partition) are then
// one UPDATE, committed on its own. An instance whose rows another writer rewrote between the
// read and the write is read again once its other rows are done.
class ChangedOnlyRepair : public RewritingStrategy
{
public:
    // Reads of one instance after the first; a writer that keeps rewriting rows cannot hold the
    // run for longer.
    static constexpr int kRereads = 2;

    explicit ChangedOnlyRepair(const StrategyContext &context);

    bool prepare(QSqlQuery &query) override;
    bool nextUnit(WorkUnit &unit) override;
    Result run(QSqlQuery &query, const WorkUnit &unit) override;
    QString step(const WorkUnit &unit) const override;
    QVector<WorkUnit> split(QSqlQuery &query, const WorkUnit &unit) override;
    bool leave(QSqlQuery &query, const WorkUnit &unit, const ServerFailure &failure) override;
    QVector<WorkUnit> instanceFinished(int instance) override;
    void report(bool interrupted) const override;

protected:
    QString givenUp(const WorkUnit &unit) const override;

private:
    // The rows to change of the listed instances, as units per instance and relation; false
    // when the read fails.
    bool readCandidates(QSqlQuery &query, const QStringList &instanceIds, QHash<int, QVector<WorkUnit>> &units) const;

    QHash<int, QVector<WorkUnit>> m_candidates;
    // Set when the read for all instances failed: each instance then reads its own rows, so
    // that a fault in one instance's rows fails that instance only.
    bool m_readPerInstance = false;
    int m_next = 0;
    QVector<WorkUnit> m_pending;

    std::mutex m_mutex;
    // Instances a unit of which found rows rewritten meanwhile, and how often each was read again.
    QHash<int, bool> m_rewritten;
    QHash<int, int> m_rereads;
};
