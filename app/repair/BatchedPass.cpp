#include "app/repair/BatchedPass.h"

#include "app/output/Console.h"
#include "app/output/Progress.h"
#include "app/output/RunLog.h"
#include "app/output/VerboseLog.h"
#include "app/repair/ParallelInstances.h"
#include "app/repair/RepairStatements.h"

#include <QElapsedTimer>
#include <QSqlError>

const char *const BatchedPass::kBatchBlocksVariable = "ZENTRIX_BATCH_BLOCKS";

BatchedPass::BatchedPass(const QSqlDatabase &database, const VerboseLog &verbose, std::function<bool()> interrupted)
    : m_query(database)
    , m_verbose(verbose)
    , m_interrupted(std::move(interrupted))
{ }

bool BatchedPass::run(RunLog &log, ParallelInstances &parallel, int jobs, Progress &progress)
{
    if (!checkServer(log) || !NormalizationPass::readInstances(m_query, log, m_instances))
        return false;
    if (m_instances.isEmpty())
        return true;
    if (!readTableSize(log))
        return false;
    const qint64 size = batchBlocks();
    for (qint64 first = 0; first < m_blocks; first += size)
        m_batches.append({first, std::min(first + size, m_blocks)});
    progress.setTotal(m_blocks, QStringLiteral("scan.file"));
    parallel.run(m_query, m_batches.size(), jobs, nullptr,
        [this, &progress](QSqlQuery &query, int index) { runBatch(query, index, progress); });
    report(log);
    return true;
}

bool BatchedPass::checkServer(RunLog &log)
{
    if (m_query.exec(QStringLiteral("SELECT current_setting('server_version_num')::int, "
                                    "current_setting('server_version')"))
        && m_query.next() && m_query.value(0).toInt() >= kFirstServerWithRanges)
        return true;
    const QString line = m_query.isActive()
        ? QStringLiteral("--batched needs PostgreSQL 14 or newer, which can read a table by ranges of blocks; the "
                         "server runs PostgreSQL %1. Use --changed-only there.")
              .arg(m_query.value(1).toString())
        : QStringLiteral("Cannot read the server's version for --batched. %1").arg(m_query.lastError().text());
    Console::err(QStringLiteral("ERROR: ") + line);
    log.writeLine(RunLog::Error, line);
    return false;
}

// Blocks appended while the run goes on (rows the product writes, new versions of the rows this
// run rewrites) are left to the next run.
bool BatchedPass::readTableSize(RunLog &log)
{
    if (m_query.exec(QStringLiteral("SELECT pg_relation_size('scan.file') / current_setting('block_size')::bigint"))
        && m_query.next()) {
        m_blocks = m_query.value(0).toLongLong();
        return true;
    }
    Console::err(QStringLiteral("ERROR: Data normalization is failed."));
    log.writeLine(
        RunLog::Error, QStringLiteral("Cannot read the size of scan.file. %1").arg(m_query.lastError().text()));
    return false;
}

qint64 BatchedPass::batchBlocks()
{
    bool ok = false;
    const qint64 blocks = qEnvironmentVariable(kBatchBlocksVariable).toLongLong(&ok);
    return ok && blocks > 0 ? blocks : kBatchBlocks;
}

QStringList BatchedPass::workingIds() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    QStringList ids;
    for (const NormalizationPass::Instance &instance : m_instances) {
        if (!m_failures.contains(instance.first))
            ids << instance.first;
    }
    return ids;
}

// A batch that fails is tried again instance by instance, so that a fault in one instance's
// rows fails only that instance; one that was cancelled is not.
void BatchedPass::runBatch(QSqlQuery &query, int index, Progress &progress)
{
    const Batch &batch = m_batches[index];
    const QStringList ids = workingIds();
    if (ids.isEmpty())
        return;
    const QString step = QStringLiteral("blocks %1 to %2").arg(batch.first).arg(batch.end - 1);
    QElapsedTimer elapsed;
    elapsed.start();
    qint64 changed = 0;
    bool done = false;
    {
        const Progress::Step inFlight(progress, step, false);
        done = apply(query, ids, batch, changed);
        if (!done && !m_interrupted())
            done = applyEach(query, ids, batch, changed);
    }
    if (m_verbose.enabled())
        m_verbose.line(QStringLiteral("%1 of scan.file: %2 s, rows changed: %3%4")
                           .arg(step, QString::number(elapsed.elapsed() / 1000.0, 'f', 3))
                           .arg(changed)
                           .arg(done ? QString() : QStringLiteral(", cancelled")));
    if (!done)
        return;
    progress.advance(batch.end - batch.first, changed);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_blocksCovered += batch.end - batch.first;
    ++m_batchesDone;
}

// True unless interrupted: an instance whose statement fails is failed for the rest of the run.
bool BatchedPass::applyEach(QSqlQuery &query, const QStringList &instanceIds, const Batch &batch, qint64 &changed)
{
    for (const QString &id : instanceIds) {
        if (apply(query, {id}, batch, changed) || m_interrupted())
            continue;
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_failures.insert(id, query.lastError().text());
    }
    return !m_interrupted();
}

bool BatchedPass::apply(QSqlQuery &query, const QStringList &instanceIds, const Batch &batch, qint64 &changed)
{
    query.setForwardOnly(true);
    if (!query.exec(RepairStatements::batch(NormalizationPass::kColumn, instanceIds, batch.first, batch.end)))
        return false;
    QHash<QString, qint64> counts;
    while (query.next())
        counts[query.value(0).toString()] = query.value(1).toLongLong();
    if (query.lastError().type() != QSqlError::NoError)
        return false;
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (auto count = counts.cbegin(); count != counts.cend(); ++count) {
        m_changed[count.key()] += count.value();
        changed += count.value();
    }
    return true;
}

void BatchedPass::report(RunLog &log) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    qint64 total = 0;
    for (const qint64 changed : m_changed)
        total += changed;
    const int percent = m_blocks == 0 ? 100 : int(m_blocksCovered * 100 / m_blocks);
    const QString coverage = QStringLiteral("Batched repair covered %1 of %2 blocks of scan.file (%3%) in %4 of %5 "
                                            "batches, rows changed: %6")
                                 .arg(m_blocksCovered)
                                 .arg(m_blocks)
                                 .arg(percent)
                                 .arg(m_batchesDone)
                                 .arg(m_batches.size())
                                 .arg(total);
    // An interrupted run says how far it got, not that its instances are done.
    if (m_interrupted()) {
        Console::err(coverage);
        log.writeLine(RunLog::Warning, coverage);
        return;
    }
    for (const NormalizationPass::Instance &instance : m_instances) {
        if (m_failures.contains(instance.first))
            NormalizationPass::reportFailed(instance, log, m_failures.value(instance.first));
        else
            NormalizationPass::reportDone(
                instance, log, QStringLiteral(", rows changed: %1").arg(m_changed.value(instance.first)));
    }
    Console::out(coverage);
    log.writeLine(RunLog::Info, coverage);
}
