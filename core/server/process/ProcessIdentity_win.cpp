#include "core/server/process/ProcessIdentity.h"

#include <windows.h>

#include <memory>
#include <type_traits>

namespace core {

namespace {
struct HandleCloser {
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using ProcessHandle = std::unique_ptr<std::remove_pointer_t<HANDLE>, HandleCloser>;

// FILETIME counts 100 ns steps from 1601-01-01.
constexpr qint64 kFileTimeStepsPerMs = 10000;
constexpr qint64 kFileTimeToUnixEpochMs = 11644473600000;

QDateTime fromFileTime(const FILETIME &time)
{
    const qint64 steps = (static_cast<qint64>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    return QDateTime::fromMSecsSinceEpoch(steps / kFileTimeStepsPerMs - kFileTimeToUnixEpochMs, Qt::UTC);
}
} // namespace

ProcessIdentity ProcessIdentity::of(qint64 pid)
{
    ProcessIdentity identity;
    if (pid <= 0)
        return identity;
    const ProcessHandle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(pid)));
    if (!process) {
        if (GetLastError() == ERROR_ACCESS_DENIED)
            identity.state = State::Hidden;
        return identity;
    }
    // A handle outlives its process: the id is free again once the process has ended.
    DWORD exitCode = 0;
    if (GetExitCodeProcess(process.get(), &exitCode) && exitCode != STILL_ACTIVE)
        return identity;
    wchar_t path[MAX_PATH] = {};
    DWORD size = MAX_PATH;
    FILETIME created = {};
    FILETIME exited = {};
    FILETIME kernel = {};
    FILETIME user = {};
    if (!QueryFullProcessImageNameW(process.get(), 0, path, &size)
        || !GetProcessTimes(process.get(), &created, &exited, &kernel, &user)) {
        identity.state = State::Hidden;
        return identity;
    }
    identity.state = State::Alive;
    identity.image = QString::fromWCharArray(path, static_cast<int>(size));
    identity.created = fromFileTime(created);
    return identity;
}

} // namespace core
