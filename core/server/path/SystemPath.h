#pragma once

#include <QString>

namespace core {

// A path as the system itself resolves it, so that two spellings of one folder compare equal.
class SystemPath
{
public:
    // On Windows, an existing file's or folder's final path (long names for 8.3 short names,
    // links resolved); elsewhere, and for a path that does not exist, the path as given.
    static QString resolved(const QString &path);
    // Both name the same file or folder: resolved, then compared as Windows compares paths
    // (letter case, separators, "\\?\" prefixes, trailing separators).
    static bool sameOnWindows(const QString &one, const QString &other);
};

} // namespace core
