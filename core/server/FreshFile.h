#pragma once

#include <QByteArray>
#include <QFileDevice>
#include <QString>

namespace core {

// A file the tool makes for the server, in a folder that another account may own. Whatever
// stands at the path (a file, or a link planted there) is removed, never followed or
// reused, and the new file is created exclusively with its permissions from the start.
class FreshFile
{
public:
    static constexpr QFileDevice::Permissions kOwnerOnly = QFileDevice::ReadOwner | QFileDevice::WriteOwner;
    static constexpr QFileDevice::Permissions kReadable = kOwnerOnly | QFileDevice::ReadGroup | QFileDevice::ReadOther;

    static bool write(const QString &path, const QByteArray &bytes, QFileDevice::Permissions permissions);
};

} // namespace core
