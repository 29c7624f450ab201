#pragma once

#include "app/repair/InstanceList.h"
#include "app/repair/RepairStrategy.h"

class Progress;
class Reporter;
class VerboseLog;
struct StrategyContext;

// The product's pass: neutralises lone surrogate, NUL and "\x" escapes in the scan rows'
// file-type JSON, on the server, with one UPDATE per instance of the warehouse control table.
// A failed update is a warning and the run goes on with the next instance.
class NormalizationPass : public RepairStrategy
{
public:
    static const QString kUpdateTemplate;

    explicit NormalizationPass(const StrategyContext &context);

    bool prepare(QSqlQuery &query) override;
    bool nextUnit(WorkUnit &unit) override;
    Result run(QSqlQuery &query, const WorkUnit &unit) override;
    QString step(const WorkUnit &unit) const override;
    bool leave(QSqlQuery &query, const WorkUnit &unit, const ServerFailure &failure) override;
    void report(bool) const override { }

private:
    const Reporter &m_reporter;
    const VerboseLog &m_verbose;
    Progress &m_progress;
    InstanceList m_instances;
    int m_next = 0;
};
