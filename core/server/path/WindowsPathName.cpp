#include "core/server/path/WindowsPathName.h"

#include <QDir>

namespace core {

namespace {
const QString kLongPrefix = QStringLiteral("//?/");
const QString kLongUncPrefix = QStringLiteral("//?/UNC/");
} // namespace

QString WindowsPathName::normal(const QString &path)
{
    QString text = QString(path).replace(QLatin1Char('\\'), QLatin1Char('/'));
    if (text.startsWith(kLongUncPrefix, Qt::CaseInsensitive))
        text = QStringLiteral("//") + text.mid(kLongUncPrefix.size());
    else if (text.startsWith(kLongPrefix))
        text = text.mid(kLongPrefix.size());
    // Drops a trailing separator too, but not a drive root's.
    return QDir::cleanPath(text);
}

bool WindowsPathName::same(const QString &one, const QString &other)
{
    return normal(one).compare(normal(other), Qt::CaseInsensitive) == 0;
}

} // namespace core
