#pragma once

#include <QHash>
#include <QPair>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVector>

#include <mutex>

// What a run has done and what it has left, gathered from every connection: the figures of its
// report and the ground of its exit status. Only committed work is counted.
class RunTally
{
public:
    struct LeftRow {
        QString instance;
        // The row as the operator finds it: its primary key, else its row version.
        QString row;
        QString reason;
    };

    void addChanged(const QHash<QString, qint64> &changed);
    qint64 changed(const QString &instance) const;
    qint64 totalChanged() const;

    // False when the row was left already: a row is counted once, however often the run met it.
    bool leaveRow(const LeftRow &row);
    // An instance, a count or a part of the table that failed whole, with the server's words.
    void fail(const QString &what, const QString &reason);
    void cover(qint64 units);
    // A reason for which the run stopped early; the first one counts.
    void stop(const QString &reason);

    QVector<LeftRow> leftRows() const;
    int leftRowsOf(const QString &instance) const;
    QStringList failures() const;
    QString failureOf(const QString &what) const;
    qint64 covered() const;
    QString stopReason() const;
    // Every unit was done: nothing left, nothing failed, nothing stopped.
    bool complete() const;

private:
    mutable std::mutex m_mutex;
    QHash<QString, qint64> m_changed;
    QVector<LeftRow> m_left;
    QSet<QPair<QString, QString>> m_leftNames;
    QStringList m_failed;
    QHash<QString, QString> m_failures;
    qint64 m_covered = 0;
    QString m_stopReason;
};
