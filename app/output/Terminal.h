#pragma once

#include <QString>

// Whether standard error is an operator's terminal (a Windows console) rather than a file or
// a pipe: only there is a line redrawn in place.
class Terminal
{
public:
    enum class Stream { Output, Error };

    static bool standardErrorIsTerminal();
    // Writes the text to the stream's console as the characters it is: a Windows console shows
    // bytes in its own code page, not UTF-8. False, with nothing written, where the stream is
    // no such console; it then gets the text's UTF-8 bytes.
    static bool writeToConsole(Stream stream, const QString &text);
};
