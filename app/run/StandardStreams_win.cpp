#include "app/run/StandardStreams.h"

// Qt opens files as handles, which never become a C runtime descriptor of the standard streams,
// and there is no signal for a pipe whose reader has gone: the write fails, and the console
// drops the line.
void StandardStreams::hold() { }
