#include "app/repair/LockWatch.h"

#include "app/output/Progress.h"
#include "app/run/LibpqHandle.h"
#include "app/run/ThreadCryptoState.h"

#include <QDateTime>
#include <QSqlQuery>
#include <QStringList>
#include <QThread>

LockWatch::LockWatch(Open open, UnitsInFlight unitsInFlight, Progress &progress)
    : m_open(std::move(open))
    , m_unitsInFlight(std::move(unitsInFlight))
    , m_progress(progress)
{
    // Qt's own thread: Qt SQL keeps per-thread data that a thread Qt did not start may leave
    // behind half torn down when it ends.
    m_thread.reset(QThread::create([this] { watch(); }));
    m_thread->start();
}

LockWatch::~LockWatch()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_over = true;
    }
    m_wake.notify_all();
    m_thread->wait();
}

void LockWatch::watch()
{
    const ThreadCryptoState cryptoState;
    QString name;
    {
        QSqlDatabase database;
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_over) {
            const auto nextLook = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLockLookMs);
            if (m_wake.wait_until(lock, nextLook, [this] { return m_over; }))
                break;
            lock.unlock();
            const QHash<int, qint64> units = m_unitsInFlight();
            const qint64 now = QDateTime::currentMSecsSinceEpoch();
            bool looked = false;
            for (const qint64 start : units)
                looked = looked || now - start >= kLockLookMs;
            if (!looked) {
                m_progress.setWaiting(QString());
            } else {
                if (name.isEmpty() && !m_open(database, name))
                    break;
                // A server that restarted ended this connection too.
                if (LibpqHandle::lost(database))
                    database.open();
                m_progress.setWaiting(lockWait(database, units));
            }
            lock.lock();
        }
    }
    QSqlDatabase::removeDatabase(name);
}

QString LockWatch::lockWait(QSqlDatabase &database, const QHash<int, qint64> &units) const
{
    QStringList processes;
    for (auto it = units.cbegin(); it != units.cend(); ++it)
        processes << QString::number(it.key());
    QSqlQuery query(database);
    const QString waits = QStringLiteral("SELECT (pg_blocking_pids(l.pid))[1], coalesce(extract(epoch FROM now() - "
                                         "l.waitstart)::int, 0) FROM pg_locks l WHERE NOT "
                                         "l.granted AND l.pid = ANY ('{%1}'::int[]) ORDER BY l.waitstart LIMIT 1");
    if (!query.exec(waits.arg(processes.join(QLatin1Char(',')))) || !query.next())
        return QString();
    return QStringLiteral("waiting %1 s for a lock held by server process %2")
        .arg(query.value(1).toString(), query.value(0).toString());
}
