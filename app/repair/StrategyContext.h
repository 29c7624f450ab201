#pragma once

class Progress;
class Reporter;
class RunJournal;
class RunTally;
class VerboseLog;

// What a mode's strategy is given when it is made: where it says what it did, how far the run
// has got, what the run has done and left, and the journal it records in or reads.
struct StrategyContext {
    const Reporter &reporter;
    const VerboseLog &verbose;
    Progress &progress;
    RunTally &tally;
    RunJournal &journal;
};
