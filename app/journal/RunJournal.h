#pragma once

#include <QHash>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QVector>

class QSqlQuery;

// The record of a --journal run, kept in the product's database in a schema of the tool's own:
// the run, every range it committed, the original text of every row it changed with what
// identifies the row, and the rows it left with the reason. Each change's record is written by
// the statement that makes the change, so a kill can never leave a change without its original,
// nor a range marked done that was not.
class RunJournal
{
public:
    static const QString kSchema;
    // A run's states as the journal keeps them. A run still "running" when it is read again was
    // killed: only one run at a time works on an installation.
    static const QString kRunning;
    static const QString kFinished;
    static const QString kInterrupted;
    static const QString kUndoing;
    static const QString kUndone;
    static const QString kForgotten;

    using Ranges = QVector<QPair<qint64, qint64>>;

    // Whether the schema exists (nothing is created).
    static bool exists(QSqlQuery &query);

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
    bool close(QSqlQuery &query, const QString &state);

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
