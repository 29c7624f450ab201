#pragma once

class QSqlQuery;
class RunLog;

// The journal's own commands, each one statement's work on the run's connection: --runs lists
// the journaled runs, --forget N drops a run's original texts.
class JournalCommands
{
public:
    // One line per journaled run, on standard output and in the run log; true unless the
    // journal cannot be read. Creates nothing.
    static bool listRuns(QSqlQuery &query, RunLog &log);
    // Drops run N's original texts and marks it forgotten; false (with the reason said) when
    // there is no such run or it cannot be changed.
    static bool forget(QSqlQuery &query, RunLog &log, int run);
};
