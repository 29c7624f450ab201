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
    text = QDir::cleanPath(text);
    // A drive's root keeps its separator.
    if (text.size() > 3 && text.endsWith(QLatin1Char('/')))
        text.chop(1);
    return text;
}

bool WindowsPathName::same(const QString &one, const QString &other)
{
    return normal(one).compare(normal(other), Qt::CaseInsensitive) == 0;
}

} // namespace core
