#pragma once

// How the tool's process ends once the run is over and its output flushed.
namespace ProcessEnd {
// Returns the status for main to return (POSIX), or ends the process with it at once (Windows:
// unloading the libraries after the parallel jobs' threads can hang for good under MinGW's
// runtime, with every line already written).
int finish(int status);
} // namespace ProcessEnd
