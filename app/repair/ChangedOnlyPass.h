#pragma once

#include "app/repair/NormalizationPass.h"

#include <QHash>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QStringList>
#include <QVector>

class ParallelInstances;
class Progress;
class RunLog;
class VerboseLog;

// --changed-only: the same repair, written only to the rows whose text it changes. One read
// finds those rows for all instances at once; each instance is then one UPDATE of its rows,
// committed on its own, as in the product's pass.
class ChangedOnlyPass
{
public:
    ChangedOnlyPass(const QSqlDatabase &database, const VerboseLog &verbose);

    // False only when the instance list cannot be read; a failed instance is a warning.
    bool run(RunLog &log, ParallelInstances &parallel, int jobs, Progress &progress);

private:
    // ctids by instance id; false when the read fails.
    static bool readCandidates(QSqlQuery &query, const QStringList &instanceIds, QHash<QString, QStringList> &rows);
    void repairInstance(QSqlQuery &query, int index, RunLog &log, Progress &progress) const;

    QSqlQuery m_query;
    const VerboseLog &m_verbose;
    QVector<NormalizationPass::Instance> m_instances;
    QHash<QString, QStringList> m_candidates;
    // Set when the read for all instances failed: each instance then reads its own rows, so
    // that a fault in one instance's rows fails that instance only.
    bool m_readPerInstance = false;
};
