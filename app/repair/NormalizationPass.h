#pragma once

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QVector>

class ParallelInstances;
class Progress;
class RunLog;
class VerboseLog;

// Neutralises lone surrogate, NUL and "\x" escapes in the scan rows' file-type JSON, on
// the server, with one UPDATE per instance of the warehouse control table.
class NormalizationPass
{
public:
    struct Instance {
        QString first;
        QString second;
    };

    static const QString kColumn;
    static const QString kInstanceQuery;
    static const QString kUpdateTemplate;

    NormalizationPass(const QSqlDatabase &database, const VerboseLog &verbose);

    // False only when the instance list cannot be read; a failed update is a warning. With
    // more than one job the updates are spread over further connections.
    bool run(RunLog &log, ParallelInstances &parallel, int jobs, Progress &progress);

    // Reads the whole instance list, or reports why it cannot be read and returns false.
    static bool readInstances(QSqlQuery &query, RunLog &log, QVector<Instance> &instances);
    static QStringList idsOf(const QVector<Instance> &instances);

    // An instance's done line on the console and in the run log; suffix ends both.
    static void reportDone(const Instance &instance, RunLog &log, const QString &suffix = QString());
    // An instance's warning line on the console, and with the server's reason in the run log.
    static void reportFailed(const Instance &instance, RunLog &log, const QString &reason);
    // The instance's step in the progress line.
    static QString progressStep(const Instance &instance);
    // For --verbose: how long the instance's statement took and what it did, or why it failed.
    static void explain(
        const VerboseLog &verbose, const Instance &instance, const QSqlQuery &query, bool done, qint64 elapsedMs);

private:
    void normalizeInstance(QSqlQuery &query, const Instance &instance, RunLog &log, Progress &progress) const;

    QSqlQuery m_query;
    const VerboseLog &m_verbose;
};
