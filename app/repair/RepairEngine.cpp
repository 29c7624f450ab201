#include "app/repair/RepairEngine.h"

#include "app/health/PauseGate.h"
#include "app/output/Progress.h"
#include "app/output/Reporter.h"
#include "app/repair/LockWatch.h"
#include "app/repair/RepairStrategy.h"
#include "app/repair/RunTally.h"
#include "app/repair/ServerFailure.h"
#include "app/repair/WorkerConnection.h"

#include "app/run/LibpqHandle.h"
#include "app/run/ThreadCryptoState.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QSqlError>
#include <QSqlQuery>
#include <QThread>

#include <memory>
#include <vector>

namespace {
constexpr int kClockPollMs = 1;
// A connection with nothing to take waits for the units that the others may still split or
// hand back; it looks again at least this often.
constexpr int kIdlePollMs = 200;

bool changedAny(const RepairStrategy::Result &result)
{
    for (const qint64 changed : result.changed) {
        if (changed > 0)
            return true;
    }
    return false;
}

qint64 stampOf(const QString &connectionName)
{
    return connectionName.section(QLatin1Char('_'), -1).toLongLong();
}
} // namespace

RepairEngine::RepairEngine(const QSqlDatabase &main, Connections connections, RunTally &tally, const Reporter &reporter,
    Progress &progress, std::function<bool()> interrupted, FailurePolicy policy, PauseGate *gate)
    : m_main(main)
    , m_connections(std::move(connections))
    , m_tally(tally)
    , m_reporter(reporter)
    , m_progress(progress)
    , m_interrupted(std::move(interrupted))
    , m_policy(policy)
    , m_gate(gate)
    , m_lastStamp(stampOf(m_connections.mainConnectionName))
{ }

bool RepairEngine::run(RepairStrategy &strategy, int jobs, bool watchLocks)
{
    m_strategy = &strategy;
    WorkerConnection main(m_main, m_connections.opened);
    if (!strategy.prepare(main.query()))
        return false;
    // Qt's own threads: Qt SQL keeps per-thread data that a thread Qt did not start may leave
    // behind half torn down when it ends (MinGW's runtime on Windows crashes on it).
    std::vector<std::unique_ptr<QThread>> threads;
    for (int extra = 1; extra < jobs; ++extra) {
        threads.emplace_back(QThread::create([this] { workOnFurtherConnection(); }));
        threads.back()->start();
    }
    std::unique_ptr<LockWatch> watch;
    if (watchLocks)
        watch = std::make_unique<LockWatch>(
            [this](QSqlDatabase &database, QString &name) { return openUniquelyNamed(database, name); },
            [this] { return unitsInFlight(); }, m_progress);
    work(main, true);
    for (const std::unique_ptr<QThread> &thread : threads)
        thread->wait();
    watch.reset();
    const bool interrupted = m_interrupted();
    strategy.conclude(main.query(), interrupted);
    strategy.report(interrupted);
    if (m_gate)
        m_gate->finish();
    return true;
}

QHash<int, qint64> RepairEngine::unitsInFlight() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_unitStarts;
}

void RepairEngine::workOnFurtherConnection()
{
    const ThreadCryptoState cryptoState;
    {
        // The connections already open may have taken every unit while this one waited.
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_listDone && m_now.empty() && m_later.empty() && m_inFlight == 0)
            return;
    }
    QString name;
    {
        QSqlDatabase database;
        if (openUniquelyNamed(database, name)) {
            if (m_connections.opened)
                m_connections.opened(database);
            WorkerConnection connection(database, m_connections.opened);
            work(connection, false);
        } else if (m_connections.failed) {
            m_connections.failed(database.lastError().text());
        }
    }
    QSqlDatabase::removeDatabase(name);
}

bool RepairEngine::openUniquelyNamed(QSqlDatabase &database, QString &connectionName)
{
    // Names carry the millisecond of the call; a second call in the same millisecond would
    // take over the first one's registration.
    const std::lock_guard<std::mutex> lock(m_openMutex);
    while (QDateTime::currentMSecsSinceEpoch() <= m_lastStamp)
        QThread::msleep(kClockPollMs);
    const bool open = m_connections.open(database, connectionName);
    m_lastStamp = stampOf(connectionName);
    return open;
}

