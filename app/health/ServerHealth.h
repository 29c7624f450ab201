#pragma once

#include "app/health/HealthLimits.h"
#include "app/health/Trend.h"

#include <QString>

class QSqlQuery;
class VerboseLog;

// What the product's server is going through besides the run, read on the run's own connection:
// standbys behind in replaying, WAL waiting for the archiver, the operator's pause file. Each
// reading says why no new unit should start now, or nothing.
class ServerHealth
{
public:
    // readIntervalMs: the least time between two readings.
    ServerHealth(const HealthLimits &limits, qint64 readIntervalMs);

    // Reads once what the role may see; a check it cannot make is said under --verbose and is off.
    void prepare(QSqlQuery &query, const VerboseLog &verbose);
    // Why no new unit should start, or empty. working: the run worked (did not pause) since the
    // last reading, so that the WAL written meanwhile measures the rate the run writes at.
    QString check(QSqlQuery &query, bool working);

private:
    bool readPosition(QSqlQuery &query, qint64 now, bool working);
    QString standbyBehind(QSqlQuery &query, qint64 now, bool working);
    QString archiveBacklog(QSqlQuery &query, qint64 now, bool working);
    QString pauseFile() const;

    const HealthLimits m_limits;
    bool m_readsStandbys = false;
    bool m_readsArchive = false;
    qint64 m_segmentBytes = 0;
    // The WAL position at the last reading, and when it was read (ms since the epoch).
    double m_position = -1;
    qint64 m_positionAt = 0;
    // The fastest rate the server's WAL grew at while the run worked; 0 until measured.
    double m_bytesPerSecond = 0;
    // The furthest standby's lag in seconds; the WAL not yet archived in bytes, the segment being
    // filled included, so that the rate it grows at is not a segment's jump.
    Trend m_lag;
    Trend m_backlog;
};
