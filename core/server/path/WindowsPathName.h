#pragma once

#include <QString>

namespace core {

// Windows paths as text, wherever they are handled: either separator, any letter case, a
// trailing separator or the "\\?\" prefix of long paths all name the same file.
class WindowsPathName
{
public:
    // The path with '/' separators, without the "\\?\" (or "\\?\UNC\") prefix, "." and ".."
    // resolved and no trailing separator.
    static QString normal(const QString &path);
    static bool same(const QString &one, const QString &other);
};

} // namespace core
