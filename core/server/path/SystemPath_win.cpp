#include "core/server/path/SystemPath.h"

#include <windows.h>

#include <memory>
#include <type_traits>
#include <vector>

namespace core {

namespace {
struct HandleCloser {
    void operator()(HANDLE handle) const
    {
        if (handle != INVALID_HANDLE_VALUE)
            CloseHandle(handle);
    }
};
using FileHandle = std::unique_ptr<std::remove_pointer_t<HANDLE>, HandleCloser>;

const wchar_t *wide(const QString &text)
{
    return reinterpret_cast<const wchar_t *>(text.utf16());
}

// Asks twice: once for the size, once for the text.
template <typename Query> QString askSystem(Query query)
{
    const DWORD size = query(nullptr, 0);
    if (size == 0)
        return QString();
    std::vector<wchar_t> buffer(size + 1);
    const DWORD written = query(buffer.data(), static_cast<DWORD>(buffer.size()));
    if (written == 0 || written >= buffer.size())
        return QString();
    return QString::fromWCharArray(buffer.data(), static_cast<int>(written));
}

QString finalPath(const QString &path)
{
    // Opening a folder needs backup semantics; no access is asked for, only its name.
    const FileHandle file(CreateFileW(wide(path), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
        OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (file.get() == INVALID_HANDLE_VALUE)
        return QString();
    return askSystem([&file](wchar_t *buffer, DWORD size) {
        return GetFinalPathNameByHandleW(file.get(), buffer, size, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    });
}

QString longPath(const QString &path)
{
    return askSystem([&path](wchar_t *buffer, DWORD size) { return GetLongPathNameW(wide(path), buffer, size); });
}
} // namespace

QString SystemPath::resolved(const QString &path)
{
    const QString native = QString(path).replace(QLatin1Char('/'), QLatin1Char('\\'));
    const QString final = finalPath(native);
    if (!final.isEmpty())
        return final;
    const QString longName = longPath(native);
    return longName.isEmpty() ? path : longName;
}

} // namespace core
