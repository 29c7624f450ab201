#pragma once

#include <QtGlobal>

// A measure of the server's burden (a standby's lag, WAL waiting for the archiver), read between
// units, and how fast it grew while the run worked. The units started before the next reading
// would carry the measure past its limit if the gate looked only at its value: it looks at where
// the measure will be by then.
class Trend
{
public:
    explicit Trend(qint64 readIntervalMs);

    // working: the run worked (did not pause) since the previous reading.
    void read(double value, qint64 atMs, bool working);
    double value() const { return m_value; }
    // The value expected at the next reading if the run goes on working. A measure at zero (a
    // standby caught up) stays there: a run paused for it would wait for nothing.
    double ahead() const;

private:
    const qint64 m_readIntervalMs;
    double m_value = 0;
    qint64 m_readAt = -1;
    // Between the last two readings: how long it was, and how fast the measure grew if the run
    // worked throughout (growth while paused says nothing of the run's share).
    qint64 m_horizonMs;
    double m_growthPerMs = 0;
};
