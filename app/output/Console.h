#pragma once

#include <QString>

// The tool's console lines, written as UTF-8 and flushed one by one.
namespace Console {
void out(const QString &line);
void err(const QString &line);
// Without a line end: used for a caught exception's message.
void errRaw(const QString &text);
} // namespace Console
