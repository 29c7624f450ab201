#pragma once

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>

#include <atomic>
#include <functional>
#include <mutex>

// Runs one job per instance on up to N connections at once: the caller's own, and more
// opened through the database service, each used by a thread of its own (a Qt SQL
// connection belongs to the thread that opened it) and removed when that thread is done.
// Instances are handed out in list order as connections become free.
class ParallelInstances
{
public:
    // Opens a connection through the service; fills the handle and its registered name.
    using Opener = std::function<bool(QSqlDatabase &database, QString &connectionName)>;
    // Prepares a fresh connection before its first job; false leaves it unused.
    using Setup = std::function<bool(QSqlQuery &query)>;
    using Job = std::function<void(QSqlQuery &query, int index)>;
    // Told why an extra connection could not be used; its share goes to the others.
    using Failure = std::function<void(const QString &error)>;

    // mainConnectionName is the name of the caller's connection, whose stamp the names of
    // the extra ones must not repeat.
    ParallelInstances(Opener open, Failure failure, const QString &mainConnectionName);

    // With one job, every instance runs on mainQuery in list order.
    void run(QSqlQuery &mainQuery, int count, int jobs, const Setup &setup, const Job &job);
    // Asked before each job; true starts no further one.
    void setStop(std::function<bool()> stop) { m_stop = std::move(stop); }

private:
    void work(const Setup &setup, const Job &job);
    void takeJobs(QSqlQuery &query, const Job &job);
    bool openUniquelyNamed(QSqlDatabase &database, QString &connectionName);

    Opener m_open;
    Failure m_failure;
    std::function<bool()> m_stop;
    std::mutex m_openMutex;
    qint64 m_lastStamp = 0;
    std::atomic<int> m_next{0};
    int m_count = 0;
};
