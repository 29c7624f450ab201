#pragma once

#include <QHash>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QVector>

class QSqlQuery;

// The record of --journal runs, kept in the product's database in a schema of the tool's own:
// each run, every range it committed, the original text of every row it changed with what
// identifies the row, and the rows it left with the reason. Each change's record is written by
// the statement that makes the change, so a kill can never leave a change without its original,
// nor a range marked done that was not. This class is the only one that names the schema: the
// journaled repair, --undo, --runs and --forget all work on it through here.
class RunJournal
{
public:
    static const QString kSchema;

    // A run's states as the journal keeps them. A run still running when it is read again was
    // killed: only one run at a time works on an installation.
    enum class RunState { Running, Finished, Interrupted, Undoing, Undone, Forgotten };
    static QString stateName(RunState state);

    using Ranges = QVector<QPair<qint64, qint64>>;

    // One journaled run as --runs lists it, each figure as the server wrote it.
    struct RunSummary {
        QString id;
        QString started;
        QString ended;
        QString state;
        QString rowsChanged;
        QString rowsLeft;
        QString rowsRestored;
    };

    // What --undo needs of a run: whether it exists, its state, and the sequence numbers of its
    // records not restored yet, [firstSeq, endSeq).
    struct UndoSpan {
        bool found = false;
        QString state;
        qint64 firstSeq = 0;
        qint64 endSeq = 0;
    };

    // Whether the schema exists (nothing is created).
    static bool exists(QSqlQuery &query);

    // The journaled repair.
    // Creates the schema on first use, then resumes the newest unfinished run or begins a new
    // one (since: the xmin of the snapshot it begins with; instances: the ids it repairs); false
    // with the server's words in error().
    bool open(QSqlQuery &query, const QString &options, qint64 since, const QStringList &instances);
    QString error() const { return m_error; }
    int run() const { return m_run; }
    bool resumed() const { return m_resumed; }
    // The ranges of row slots the resumed run committed, per relation and per file of the relation
    // they were read in.
    const QHash<QString, QHash<QString, Ranges>> &committed() const { return m_committed; }
    // The xmin of the snapshot the run began with, -1 when the journal does not know it.
    qint64 since() const { return m_since; }
    // The instance ids the run began with.
    const QStringList &instances() const { return m_instances; }
    qint64 rowsChangedBefore() const { return m_rowsChangedBefore; }
    // The common table expressions that record what an UPDATE named "changed" changed, which
    // returns version, key, written and original; with a range, the range is recorded as done.
    QString records(const QString &relation) const;
    QString rangeRecord(const QString &relation, qint64 first, qint64 end) const;
    // Records a row the run left; false with the server's words.
    bool leaveRow(QSqlQuery &query, const QString &instance, const QString &row, const QString &reason) const;
    // Marks the run's end: finished, or interrupted (to be resumed).
    bool close(QSqlQuery &query, RunState state);

    // --runs: every journaled run, oldest first; false when the journal cannot be read.
    static bool listRuns(QSqlQuery &query, QVector<RunSummary> &runs);
    // --forget: drops run's original texts and marks it forgotten, in one statement; false when
    // the journal cannot be changed. found: whether there is such a run.
    static bool forget(QSqlQuery &query, int run, bool &found, qint64 &dropped);

    // --undo.
    static bool readUndoSpan(QSqlQuery &query, int run, UndoSpan &span);
    // The relations whose rows run changed, by name.
    static bool relationsOf(QSqlQuery &query, int run, QStringList &relations);
    static bool markRun(QSqlQuery &query, int run, RunState state);
    // Marks run undone, with the count of its records restored.
    static bool markUndone(QSqlQuery &query, int run);
    // Run's records in [first, end) not restored yet, of relation where one is given.
    static QString recordSpan(int run, qint64 first, qint64 end, const QString &relation = QString());
    // Restores the records of span where relation's row (f), found by match against a record (j),
    // still holds the text the run wrote, marking each in the same statement; returns
    // instance_id and rows restored. skipLocked: rows another session holds are left.
    static QString restore(
        const QString &span, const QString &relation, const QString &column, const QString &match, bool skipLocked);
    // Key, row version and relation of span's records, and the server process of another session
    // holding the row (f) that match finds for a record (o), if one does.
    static QString recordedRows(const QString &span, const QString &relation, const QString &match);

private:
    bool readCommitted(QSqlQuery &query);

    QString m_error;
    int m_run = 0;
    bool m_resumed = false;
    QHash<QString, QHash<QString, Ranges>> m_committed;
    qint64 m_since = -1;
    QStringList m_instances;
    qint64 m_rowsChangedBefore = 0;
};
