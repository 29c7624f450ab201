#pragma once

#include "app/repair/FailurePolicy.h"
#include "app/repair/WorkUnit.h"

#include <QHash>
#include <QSqlDatabase>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

class LockWatch;
class PauseGate;
class Progress;
class Reporter;
class RepairStrategy;
class RunTally;
class ServerFailure;
class WorkerConnection;

// Runs a mode's units on up to N connections at once: the run's own, and more opened through
// the database service, each used by a thread of its own (a Qt SQL connection belongs to the
// thread that opened it). One failure policy for the tool's modes: a fault tied to rows is
// split down to those rows, a lock waited on too long is tried again after the other units, a
// lost connection is opened again and its unit redone, and a fault that every unit would meet
// stops the run. The product's pass keeps its own: report, go on.
class RepairEngine
{
public:
    // Tries of a unit that meets a lock (or a deadlock, or a cancel by someone else) that wait;
    // the try after them is its last (WorkUnit::lastTry): it waits on no row lock and leaves the
    // locked rows, named.
    static constexpr int kWaitingTries = 2;
    // A unit whose connection is lost again and again may itself bring the server down (a row
    // that crashes a server process): after this many losses it is split like a fault of its rows.
    static constexpr int kLossesPerUnit = 2;
    // A refusal tied to one row meets its statement about once per halving of its unit, a half
    // that commits coming in between: some 20 in a row for the largest unit. This many alike
    // (same SQLSTATE, same words) with no row changed in between is a refusal every row meets (a
    // statement-level trigger, a remote server that is down): the run stops, having named at most
    // about half as many rows, rather than one per row of the table.
    static constexpr int kRefusalsAlike = 100;

    struct Connections {
        // Opens a further connection through the service; fills the handle and its registered name.
        std::function<bool(QSqlDatabase &database, QString &connectionName)> open;
        // Told of every connection as it is opened, and opened again.
        std::function<void(const QSqlDatabase &database)> opened;
        // Told why a further connection could not be opened; its share goes to the others.
        std::function<void(const QString &error)> failed;
        // The run's own connection's name, whose stamp the names of the further ones must not repeat.
        QString mainConnectionName;
    };

    RepairEngine(const QSqlDatabase &main, Connections connections, RunTally &tally, const Reporter &reporter,
        Progress &progress, std::function<bool()> interrupted, FailurePolicy policy, PauseGate *gate = nullptr);

    // False when the mode could not begin (it has said why). watchLocks: look for the lock a
    // unit waits on (LockWatch).
    bool run(RepairStrategy &strategy, int jobs, bool watchLocks);

private:
    void work(WorkerConnection &connection, bool runsOwn);
    // Waits while the gate is shut, reading the server on the run's own connection; false when the
    // run stops meanwhile.
    bool mayStartUnit(WorkerConnection &connection, bool runsOwn);
    void workOnFurtherConnection();
    bool openUniquelyNamed(QSqlDatabase &database, QString &connectionName);
    bool take(WorkUnit &unit);
    void process(WorkerConnection &connection, WorkUnit unit);
    void handleFailure(WorkerConnection &connection, const WorkUnit &unit, const ServerFailure &failure);
    void add(const QVector<WorkUnit> &units);
    void addLocked(const WorkUnit &unit);
    void finished(const WorkUnit &unit);
    void dropped(const WorkUnit &unit);
    void splitOrLeave(WorkerConnection &connection, const WorkUnit &unit, const ServerFailure &failure);
    void leave(WorkerConnection &connection, const WorkUnit &unit, const ServerFailure &failure);
    // The unit's part of its range is not covered.
    void leftWhole(const WorkUnit &unit);
    bool refusedAlikeTooOften(const ServerFailure &failure);
    bool stopping() const;
    QHash<int, qint64> unitsInFlight() const;

    QSqlDatabase m_main;
    Connections m_connections;
    RunTally &m_tally;
    const Reporter &m_reporter;
    Progress &m_progress;
    const std::function<bool()> m_interrupted;
    const FailurePolicy m_policy;
    // The server's health and the pace; none for the steps that write nothing.
    PauseGate *const m_gate;
    RepairStrategy *m_strategy = nullptr;

    std::mutex m_openMutex;
    qint64 m_lastStamp = 0;

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    // Parts of failed units, and redone units: before anything else.
    std::deque<WorkUnit> m_now;
    // Units that met a lock: after all the others.
    std::deque<WorkUnit> m_later;
    bool m_listDone = false;
    int m_inFlight = 0;
    // Read between units without the lock.
    std::atomic<bool> m_stopped{false};
    // The last refusal tied to rows, and how often it came in a row with no row changed since.
    QString m_lastRefusal;
    int m_refusalsAlike = 0;
    // Units not over yet, per instance and per unit handed out.
    QHash<int, int> m_openOfInstance;
    QHash<int, int> m_openOfRoot;
    // Units handed out a part of which failed whole.
    QHash<int, bool> m_rootFailed;
    // The server processes of the units in flight, with when each began.
    QHash<int, qint64> m_unitStarts;
};
