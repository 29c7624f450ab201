#pragma once

// What the process makes of its standard streams before anything else opens a file: a console
// line that cannot be written (a closed or broken standard output or error) is dropped, never
// the run, its work or a line of its run log.
namespace StandardStreams {
// Gives each standard descriptor that is closed the null device, so that no file the run opens
// (its run log) becomes one and receives the console's lines; and makes a write to a pipe whose
// reader has gone fail rather than end the process.
void hold();
} // namespace StandardStreams
