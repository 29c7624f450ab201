#pragma once

#include "app/repair/InstanceList.h"
#include "app/repair/RepairStrategy.h"
#include "app/repair/ScanTable.h"

#include <QHash>
#include <QMap>
#include <QPair>

#include <mutex>

class Progress;
class Reporter;
class RunJournal;
class VerboseLog;
struct StrategyContext;

// What the tool's writing modes share: rows found by their row versions and rewritten only
// where their text changes, a fault split down to the rows that cause it, rows another session
// holds locked left and named after the last try, and the closing lines.
class RewritingStrategy : public RepairStrategy
{
protected:
    // journal: where every change is recorded with its original text; none for a run without one.
    RewritingStrategy(const QString &option, const StrategyContext &context, RunJournal *journal);

    // Reads the table's shape and refuses at once, with a console and run-log error, what the
    // mode cannot repair.
    bool readTable(QSqlQuery &query);
    // Runs the repair of the rows that where selects in the unit's relation: waiting on locks,
    // or on the last try skipping them and leaving those still held. changed is filled per
    // instance.
    Result repair(QSqlQuery &query, const WorkUnit &unit, const QString &where, const QString &step);
    bool leaveRows(QSqlQuery &query, const WorkUnit &unit, const QString &what, const QString &reason);
    // An instance's closing line: done with the rows it changed, or failed with what it left
    // (and, when unfinished is given, with why its part of the run is not over).
    void instanceLine(int instance, const QString &unfinished = QString()) const;
    // The lines that say what the run left and why it stopped, if it did.
    void reportLeft() const;
    QStringList idsOf(const WorkUnit &unit) const;
    bool mayWrite(QSqlQuery &query, const WorkUnit &unit) override;
    QString relationOf(const WorkUnit &unit) const;

    bool relationLocked(QSqlQuery &query, const WorkUnit &unit) override;
    bool skips(const WorkUnit &unit) const override;
    // What a unit given up with its relation leaves, as the run's report names it.
    virtual QString givenUp(const WorkUnit &unit) const = 0;
    bool relationGivenUp(int relation) const;

    // Rows a last try skipped because another session held them: they are tried once more, waiting
    // on nothing, when the rest is done (of one instance, or of the run: -1), and only then left.
    bool hasHeldRows(int instance) const;
    QVector<WorkUnit> heldRows(int instance);
    // The listed rows without those put aside for that last try.
    QStringList withoutHeld(int relation, const QStringList &tids) const;
    // Names a row left, once however often the run met it.
    void leaveRow(QSqlQuery &query, const ScanTable::Row &row, const QString &reason);

    const QString m_option;
    const Reporter &m_reporter;
    const VerboseLog &m_verbose;
    Progress &m_progress;
    RunTally &m_tally;
    ScanTable m_table;
    InstanceList m_instances;
    RunJournal *const m_journal;

private:
    struct HeldRow {
        int instance = -1;
        QString holder;
    };

    QString statement(const WorkUnit &unit, const QString &where, bool lastTry) const;
    void leaveLeftovers(QSqlQuery &query, const WorkUnit &unit, const QString &where, Result &result);

    mutable std::mutex m_heldMutex;
    // By relation and row version.
    QMap<QPair<int, QString>, HeldRow> m_held;
    // Relations given up for a lock on the whole of them, with why.
    QHash<int, QString> m_givenUp;
};
