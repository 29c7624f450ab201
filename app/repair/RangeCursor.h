#pragma once

#include "app/repair/ScanTable.h"
#include "app/repair/UnitSizer.h"
#include "app/repair/WorkUnit.h"

#include <QHash>
#include <QPair>
#include <QVector>

#include <mutex>

// Hands out a run's ranges of row versions through the relations that hold scan.file's rows,
// one after the other, each as large as the sizer says, none inside a range already done.
// Blocks appended while the run goes on (rows the product writes, new versions of the rows the
// run rewrites) are not handed out: the run reads the rows written meanwhile at its end. Called by
// one connection at a time.
class RangeCursor
{
public:
    using Ranges = QVector<QPair<qint64, qint64>>;

    explicit RangeCursor(const ScanTable &table, qint64 targetMs = UnitSizer::kTargetMs);

    qint64 totalSlots() const { return m_totalSlots; }
    // Ranges of a relation that are done already; the slots they hold.
    qint64 skip(int relation, const Ranges &ranges);
    // The next range; false when the relations are done.
    bool next(WorkUnit &unit);
    UnitSizer &sizer() { return m_sizer; }
    // The range held no row: a block's row versions are numbered from its start, so the rest of
    // the block most likely holds none either, and the next range reaches the block's end.
    // Called by any connection.
    void heldNoRow(const WorkUnit &unit);

    QString tidOf(qint64 slot) const;
    // "(a,b) to (c,d) of <relation>".
    QString text(const WorkUnit &unit) const;

private:
    qint64 endOf(int relation) const;
    // The end of the block a range that held no row ended in, when the next range begins in it;
    // else 0.
    qint64 restOfEmptyBlock();

    const ScanTable &m_table;
    UnitSizer m_sizer;
    qint64 m_totalSlots = 0;
    QHash<int, Ranges> m_done;
    int m_relation = 0;
    qint64 m_position = 0;
    std::mutex m_emptyMutex;
    int m_emptyRelation = -1;
    qint64 m_emptyBlockEnd = 0;
};
