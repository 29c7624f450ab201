#include "config/loader/DeploymentIdPrefix.h"

namespace core {

namespace {
QString &storage()
{
    static QString prefix;
    return prefix;
}
} // namespace

QString DeploymentIdPrefix::value()
{
    return storage();
}

void DeploymentIdPrefix::set(const QString &prefix)
{
    storage() = prefix;
}

} // namespace core
