#pragma once

#include "app/health/HealthLimits.h"

#include <QDateTime>
#include <QString>

#include <functional>
#include <mutex>

class Progress;
class QSqlQuery;
class Reporter;
class ServerHealth;

// Between units, the run's connections ask here whether a new unit may start: not while the
// server's health says no (a standby behind, the archiver behind, the pause file there). Units in
// flight finish and commit; the connections then wait, idle, holding no lock and no snapshot.
// Each connection also rests after each unit, so that it works its pace's share of the time.
class PauseGate
{
public:
    // The server is read at most this often, on the run's own connection.
    static constexpr int kReadIntervalMs = 1000;
    // A paused connection looks again this often, for the end of the pause or an interrupt.
    static constexpr int kWaitPollMs = 200;

    PauseGate(ServerHealth &health, const HealthLimits &limits, const Reporter &reporter, Progress &progress);

    // On the run's own connection, between its units: a new reading when one is due.
    void look(QSqlQuery &query);
    // Whether a new unit may start now.
    bool open() const;
    // Why the run must end: a pause longer than --max-pause; empty otherwise.
    QString overrun() const;
    // After a unit that took elapsedMs: the rest that keeps the connection to its pace; ends early
    // when stop() holds.
    void rest(qint64 elapsedMs, const std::function<bool()> &stop) const;
    // The run is over: a pause still on ends here, and the time paused in all is said.
    void finish();

    // The rest after a unit of elapsedMs that makes a connection work pacePercent of the time.
    static qint64 restMs(qint64 elapsedMs, int pacePercent);

private:
    void begin(const QString &cause);
    void end();

    ServerHealth &m_health;
    const HealthLimits m_limits;
    const Reporter &m_reporter;
    Progress &m_progress;

    mutable std::mutex m_mutex;
    qint64 m_lastRead = 0;
    bool m_paused = false;
    QString m_cause;
    QDateTime m_pausedSince;
    // Whether the run paused since the last reading, for the rate it writes WAL at.
    bool m_pausedSinceRead = false;
    qint64 m_pausedMs = 0;
    int m_pauses = 0;
};
