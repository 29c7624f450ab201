#include "app/repair/ParallelInstances.h"

#include <QDateTime>
#include <QSqlError>
#include <QThread>

#include <memory>
#include <vector>

namespace {
constexpr int kClockPollMs = 1;

qint64 stampOf(const QString &connectionName)
{
    return connectionName.section(QLatin1Char('_'), -1).toLongLong();
}
} // namespace

ParallelInstances::ParallelInstances(Opener open, Failure failure, const QString &mainConnectionName)
    : m_open(std::move(open))
    , m_failure(std::move(failure))
    , m_lastStamp(stampOf(mainConnectionName))
{ }

void ParallelInstances::run(QSqlQuery &mainQuery, int count, int jobs, const Setup &setup, const Job &job)
{
    m_count = count;
    m_next = 0;
    // Qt's own threads: Qt SQL keeps per-thread data that a thread Qt did not start may leave
    // behind half torn down when it ends (MinGW's runtime on Windows crashes on it).
    std::vector<std::unique_ptr<QThread>> threads;
    for (int extra = 1; extra < std::min(jobs, count); ++extra) {
        threads.emplace_back(QThread::create([this, &setup, &job] { work(setup, job); }));
        threads.back()->start();
    }
    takeJobs(mainQuery, job);
    for (const std::unique_ptr<QThread> &thread : threads)
        thread->wait();
}

void ParallelInstances::takeJobs(QSqlQuery &query, const Job &job)
{
    for (int index = m_next++; index < m_count && !(m_stop && m_stop()); index = m_next++)
        job(query, index);
}

void ParallelInstances::work(const Setup &setup, const Job &job)
{
    // The connections already open may have taken every instance while this one waited.
    if (m_next >= m_count)
        return;
    QString name;
    {
        QSqlDatabase database;
        if (openUniquelyNamed(database, name)) {
            QSqlQuery query(database);
            if (!setup || setup(query))
                takeJobs(query, job);
            else
                m_failure(query.lastError().text());
        } else {
            m_failure(database.lastError().text());
        }
    }
    QSqlDatabase::removeDatabase(name);
}

bool ParallelInstances::openUniquelyNamed(QSqlDatabase &database, QString &connectionName)
{
    // Names carry the millisecond of the call; a second call in the same millisecond would
    // take over the first one's registration.
    const std::lock_guard<std::mutex> lock(m_openMutex);
    while (QDateTime::currentMSecsSinceEpoch() <= m_lastStamp)
        QThread::msleep(kClockPollMs);
    const bool open = m_open(database, connectionName);
    m_lastStamp = stampOf(connectionName);
    return open;
}
