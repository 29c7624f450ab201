#pragma once

#include "app/repair/NormalizationPass.h"

#include <QHash>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QStringList>
#include <QVector>

#include <functional>
#include <mutex>

class ParallelInstances;
class Progress;
class RunLog;
class VerboseLog;

// --batched: --changed-only's repair, done through the table in ranges of physical blocks,
// each range one statement for all instances, committed on its own. Neither the tool nor a
// statement holds a list of rows, so memory and statement size stay the same whatever the
// table and its damage; a run that ends early keeps every committed batch, and the next run
// finds only what is left. An instance is no longer repaired all or nothing.
class BatchedPass
{
public:
    // A TID range scan reads a range of blocks only; older servers would read the whole table.
    static constexpr int kFirstServerWithRanges = 140000;
    // 8 MB of table per statement at the default block size. From 128 to 16384 blocks a batch
    // ran alike on rows of about 1 KB (docs/benchmarks.md); this much loses a fraction of a
    // second of work to a kill.
    static constexpr qint64 kBatchBlocks = 1024;
    // Overrides kBatchBlocks, for tests and for measuring.
    static const char *const kBatchBlocksVariable;

    BatchedPass(const QSqlDatabase &database, const VerboseLog &verbose, std::function<bool()> interrupted);

    // False when the server cannot read by block ranges, or the instance list or the table's
    // size cannot be read; a failed instance is a warning.
    bool run(RunLog &log, ParallelInstances &parallel, int jobs, Progress &progress);

private:
    struct Batch {
        qint64 first = 0;
        qint64 end = 0;
    };

    bool checkServer(RunLog &log);
    bool readTableSize(RunLog &log);
    void runBatch(QSqlQuery &query, int index, Progress &progress);
    // Adds the batch's changes; false with the server's reason when the statement fails.
    bool apply(QSqlQuery &query, const QStringList &instanceIds, const Batch &batch, qint64 &changed);
    bool applyEach(QSqlQuery &query, const QStringList &instanceIds, const Batch &batch, qint64 &changed);
    QStringList workingIds() const;
    void report(RunLog &log) const;
    static qint64 batchBlocks();

    QSqlQuery m_query;
    const VerboseLog &m_verbose;
    const std::function<bool()> m_interrupted;
    QVector<NormalizationPass::Instance> m_instances;
    qint64 m_blocks = 0;
    QVector<Batch> m_batches;

    mutable std::mutex m_mutex;
    QHash<QString, qint64> m_changed;
    // An instance whose rows made a batch fail takes no part in later batches.
    QHash<QString, QString> m_failures;
    qint64 m_blocksCovered = 0;
    int m_batchesDone = 0;
};
