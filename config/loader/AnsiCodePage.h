#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace config {

// The system's ANSI code page, in which Windows editors save text by default. Other systems
// have none.
class AnsiCodePage
{
public:
    // The text, when every byte sequence is a character of the code page.
    static std::optional<QString> decode(const QByteArray &bytes);
    // Characters the code page cannot hold come out as its default character.
    static QByteArray encode(const QString &text);
    // Its number, as "1252"; empty where there is none.
    static QString name();
};

} // namespace config
