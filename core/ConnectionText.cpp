#include "core/ConnectionText.h"

namespace core {

std::optional<QString> ConnectionText::forDriver(const QString &text)
{
    const QByteArray utf8 = text.toUtf8();
    const QString carried = QString::fromLocal8Bit(utf8);
    if (carried.toLocal8Bit() != utf8)
        return std::nullopt;
    return carried;
}

QString ConnectionText::clientEncodingOption()
{
    return QStringLiteral("client_encoding=UTF8");
}

} // namespace core
