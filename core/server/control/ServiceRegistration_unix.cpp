#include "core/server/control/ServiceRegistration.h"

namespace core {

ServiceRegistration ServiceRegistration::of(const QString &)
{
    return ServiceRegistration();
}

} // namespace core
