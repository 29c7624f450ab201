#include "app/sql/SqlLiteral.h"

QString SqlLiteral::of(const QString &text)
{
    return QLatin1Char('\'') + QString(text).replace(QLatin1Char('\''), QStringLiteral("''")) + QLatin1Char('\'');
}
