#include "config/loader/AnsiCodePage.h"

namespace config {

std::optional<QString> AnsiCodePage::decode(const QByteArray &)
{
    return std::nullopt;
}

QByteArray AnsiCodePage::encode(const QString &text)
{
    return text.toUtf8();
}

QString AnsiCodePage::name()
{
    return QString();
}

} // namespace config
