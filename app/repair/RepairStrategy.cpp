#include "app/repair/RepairStrategy.h"

QVector<WorkUnit> RepairStrategy::split(QSqlQuery &, const WorkUnit &)
{
    return {};
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
