#pragma once

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>

class RunLog;

// Neutralises lone surrogate, NUL and "\x" escapes in the scan rows' file-type JSON, on
// the server, with one UPDATE per instance of the warehouse control table.
class NormalizationPass
{
public:
    static const QString kColumn;
    static const QString kInstanceQuery;
    static const QString kUpdateTemplate;

    explicit NormalizationPass(const QSqlDatabase &database);

    // False only when the instance list cannot be read; a failed update is a warning.
    bool run(RunLog &log);

private:
    struct Instance {
        QString first;
        QString second;
    };

    void normalizeInstance(const Instance &instance, RunLog &log);

    QSqlQuery m_query;
};
