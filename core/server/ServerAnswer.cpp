#include "core/server/ServerAnswer.h"

#include <QStringList>

namespace core {

bool ServerAnswer::isFinalRefusal(const QString &driverText)
{
    // libpq's and the server's own words (SQLSTATE classes 28 and 3D); a connection that
    // fails gives no error code to go by.
    static const QStringList refusals = {
        QStringLiteral("authentication failed"),
        QStringLiteral("no pg_hba.conf entry"),
        QStringLiteral("no password supplied"),
        QStringLiteral("is not permitted to log in"),
        QStringLiteral("does not exist"),
    };
    for (const QString &refusal : refusals) {
        if (driverText.contains(refusal, Qt::CaseInsensitive))
            return true;
    }
    return false;
}

} // namespace core
