#include "app/repair/RangeCursor.h"

#include "app/repair/RepairStatements.h"

#include <algorithm>

RangeCursor::RangeCursor(const ScanTable &table, qint64 targetMs)
    : m_table(table)
    , m_sizer(table.slotsPerBlock(), targetMs)
{
    for (int relation = 0; relation < table.relations().size(); ++relation)
        m_totalSlots += endOf(relation);
}

qint64 RangeCursor::endOf(int relation) const
{
    return m_table.relations()[relation].blocks * m_table.slotsPerBlock();
}

qint64 RangeCursor::skip(int relation, const Ranges &ranges)
{
    Ranges &done = m_done[relation];
    done += ranges;
    std::sort(done.begin(), done.end());
    qint64 slotCount = 0;
    for (const auto &range : ranges)
        slotCount += range.second - range.first;
    return slotCount;
}

bool RangeCursor::next(WorkUnit &unit)
{
    while (m_relation < m_table.relations().size()) {
        qint64 freeEnd = endOf(m_relation);
        for (const auto &range : m_done.value(m_relation)) {
            if (m_position >= range.first && m_position < range.second)
                m_position = range.second;
            else if (range.first > m_position)
                freeEnd = std::min(freeEnd, range.first);
        }
        if (m_position >= endOf(m_relation)) {
            ++m_relation;
            m_position = 0;
            continue;
        }
        unit = WorkUnit();
        unit.kind = WorkUnit::Kind::Range;
        unit.relation = m_relation;
        unit.first = m_position;
        unit.end = std::min(std::max(m_position + m_sizer.size(), restOfEmptyBlock()), freeEnd);
        m_position = unit.end;
        return true;
    }
    return false;
}

void RangeCursor::heldNoRow(const WorkUnit &unit)
{
    const qint64 slotsPerBlock = m_table.slotsPerBlock();
    if (unit.kind != WorkUnit::Kind::Range || unit.end % slotsPerBlock == 0)
        return;
    // Item 0 of a block never holds a row: a range that reached no further into its last block
    // says nothing of the rows there.
    if (unit.end % slotsPerBlock == 1)
        return;
    const std::lock_guard<std::mutex> lock(m_emptyMutex);
    m_emptyRelation = unit.relation;
    m_emptyBlockEnd = (unit.end / slotsPerBlock + 1) * slotsPerBlock;
}

qint64 RangeCursor::restOfEmptyBlock()
{
    const std::lock_guard<std::mutex> lock(m_emptyMutex);
    const bool inIt = m_emptyRelation == m_relation && m_position < m_emptyBlockEnd
        && m_position >= m_emptyBlockEnd - m_table.slotsPerBlock();
    m_emptyRelation = -1;
    return inIt ? m_emptyBlockEnd : 0;
}

QString RangeCursor::tidOf(qint64 slot) const
{
    return RepairStatements::tid(slot / m_table.slotsPerBlock(), int(slot % m_table.slotsPerBlock()));
}

QString RangeCursor::text(const WorkUnit &unit) const
{
    return QStringLiteral("%1 to %2 of %3")
        .arg(tidOf(unit.first), tidOf(unit.end), m_table.relations()[unit.relation].name);
}
