#pragma once

// Whether standard error is an operator's terminal (a Windows console) rather than a file or
// a pipe: only there is a line redrawn in place.
class Terminal
{
public:
    static bool standardErrorIsTerminal();
};
