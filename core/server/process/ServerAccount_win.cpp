#include "core/server/process/ServerAccount.h"

#include <QProcess>

namespace core {

// Windows runs the server as a service under its own account; the tool's child
// processes simply inherit the caller's.
ServerAccount ServerAccount::current()
{
    ServerAccount account;
    account.m_valid = true;
    account.m_name = qEnvironmentVariable("USERNAME");
    return account;
}

ServerAccount ServerAccount::forInstallation(const QString &)
{
    return current();
}

ServerAccount ServerAccount::named(const QString &)
{
    return current();
}

ServerAccount ServerAccount::owning(const QString &)
{
    return current();
}

bool ServerAccount::isSuperuser() const
{
    return false;
}

void ServerAccount::applyTo(QProcess &) const { }

bool ServerAccount::handOver(const QString &) const
{
    return true;
}

} // namespace core
