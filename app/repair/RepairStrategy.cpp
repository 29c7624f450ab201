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

bool RepairStrategy::mayWrite(QSqlQuery &, const WorkUnit &)
{
    return false;
}
