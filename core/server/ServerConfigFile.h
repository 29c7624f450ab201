#pragma once

#include <QString>

namespace core {

// postgresql.conf as the product writes it: the compiled-in template with its
// placeholders filled in.
class ServerConfigFile
{
public:
    static constexpr const char *kTemplateResource = ":/postgres.tpl";
    static constexpr int kMaxConnections = 100;

    struct Values {
        QString sharedMemoryType;
        QString dataDirectory;
        QString installDirectory;
        QString timeZone;
        int port = 0;
    };

    // Empty when the resource cannot be opened.
    static QString readTemplate(bool *ok = nullptr);
    static QString render(const QString &templateText, const Values &values);
    // The IANA identifier of the host's zone; "UTC" where the system names none.
    static QString systemTimeZone();
    static QString outputPath(const QString &dataDirectory);
    // Replaces the file (never writing through a link) with the text in the server's encoding.
    static bool write(const QString &path, const QByteArray &text);
};

} // namespace core
