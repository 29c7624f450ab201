#include "config/loader/AnsiCodePage.h"

#include <windows.h>

#include <climits>
#include <vector>

namespace config {

std::optional<QString> AnsiCodePage::decode(const QByteArray &bytes)
{
    if (bytes.isEmpty())
        return QString();
    if (bytes.size() > INT_MAX)
        return std::nullopt;
    const int size = static_cast<int>(bytes.size());
    const int length = MultiByteToWideChar(CP_ACP, MB_ERR_INVALID_CHARS, bytes.constData(), size, nullptr, 0);
    if (length <= 0)
        return std::nullopt;
    std::vector<wchar_t> text(static_cast<size_t>(length));
    if (MultiByteToWideChar(CP_ACP, MB_ERR_INVALID_CHARS, bytes.constData(), size, text.data(), length) != length)
        return std::nullopt;
    return QString::fromWCharArray(text.data(), length);
}

QByteArray AnsiCodePage::encode(const QString &text)
{
    // Qt's local 8-bit encoding is the ANSI code page on Windows.
    return text.toLocal8Bit();
}

QString AnsiCodePage::name()
{
    return QString::number(GetACP());
}

} // namespace config
