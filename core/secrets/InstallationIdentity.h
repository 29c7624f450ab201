#pragma once

#include <QString>

namespace core {

// A text that names one installation: the same on every run on this machine and folder,
// different for another machine or another installation folder.
class InstallationIdentity
{
public:
    static QString text(const QString &installationFolder);
    // Six lower-case characters of the identity text.
    static QString token(const QString &installationFolder);
};

} // namespace core
