#pragma once

#include <QString>

// The tool's console lines, written as UTF-8 and flushed one by one. On a terminal, a status
// line may stand below them on standard error, redrawn in place; every line written clears it
// first.
namespace Console {
void out(const QString &line);
void err(const QString &line);
// Without a line end: used for a caught exception's message.
void errRaw(const QString &text);
// Draws the status line in place of the previous one; an empty text clears it.
void status(const QString &text);
} // namespace Console
