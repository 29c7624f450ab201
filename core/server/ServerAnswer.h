#pragma once

#include <QString>

namespace core {

// What a failed connection attempt says about waiting: a server that is still starting, or
// nothing listening yet, may answer on a later try; a server that refused the installation's
// credentials or database will refuse them on every try.
class ServerAnswer
{
public:
    // The driver's text of a failed attempt names a refusal that no retry can change.
    static bool isFinalRefusal(const QString &driverText);
};

} // namespace core
