#pragma once

#include <QString>

#include <optional>

namespace core {

// Texts of a connection as the server must receive them. Qt's PostgreSQL driver hands its whole
// connection string to libpq in the local 8-bit encoding (on Windows the ANSI code page), while
// the server compares names and checks passwords on their UTF-8 bytes.
class ConnectionText
{
public:
    // The text that the driver's local 8-bit conversion turns into exactly the UTF-8 bytes of
    // text; none when the local code page cannot carry those bytes through.
    static std::optional<QString> forDriver(const QString &text);
    // The connection option that makes the server talk UTF-8 from the first message on, whatever
    // PGCLIENTENCODING says.
    static QString clientEncodingOption();
};

} // namespace core
