#include "app/repair/RepairStrategy.h"

QVector<WorkUnit> RepairStrategy::split(QSqlQuery &, const WorkUnit &)
{
    return {};
}

bool RepairStrategy::relationLocked(QSqlQuery &, const WorkUnit &)
{
    return false;
}

bool RepairStrategy::skips(const WorkUnit &) const
{
    return false;
}

QVector<WorkUnit> RepairStrategy::instanceFinished(int)
{
    return {};
}

void RepairStrategy::rangeFinished(int, bool) { }

void RepairStrategy::conclude(QSqlQuery &, bool) { }

bool RepairStrategy::mayWrite(QSqlQuery &, const WorkUnit &)
{
    return false;
}

QVector<WorkUnit> RepairStrategy::halvesOfRows(const WorkUnit &unit)
{
    if (unit.kind != WorkUnit::Kind::Rows || unit.tids.size() < 2)
        return {};
    WorkUnit first = unit;
    WorkUnit second = unit;
    const int half = unit.tids.size() / 2;
    first.tids = unit.tids.mid(0, half);
    second.tids = unit.tids.mid(half);
    return {first, second};
}
