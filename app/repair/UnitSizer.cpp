#include "app/repair/UnitSizer.h"

#include <QString>

#include <algorithm>

const char *const UnitSizer::kBlocksVariable = "ZENTRIX_BATCH_BLOCKS";
const char *const UnitSizer::kTargetVariable = "ZENTRIX_UNIT_TARGET_MS";

UnitSizer::UnitSizer(int slotsPerBlock, qint64 targetMs)
    : m_slotsPerBlock(slotsPerBlock)
    , m_targetMs(targetMs)
    , m_size(kFirstBlocks * slotsPerBlock)
{
    bool ok = false;
    const qint64 blocks = qEnvironmentVariable(kBlocksVariable).toLongLong(&ok);
    if (ok && blocks > 0) {
        m_fixed = true;
        m_size = blocks * slotsPerBlock;
    }
    const qint64 target = qEnvironmentVariable(kTargetVariable).toLongLong(&ok);
    if (ok && target > 0)
        m_targetMs = target;
}

qint64 UnitSizer::size() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_fixed || m_measured ? m_size : std::min(kFirstSlots, m_size);
}

void UnitSizer::failed()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_measured = true;
}

void UnitSizer::measured(qint64 slotCount, qint64 elapsedMs, qint64 rowsRead)
{
    if (m_fixed || slotCount <= 0)
        return;
    const std::lock_guard<std::mutex> lock(m_mutex);
    // A range that held no row took only what every statement takes (the round trip, a
    // statement trigger): not work that a smaller range would save. Grown from it, the next
    // range could land on a full block of large rows.
    if (rowsRead == 0) {
        m_overheadMs = m_overheadKnown ? std::min(m_overheadMs, elapsedMs) : elapsedMs;
        m_overheadKnown = true;
        return;
    }
    m_measured = true;
    const qint64 workMs = std::max<qint64>(elapsedMs - m_overheadMs, 1);
    const qint64 fitting = slotCount * m_targetMs / workMs;
    // A short range at the end of a relation says little about a longer one.
    const qint64 grown = std::max(m_size, slotCount) * 2;
    m_size = std::clamp<qint64>(std::min(fitting, grown), 1, kMostBlocks * m_slotsPerBlock);
}
