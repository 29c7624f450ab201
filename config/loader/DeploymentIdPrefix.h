#pragma once

#include <QString>

namespace core {

// The configured deployment-id prefix, set once per process by the entry point and read
// by the parts of the library that build deployment identifiers.
class DeploymentIdPrefix
{
public:
    static QString value();
    static void set(const QString &prefix);
};

} // namespace core
