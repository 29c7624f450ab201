#pragma once

#include <QString>

// Whether the standard streams are an operator's terminal (a Windows console) rather than a
// file or a pipe, and how wide it is: only there is a line redrawn in place, and it must fit.
class Terminal
{
public:
    enum class Stream { Output, Error };

    static bool standardErrorIsTerminal();
    static bool standardOutputIsTerminal();
    // The width of standard error's terminal in characters, read anew on each call (the window
    // may be resized); 0 when unknown.
    static int columns();
    // Writes the text to the stream's console as the characters it is: a Windows console shows
    // bytes in its own code page, not UTF-8. False, with nothing written, where the stream is
    // no such console; it then gets the text's UTF-8 bytes.
    static bool writeToConsole(Stream stream, const QString &text);
};
