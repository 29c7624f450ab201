#include "core/server/path/SystemPath.h"

namespace core {

QString SystemPath::resolved(const QString &path)
{
    return path;
}

} // namespace core