void RepairEngine::work(WorkerConnection &connection, bool runsOwn)
{
    WorkUnit unit;
    while (mayStartUnit(connection, runsOwn) && take(unit)) {
        QElapsedTimer elapsed;
        elapsed.start();
        process(connection, unit);
        if (m_gate)
            m_gate->rest(elapsed.elapsed(), [this] { return stopping(); });
    }
}

bool RepairEngine::mayStartUnit(WorkerConnection &connection, bool runsOwn)
{
    if (!m_gate)
        return true;
    for (;;) {
        if (stopping())
            return false;
        if (runsOwn)
            m_gate->look(connection.query());
        const QString overrun = m_gate->overrun();
        if (!overrun.isEmpty()) {
            m_tally.stop(overrun);
            m_stopped = true;
            m_wake.notify_all();
            return false;
        }
        if (m_gate->open())
            return true;
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake.wait_for(lock, std::chrono::milliseconds(PauseGate::kWaitPollMs));
    }
}

bool RepairEngine::stopping() const
{
    return m_stopped || m_interrupted();
}

bool RepairEngine::take(WorkUnit &unit)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        if (stopping())
            return false;
        if (!m_now.empty()) {
            unit = m_now.front();
            m_now.pop_front();
            break;
        }
        // Asked again each time: a mode may learn from a unit done that it has more.
        if (m_strategy->nextUnit(unit)) {
            addLocked(unit);
            break;
        }
        m_listDone = true;
        if (!m_later.empty()) {
            unit = m_later.front();
            m_later.pop_front();
            break;
        }
        if (m_inFlight == 0)
            return false;
        m_wake.wait_for(lock, std::chrono::milliseconds(kIdlePollMs));
    }
    ++m_inFlight;
    return true;
}

void RepairEngine::process(WorkerConnection &connection, WorkUnit unit)
{
    if (m_strategy->skips(unit)) {
        leftWhole(unit);
        finished(unit);
        return;
    }
    const int serverProcess = LibpqHandle::serverProcess(connection.database());
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_unitStarts.insert(serverProcess, QDateTime::currentMSecsSinceEpoch());
    }
    RepairStrategy::Result result;
    {
        const Progress::Step inFlight(m_progress, m_strategy->step(unit));
        result = m_strategy->run(connection.query(), unit);
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_unitStarts.remove(serverProcess);
    }
    if (result.ok || m_policy == FailurePolicy::ReportAndGoOn) {
        if (changedAny(result)) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_refusalsAlike = 0;
        }
        m_tally.addChanged(result.changed);
        for (const RunTally::LeftRow &row : result.left)
            m_tally.leaveRow(row);
        add(result.more);
        finished(unit);
        return;
    }
    const auto mayWrite = [this, &connection, &unit] { return m_strategy->mayWrite(connection.query(), unit); };
    handleFailure(
        connection, unit, ServerFailure::of(connection.query(), connection.database(), m_interrupted(), mayWrite));
}

