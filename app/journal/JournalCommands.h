#pragma once

#include <QString>

class QSqlQuery;
class Reporter;
class RunJournal;

// The journal's own commands, each one statement's work on the run's connection: --runs lists
// the journaled runs, --forget N drops a run's original texts.
class JournalCommands
{
public:
    JournalCommands(RunJournal &journal, const Reporter &reporter);

    // One line per journaled run, on standard output and in the run log; true unless the
    // journal cannot be read. Creates nothing.
    bool listRuns(QSqlQuery &query) const;
    // Drops run N's original texts and marks it forgotten; false (with the reason said) when
    // there is no such run or it cannot be changed.
    bool forget(QSqlQuery &query, int run) const;

private:
    bool refuse(const QString &line) const;

    RunJournal &m_journal;
    const Reporter &m_reporter;
};
