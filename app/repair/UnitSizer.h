#pragma once

#include <QtGlobal>

#include <mutex>

// The size of the batched repair's ranges, in slots (items of blocks), chosen so that each
// takes about kTargetMs: grown at most twofold after a quick one, shrunk at once after a slow
// one, down to one row when a few rows are large. Short transactions hold the product's writers up
// briefly and lose little to a kill.
class UnitSizer
{
public:
    // Chosen by measurement (docs/benchmarks.md): a writer that meets a row of a range waits for
    // the range's commit, so its longest wait is about this; from 100 ms to 500 ms the repair's
    // own time was the same, while the writer's longest wait grew from 60 ms to 560 ms.
    static constexpr qint64 kTargetMs = 100;
    // Under a pace the product's writers come first: at --pace 50 a writer's 99th percentile fell
    // from 39.8 ms to 14.4 ms with ranges of 25 ms against 100 ms, the run taking 6 % longer;
    // ranges of 10 ms gave no more.
    static constexpr qint64 kPacedTargetMs = 25;
    // From this pace down the product's commits come before the run's time. A commit that meets a
    // unit waits for the unit's writes to reach the disk with its own, so its wait follows the
    // unit's length, whatever the pace: at --pace 10 the writer's 99th percentile was 8.2 ms with
    // ranges of 25 ms, 5.2 to 8.0 ms with 5 ms and 3.1 ms with 1 ms (1.4 ms idle), the run taking
    // 1.7 times as long as with 25 ms.
    static constexpr int kLightPace = 10;
    static constexpr qint64 kLightTargetMs = 1;
    // Until a range has been measured, ranges hold at most this many row versions: a block of
    // TOASTed rows of 400 KB holds 120 of them and took 1.3 to 2 s; 16 take about 0.3 s, and on
    // rows of 1 KB they reach past a block's last row.
    static constexpr qint64 kFirstSlots = 16;
    // The size after a range that failed, which measured nothing: smaller ranges would cost a
    // statement each all through a relation held locked for the whole run.
    static constexpr qint64 kFirstBlocks = 1;
    // A bound on what one statement reads, whatever it measured.
    static constexpr qint64 kMostBlocks = 16384;
    // Forces a fixed size in blocks, for tests and for measuring.
    static const char *const kBlocksVariable;
    // Replaces kTargetMs, for measuring.
    static const char *const kTargetVariable;

    explicit UnitSizer(int slotsPerBlock, qint64 targetMs = kTargetMs);

    qint64 size() const;
    bool fixed() const { return m_fixed; }
    // A range of the given slotCount took elapsedMs; rowsRead: the rows it held, -1 unknown.
    void measured(qint64 slotCount, qint64 elapsedMs, qint64 rowsRead = -1);
    // A range failed: no measure, and no more reason to keep to the first few rows.
    void failed();

private:
    const int m_slotsPerBlock;
    qint64 m_targetMs;
    bool m_fixed = false;
    mutable std::mutex m_mutex;
    qint64 m_size = 0;
    bool m_measured = false;
    // What a range that held no row took: none measured yet.
    qint64 m_overheadMs = 0;
    bool m_overheadKnown = false;
};