void RepairEngine::handleFailure(WorkerConnection &connection, const WorkUnit &unit, const ServerFailure &failure)
{
    switch (failure.kind()) {
    case ServerFailure::Kind::Interrupted:
        dropped(unit);
        return;
    case ServerFailure::Kind::Connection: {
        QString error;
        if (!connection.reopen(m_interrupted, error)) {
            m_tally.stop(QStringLiteral("The connection to the database server was lost (%1) and could not be "
                                        "opened again within %2 s: %3")
                             .arg(failure.serverMessage())
                             .arg(WorkerConnection::kReopenLimitMs / 1000)
                             .arg(error));
            break;
        }
        m_reporter.warning(QStringLiteral("A connection of the run was lost and is open again; its work is redone. %1")
                               .arg(failure.serverMessage()));
        if (unit.losses >= kLossesPerUnit) {
            splitOrLeave(connection, unit, failure);
            return;
        }
        WorkUnit again = unit;
        ++again.losses;
        add({again});
        dropped(unit);
        return;
    }
    case ServerFailure::Kind::Retry:
        if (m_strategy->relationLocked(connection.query(), unit)) {
            leftWhole(unit);
            finished(unit);
            return;
        }
        if (!unit.lastTry) {
            WorkUnit again = unit;
            ++again.tries;
            again.lastTry = again.tries >= kWaitingTries;
            {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_later.push_back(again);
                --m_inFlight;
            }
            m_wake.notify_all();
            return;
        }
        leave(connection, unit, failure);
        finished(unit);
        return;
    case ServerFailure::Kind::Run:
        m_tally.stop(failure.serverMessage());
        break;
    case ServerFailure::Kind::Rows:
        if (!refusedAlikeTooOften(failure)) {
            splitOrLeave(connection, unit, failure);
            return;
        }
        m_tally.stop(QStringLiteral("the server refused %1 statements in a row alike, with no row changed in between: "
                                    "a refusal that every row meets. %2")
                         .arg(kRefusalsAlike)
                         .arg(failure.serverMessage()));
        break;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
    }
    dropped(unit);
}

bool RepairEngine::refusedAlikeTooOften(const ServerFailure &failure)
{
    const QString refusal = failure.sqlState() + QLatin1Char(' ') + failure.serverMessage();
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (refusal != m_lastRefusal) {
        m_lastRefusal = refusal;
        m_refusalsAlike = 0;
    }
    return ++m_refusalsAlike >= kRefusalsAlike;
}

void RepairEngine::splitOrLeave(WorkerConnection &connection, const WorkUnit &unit, const ServerFailure &failure)
{
    const QVector<WorkUnit> parts = m_strategy->split(connection.query(), unit);
    if (parts.isEmpty())
        leave(connection, unit, failure);
    add(parts);
    finished(unit);
}

void RepairEngine::leave(WorkerConnection &connection, const WorkUnit &unit, const ServerFailure &failure)
{
    if (m_strategy->leave(connection.query(), unit, failure))
        leftWhole(unit);
}

void RepairEngine::leftWhole(const WorkUnit &unit)
{
    if (unit.rootUnit < 0)
        return;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_rootFailed[unit.rootUnit] = true;
}

void RepairEngine::add(const QVector<WorkUnit> &units)
{
    if (units.isEmpty())
        return;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (const WorkUnit &unit : units) {
            addLocked(unit);
            m_now.push_back(unit);
        }
    }
    m_wake.notify_all();
}

void RepairEngine::addLocked(const WorkUnit &unit)
{
    if (unit.instance >= 0)
        ++m_openOfInstance[unit.instance];
    if (unit.rootUnit >= 0)
        ++m_openOfRoot[unit.rootUnit];
}

// A unit is over. The last one of an instance or of a unit handed out tells the mode, which may
// hand out more units for the instance. The unit counts as in flight until the mode has been
// told, so that no connection finds the list empty and ends while the mode may still add to it.
void RepairEngine::finished(const WorkUnit &unit)
{
    bool instanceOver = false;
    bool rootOver = false;
    bool rootFailed = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (unit.instance >= 0)
            instanceOver = --m_openOfInstance[unit.instance] == 0;
        if (unit.rootUnit >= 0) {
            rootOver = --m_openOfRoot[unit.rootUnit] == 0;
            rootFailed = m_rootFailed.value(unit.rootUnit);
        }
    }
    if (instanceOver) {
        const QVector<WorkUnit> more = m_strategy->instanceFinished(unit.instance);
        if (more.isEmpty())
            m_progress.stepDone();
        add(more);
    }
    if (rootOver)
        m_strategy->rangeFinished(unit.rootUnit, !rootFailed);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        --m_inFlight;
    }
    m_wake.notify_all();
}

// A unit that was not done and will not be (interrupted, or the run stopped), or that was
// handed back to be redone: its instance and range are not over through it.
void RepairEngine::dropped(const WorkUnit &unit)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        --m_inFlight;
        if (unit.instance >= 0)
            --m_openOfInstance[unit.instance];
        if (unit.rootUnit >= 0)
            --m_openOfRoot[unit.rootUnit];
    }
    m_wake.notify_all();
}
