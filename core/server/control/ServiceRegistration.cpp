#include "core/server/control/ServiceRegistration.h"

#include <QRegularExpression>

namespace core {

QString ServiceRegistration::dataFolderIn(const QString &commandLine)
{
    // pg_ctl registers "<pg_ctl>" runservice -N "<name>" -D "<data folder>" [more options].
    static const QRegularExpression dataFolder(QStringLiteral(R"re((?:^|\s)-D\s+(?:"([^"]*)"|(\S+)))re"));
    const QRegularExpressionMatch match = dataFolder.match(commandLine);
    return match.hasMatch() ? match.captured(1) + match.captured(2) : QString();
}

} // namespace core
