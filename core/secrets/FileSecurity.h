#pragma once

#include <QString>

#include <memory>

namespace core {

// A file's owner and DACL as Windows keeps them: a self-relative security descriptor.
class FileSecurity
{
public:
    // Full access for SYSTEM, the Administrators group and the account that runs the tool, and
    // for nobody else; nothing inherited from the folder.
    static FileSecurity ownerOnly();
    // What the file has now; invalid when it cannot be read.
    static FileSecurity of(const QString &path);

    bool isValid() const { return static_cast<bool>(m_descriptor); }
    // Sets the DACL, protected from inheritance if it was, and the owner where this account
    // may give the file to it.
    bool applyTo(const QString &path) const;
    // No DACL at all, or an entry that lets Everyone, Authenticated Users or Users read.
    bool readableByEveryone() const;
    // The descriptor in Windows' own notation (SDDL).
    QString text() const;

private:
    struct LocalFreeDeleter {
        void operator()(void *memory) const;
    };

    std::unique_ptr<void, LocalFreeDeleter> m_descriptor;
};

} // namespace core
