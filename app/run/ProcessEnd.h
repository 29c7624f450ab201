#pragma once

// How the tool's process ends once the run is over and its output flushed.
namespace ProcessEnd {
// Returns the status for main to return (POSIX), or ends the process with it at once (Windows:
// unloading the libraries after the parallel jobs' threads can hang for good under MinGW's
// runtime, with every line already written).
int finish(int status);
// An abort (a configuration error, which the run does not catch) ends the process after the C++
// runtime's own lines with the platform's status: 134 by SIGABRT on POSIX, 3 on Windows, where the
// C runtime's own banner is left out so that the lines are the same.
void quietAborts();
} // namespace ProcessEnd
