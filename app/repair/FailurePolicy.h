#pragma once

// What a run does with a unit that fails, and what its exit status then says.
enum class FailurePolicy {
    // The product's pass: the failure is reported, the run goes on with the next unit, and the
    // run's status says only that it got to its end.
    ReportAndGoOn,
    // The tool's modes: a fault is isolated down to the rows that cause it, a lost connection
    // restored, a lock waited on too long tried again, and the status says whether every unit
    // was done.
    IsolateAndRetry,
};
