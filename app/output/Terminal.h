#pragma once

// Whether the standard streams are an operator's terminal (a Windows console) rather than a
// file or a pipe, and how wide it is: only there is a line redrawn in place, and it must fit.
class Terminal
{
public:
    static bool standardErrorIsTerminal();
    static bool standardOutputIsTerminal();
    // The width of standard error's terminal in characters, read anew on each call (the window
    // may be resized); 0 when unknown.
    static int columns();
};
