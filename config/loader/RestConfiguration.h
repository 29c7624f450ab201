#pragma once

#include <QHostAddress>
#include <QString>

namespace config {

// What the REST front end and its web server need to know of the configuration.
class RestConfiguration
{
public:
    virtual ~RestConfiguration() = default;

    virtual QHostAddress restAddress() const = 0;
    virtual quint16 restPort() const = 0;
    virtual QString restSocketPath() const = 0;
    virtual QString nginxPrefix() const = 0;
    virtual QString nginxLibraryPath() const = 0;
    virtual QString restRuntimeDirectory() const = 0;
    virtual QString includedRestConfig() const = 0;
    virtual QString staticContentDirectory() const = 0;
    // Replaces the marker "%INCLUDED_CONFIG_LOCATION%" in a web server configuration text.
    virtual QString fillIncludedConfigLocation(const QString &text) const = 0;
    virtual bool nginxLogRotation() const = 0;
    virtual QString webServerFolder() const = 0;
};

} // namespace config
