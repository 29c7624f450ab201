#include "core/server/path/SystemPath.h"

#include "core/server/path/WindowsPathName.h"

namespace core {

bool SystemPath::sameOnWindows(const QString &one, const QString &other)
{
    return WindowsPathName::same(one, other) || WindowsPathName::same(resolved(one), resolved(other));
}

} // namespace core
