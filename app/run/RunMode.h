#pragma once

// What a run does once the database is usable, decided once from its command line.
enum class RunMode {
    // The product's pass: one UPDATE per instance, a failure is a warning and the next instance.
    Repair,
    // The tool's own modes: faults isolated to rows, connections restored, an honest exit status.
    ChangedOnly,
    Batched,
    DryRun,
    // The journal's: take a journaled run back, list the runs, drop a run's original texts.
    Undo,
    ListRuns,
    Forget,
    // Only --verify: no repair before it.
    VerifyOnly,
    // Any other argument list: the database is opened and nothing is changed.
    SkipRepair,
};
