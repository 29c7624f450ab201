#pragma once

#include <QtGlobal>

#include <mutex>

// The size of the batched repair's ranges, in slotCount (items of blocks), chosen so that each
// takes about kTargetMs: grown at most twofold after a quick one, shrunk at once after a slow
// one, down to part of one block when a few rows are large. Short transactions hold the
// product's writers up briefly and lose little to a kill.
class UnitSizer
{
public:
    // Chosen by measurement (docs/benchmarks.md): a writer that meets a row of the range waits
    // for the range's commit, so its longest wait is about this; below it, statements' fixed
    // costs begin to tell.
    static constexpr qint64 kTargetMs = 500;
    static constexpr qint64 kFirstBlocks = 1;
    // A bound on what one statement reads, whatever it measured.
    static constexpr qint64 kMostBlocks = 16384;
    // Forces a fixed size in blocks, for tests and for measuring.
    static const char *const kBlocksVariable;
    // Replaces kTargetMs, for measuring.
    static const char *const kTargetVariable;

    explicit UnitSizer(int slotsPerBlock);

    qint64 size() const;
    bool fixed() const { return m_fixed; }
    // A range of the given slotCount took elapsedMs.
    void measured(qint64 slotCount, qint64 elapsedMs);

private:
    const int m_slotsPerBlock;
    qint64 m_targetMs = kTargetMs;
    bool m_fixed = false;
    mutable std::mutex m_mutex;
    qint64 m_size = 0;
};
