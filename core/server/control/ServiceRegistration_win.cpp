#include "core/server/control/ServiceRegistration.h"

#include <QString>
#include <QtGlobal>

#include <windows.h>

#include <memory>
#include <vector>

namespace core {

namespace {
struct ServiceHandleCloser {
    void operator()(SC_HANDLE handle) const { CloseServiceHandle(handle); }
};
using ServiceHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, ServiceHandleCloser>;

QString systemError(DWORD code)
{
    return QStringLiteral("%1 (error %2)").arg(qt_error_string(static_cast<int>(code))).arg(code);
}
} // namespace

ServiceRegistration ServiceRegistration::of(const QString &serviceName)
{
    ServiceRegistration registration;
    const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    const ServiceHandle service(manager
            ? OpenServiceW(manager.get(), reinterpret_cast<const wchar_t *>(serviceName.utf16()), SERVICE_QUERY_CONFIG)
            : nullptr);
    if (!service) {
        const DWORD code = GetLastError();
        if (code == ERROR_SERVICE_DOES_NOT_EXIST)
            return registration;
        registration.state = State::Unreadable;
        registration.error = systemError(code);
        return registration;
    }
    DWORD size = 0;
    QueryServiceConfigW(service.get(), nullptr, 0, &size);
    std::vector<unsigned char> buffer(size);
    auto *config = reinterpret_cast<QUERY_SERVICE_CONFIGW *>(buffer.data());
    if (size == 0 || !QueryServiceConfigW(service.get(), config, size, &size)) {
        registration.state = State::Unreadable;
        registration.error = systemError(GetLastError());
        return registration;
    }
    registration.state = State::Registered;
    registration.commandLine = QString::fromWCharArray(config->lpBinaryPathName);
    return registration;
}

} // namespace core
