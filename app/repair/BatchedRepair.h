#pragma once

#include "app/repair/RangeCursor.h"
#include "app/repair/RewritingStrategy.h"

#include <QVector>

#include <memory>
#include <mutex>

// --batched: --changed-only's repair, done through the table (every leaf partition of a
// partitioned one) in ranges of row versions, each range one statement for all instances,
// committed on its own and sized to take a fraction of a second. Neither the tool nor a statement
// holds a list of rows, so memory and statement size stay the same whatever the table and its
// damage; a run that ends early keeps every committed range, and the next run finds only what is
// left. An instance is no longer repaired all or nothing. With a journal (--journal) every change
// is recorded with its original text, and the newest unfinished journaled run is resumed.
//
// A row that another session writes while the run goes on gets a new version wherever the table
// has room: in a range already done, or past the end the run took at its start. Once the ranges
// are done, the rows written since the run began are read again (by their xmin, which costs one
// pass over the table that tests the text of those rows only) and the blocks that hold any to
// repair are repaired as further ranges, in rounds, each reading what was written since the one
// before.
class BatchedRepair : public RewritingStrategy
{
public:
    // A TID range scan reads a range of blocks only; older servers would read the whole table.
    static constexpr int kFirstServerWithRanges = 140000;
    // Rounds over the rows written during the run that repair what they find; one more read then
    // names what is still left. A round sees what was written while the one before ran, a few
    // seconds' worth: beside the product's writer at 200 updates/s the first round repaired a few
    // hundred rows of 2 000 000 and the second found none (docs/benchmarks.md), so only a writer
    // that keeps writing text to repair uses them all.
    static constexpr int kClosingRounds = 3;

    // journaled: record the run in the context's journal; options are the run's own, for its record.
    // unitTargetMs: what a range should take (UnitSizer).
    BatchedRepair(const StrategyContext &context, bool journaled, const QString &options, qint64 unitTargetMs);

    bool prepare(QSqlQuery &query) override;
    bool nextUnit(WorkUnit &unit) override;
    Result run(QSqlQuery &query, const WorkUnit &unit) override;
    QString step(const WorkUnit &unit) const override;
    QVector<WorkUnit> split(QSqlQuery &query, const WorkUnit &unit) override;
    bool leave(QSqlQuery &query, const WorkUnit &unit, const ServerFailure &failure) override;
    void rangeFinished(int rootUnit, bool covered) override;
    void conclude(QSqlQuery &query, bool interrupted) override;
    void report(bool interrupted) const override;

    // Refuses, with the run's own lines, a server that cannot read a table by ranges.
    static bool checkServer(QSqlQuery &query, const Reporter &reporter, const QString &option);

protected:
    QString givenUp(const WorkUnit &unit) const override;

private:
    bool openJournal(QSqlQuery &query, qint64 since);
    Result repairUnit(QSqlQuery &query, const WorkUnit &unit);
    // The xmin of a snapshot taken now: every row written from here on has a newer xmin.
    static bool readSnapshotXmin(QSqlQuery &query, qint64 &xmin);
    // Whether the rows of relation written since the snapshot whose xmin is given can still be
    // told by their xmin: the relation was not rewritten into a new file, and the ids have not
    // wrapped around since.
    // filenodeNow: the relation's present file, where it could be read.
    bool sinceHolds(QSqlQuery &query, int relation, qint64 since, QString *filenodeNow = nullptr) const;
    Result readWrittenSince(QSqlQuery &query, const WorkUnit &unit);
    void leaveWrittenSince(
        QSqlQuery &query, const WorkUnit &unit, const QString &which, const QString &range, Result &result);
    QVector<WorkUnit> rangesOfBlocks(const QVector<qint64> &blocks, const WorkUnit &read) const;
    // The next closing units when everything handed out so far is over: the rows a last try
    // skipped, or the next round; false when there are none.
    bool closingUnits();
    // A round's reads of a relation, a unit for each run of blocks as large as the largest range,
    // so that the pace, the server's health and an interrupt hold between them as between ranges;
    // the last one reaches past the relation's end as the run began, over the rows added since.
    void addRoundReads(int relation);
    // What a read of the round saw: since, the xmin of its snapshot (or, for a read that failed,
    // the round's own since), and the file it read in (none for a failed read).
    void recordRead(int relation, qint64 since, const QString &filenode, qint64 blocks);
    // The round over: what its reads found is said, and the next round reads from what they saw.
    void closeRound();
    void handOut(WorkUnit &unit, qint64 slotCount);

    const QString m_options;
    const qint64 m_unitTargetMs;
    std::unique_ptr<RangeCursor> m_cursor;
    // Closing units made and not handed out yet.
    QVector<WorkUnit> m_pending;

    mutable std::mutex m_mutex;
    // The slots of every range handed out, by its number; -1 for the closing units'.
    QVector<qint64> m_rangeSlots;
    int m_ranges = 0;
    int m_rangesDone = 0;
    // Units handed out whose every part is not over yet.
    int m_open = 0;
    // Per relation: the xmin of the snapshot since which its rows are to be read again, and the
    // file its rows were read in; both hold for a whole round.
    QVector<qint64> m_since;
    QStringList m_filenodes;
    // Per relation, the round's reads so far: the earliest xmin of their snapshots, and the file
    // they read in, empty where they read in more than one (a rewrite during the round moved rows
    // into blocks read before it) or a read failed; the next round reads every row then.
    struct RoundReads {
        bool any = false;
        qint64 since = 0;
        QString filenode;
        qint64 blocks = 0;
    };
    QVector<RoundReads> m_roundReads;
    // Instances the resumed run's start did not list: their rows in its committed ranges are read.
    QStringList m_newInstances;
    int m_round = 0;
    bool m_roundFound = false;
    // The last round found nothing to repair, or the last of them is done.
    bool m_roundsOver = false;
    qint64 m_roundChanged = 0;
    // The transactions of the run's own changes.
    QVector<qint64> m_ownTransactions;
};
