#pragma once

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QVector>

class ParallelInstances;
class RunLog;

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
    // The rows of an instance's update range, and those whose text the update would change.
    static const QString kCountTemplate;

    explicit NormalizationPass(const QSqlDatabase &database);

    // False only when the instance list cannot be read; a failed update is a warning. With
    // more than one job the updates are spread over further connections.
    bool run(RunLog &log, ParallelInstances &parallel, int jobs);

    // Reads the whole instance list, or reports why it cannot be read and returns false.
    static bool readInstances(QSqlQuery &query, RunLog &log, QVector<Instance> &instances);

private:
    static void normalizeInstance(QSqlQuery &query, const Instance &instance, RunLog &log);

    QSqlQuery m_query;
};
