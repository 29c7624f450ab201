#include "app/NormalizationPass.h"

#include "app/Console.h"
#include "app/ParallelInstances.h"
#include "app/RunLog.h"

#include <QSqlError>

namespace {
QString blanks(int count)
{
    return QString(count, QLatin1Char(' '));
}

// Each alternative matches only the run of backslashes in front of the offending escape
// (a lone low surrogate, a lone high surrogate, \u0000 or \x); the run becomes exactly
// one escaped backslash, so the escape turns into plain text. Valid pairs stay as they are.
const QString kReplacement
    = QStringLiteral(R"(REGEXP_REPLACE(%1::TEXT, '(?<![\\]ud[89ab][0-9a-f]{2})[\\]+(?=ud[c-f][0-9a-f]{2})|)"
                     R"([\\]+(?=ud[89ab][0-9a-f]{2}(?![\\]ud[c-f][0-9a-f]{2}))|[\\]+(?=u0000|x)', '\\\\', 'gi'))");
} // namespace

const QString NormalizationPass::kColumn = QStringLiteral("filetype_details");

const QString NormalizationPass::kInstanceQuery = QStringLiteral("SELECT instance_id, last_request_id") + blanks(61)
    + QStringLiteral("FROM warehouse.control_refresh") + blanks(61) + QStringLiteral("ORDER BY instance_id;");

const QString NormalizationPass::kUpdateTemplate = QStringLiteral("UPDATE scan.file") + blanks(57)
    + QStringLiteral("SET %1 = ") + kReplacement + blanks(57) + QStringLiteral("WHERE request_id > %2") + blanks(57)
    + QStringLiteral("AND instance_id = %3;");

const QString NormalizationPass::kCountTemplate
    = QStringLiteral("SELECT count(*), count(*) FILTER (WHERE %1::TEXT IS DISTINCT FROM ") + kReplacement
    + QStringLiteral(") FROM scan.file WHERE request_id > %2 AND instance_id = %3;");

NormalizationPass::NormalizationPass(const QSqlDatabase &database)
    : m_query(database)
{ }

bool NormalizationPass::readInstances(QSqlQuery &query, RunLog &log, QVector<Instance> &instances)
{
    if (!query.exec(kInstanceQuery)) {
        Console::err(QStringLiteral("ERROR: Data normalization is failed."));
        log.writeLine(RunLog::Error,
            QStringLiteral("Select all last_request_id unsuccessfully. %1").arg(query.lastError().text()));
        return false;
    }
    // The whole list is read first, so no result set stays open during the updates.
    // Both members hold the instance id: the lower bound of the request filter is the
    // instance's own id, not the stored last request id, as it has always been.
    while (query.next())
        instances.append({query.value(0).toString(), query.value(0).toString()});
    return true;
}

bool NormalizationPass::run(RunLog &log, ParallelInstances &parallel, int jobs)
{
    QVector<Instance> instances;
    if (!readInstances(m_query, log, instances))
        return false;
    parallel.run(m_query, instances.size(), jobs, nullptr,
        [&instances, &log](QSqlQuery &query, int index) { normalizeInstance(query, instances[index], log); });
    return true;
}

void NormalizationPass::normalizeInstance(QSqlQuery &query, const Instance &instance, RunLog &log)
{
    if (query.exec(kUpdateTemplate.arg(kColumn, instance.second, instance.first))) {
        Console::out(QStringLiteral("Data normalization is done, data: ") + kColumn + QStringLiteral(", instance id: ")
            + instance.first);
        log.writeLine(RunLog::Info,
            QStringLiteral("Data normalization is done, data: %1, instance id: %2").arg(kColumn, instance.first));
        return;
    }
    Console::err(QStringLiteral("WARNING: Data normalization is failed, data: ") + kColumn
        + QStringLiteral(", instance id: ") + instance.first);
    log.writeLine(RunLog::Warning,
        QStringLiteral("Data normalization is failed, data: %1, instance id: %2. %3")
            .arg(kColumn, instance.first, query.lastError().text()));
}
