#pragma once

#include "app/repair/RunTally.h"
#include "app/repair/WorkUnit.h"

#include <QHash>
#include <QString>
#include <QVector>

class QSqlQuery;
class ServerFailure;

// What one mode of the run does, unit by unit: what a unit is, its statement, what its failure
// means and what the run says at its end. The repair engine runs the units on the run's
// connections; a mode never holds a connection of its own.
class RepairStrategy
{
public:
    // What one unit did.
    struct Result {
        bool ok = false;
        // Rows changed, per instance id.
        QHash<QString, qint64> changed;
        // Work the unit found still to do (rows another writer rewrote while it ran).
        QVector<WorkUnit> more;
        // Rows the unit had to leave (locked by another session until its last try).
        QVector<RunTally::LeftRow> left;
        // Rows the unit's range held when it ran, where the mode counts them; -1 otherwise.
        qint64 rowsRead = -1;
        // Listed rows the unit did not change but accounted for: put aside for a last try, handed
        // to a further unit, or left.
        qint64 setAside = 0;
        // The transaction that made the unit's changes, as a row's xmin shows it; 0 when none.
        qint64 transaction = 0;
    };

    virtual ~RepairStrategy() = default;

    // Reads what the mode needs before its first unit; false ends the run, the mode having said
    // why on the console and in the run log.
    virtual bool prepare(QSqlQuery &query) = 0;
    // The next unit of the mode's own list; false when there is none for now (a unit in flight
    // may still lead to more). Called by one connection at a time.
    virtual bool nextUnit(WorkUnit &unit) = 0;
    virtual Result run(QSqlQuery &query, const WorkUnit &unit) = 0;
    // The progress line's text for a unit in flight.
    virtual QString step(const WorkUnit &unit) const = 0;

    // After a failure tied to a unit's rows: the unit in smaller parts, or none when it cannot be
    // split further (one row, one count).
    virtual QVector<WorkUnit> split(QSqlQuery &query, const WorkUnit &unit);
    // Records what a unit that could not be done leaves: its one row, named, or the unit whole
    // (then true: its part of the table is not covered).
    virtual bool leave(QSqlQuery &query, const WorkUnit &unit, const ServerFailure &failure) = 0;
    // After a refusal of privilege: whether the role may write what the unit writes, as the server
    // says, so that the refusal is one of its rows'. A mode that only reads says no.
    virtual bool mayWrite(QSqlQuery &query, const WorkUnit &unit);

    // A unit that met a lock past the tool's bound: true when the lock is on its whole relation
    // (another session's LOCK TABLE, CREATE INDEX, ALTER TABLE), which the mode has then said
    // and given up; the unit is left whole.
    virtual bool relationLocked(QSqlQuery &query, const WorkUnit &unit);
    // A unit the mode no longer runs (its relation was given up): left whole without a statement.
    virtual bool skips(const WorkUnit &unit) const;

    // Every unit of an instance is over: the instance's line, or more units when the instance
    // must be read again.
    virtual QVector<WorkUnit> instanceFinished(int instance);
    // Every part of a unit the mode handed out is over; covered is false when a part failed whole.
    virtual void rangeFinished(int rootUnit, bool covered);
    // What the end of the mode's work settles before it is reported, on the run's connection: what
    // it could not do counted, the journal's end state written.
    virtual void conclude(QSqlQuery &query, bool interrupted);
    // The run's closing lines; an interrupted run says only how far it got.
    virtual void report(bool interrupted) const = 0;

protected:
    // A unit of listed rows in two halves; none for a single row.
    static QVector<WorkUnit> halvesOfRows(const WorkUnit &unit);
};
