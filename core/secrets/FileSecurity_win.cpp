#include "core/secrets/FileSecurity.h"

#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <array>
#include <vector>

namespace core {

namespace {
constexpr DWORD kDescribed = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;

struct HandleCloser {
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};

std::vector<unsigned char> wellKnownSid(WELL_KNOWN_SID_TYPE type)
{
    std::vector<unsigned char> sid(SECURITY_MAX_SID_SIZE);
    DWORD size = static_cast<DWORD>(sid.size());
    if (!CreateWellKnownSid(type, nullptr, sid.data(), &size))
        return {};
    sid.resize(size);
    return sid;
}

// The account this process runs as, from its token.
std::vector<unsigned char> tokenUser()
{
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
        return {};
    const std::unique_ptr<void, HandleCloser> owner(token);
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    std::vector<unsigned char> buffer(size);
    if (size == 0 || !GetTokenInformation(token, TokenUser, buffer.data(), size, &size))
        return {};
    const PSID sid = reinterpret_cast<TOKEN_USER *>(buffer.data())->User.Sid;
    const auto *bytes = static_cast<const unsigned char *>(sid);
    return std::vector<unsigned char>(bytes, bytes + GetLengthSid(sid));
}
} // namespace

void FileSecurity::LocalFreeDeleter::operator()(void *memory) const
{
    LocalFree(memory);
}

FileSecurity FileSecurity::ownerOnly()
{
    FileSecurity security;
    std::array<std::vector<unsigned char>, 3> sids
        = {wellKnownSid(WinLocalSystemSid), wellKnownSid(WinBuiltinAdministratorsSid), tokenUser()};
    std::array<EXPLICIT_ACCESS_W, 3> entries = {};
    for (size_t i = 0; i < sids.size(); ++i) {
        if (sids[i].empty())
            return security;
        entries[i].grfAccessPermissions = FILE_ALL_ACCESS;
        entries[i].grfAccessMode = SET_ACCESS;
        entries[i].grfInheritance = NO_INHERITANCE;
        entries[i].Trustee.TrusteeForm = TRUSTEE_IS_SID;
        entries[i].Trustee.ptstrName = reinterpret_cast<LPWSTR>(sids[i].data());
    }
    PACL acl = nullptr;
    if (SetEntriesInAclW(static_cast<ULONG>(entries.size()), entries.data(), nullptr, &acl) != ERROR_SUCCESS)
        return security;
    const std::unique_ptr<void, LocalFreeDeleter> aclOwner(acl);
    SECURITY_DESCRIPTOR absolute;
    if (!InitializeSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION)
        || !SetSecurityDescriptorDacl(&absolute, TRUE, acl, FALSE)
        || !SetSecurityDescriptorControl(&absolute, SE_DACL_PROTECTED, SE_DACL_PROTECTED))
        return security;
    DWORD size = 0;
    MakeSelfRelativeSD(&absolute, nullptr, &size);
    std::unique_ptr<void, LocalFreeDeleter> relative(LocalAlloc(LPTR, size));
    if (relative && MakeSelfRelativeSD(&absolute, relative.get(), &size))
        security.m_descriptor = std::move(relative);
    return security;
}

FileSecurity FileSecurity::of(const QString &path)
{
    FileSecurity security;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (GetNamedSecurityInfoW(reinterpret_cast<const wchar_t *>(path.utf16()), SE_FILE_OBJECT, kDescribed, nullptr,
            nullptr, nullptr, nullptr, &descriptor)
        == ERROR_SUCCESS)
        security.m_descriptor.reset(descriptor);
    return security;
}

// SetFileSecurityW rather than SetNamedSecurityInfoW: the descriptor is complete as it stands,
// and Wine applies only the former to its files.
bool FileSecurity::applyTo(const QString &path) const
{
    if (!isValid())
        return false;
    const auto *name = reinterpret_cast<const wchar_t *>(path.utf16());
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    GetSecurityDescriptorControl(m_descriptor.get(), &control, &revision);
    const DWORD dacl = DACL_SECURITY_INFORMATION
        | ((control & SE_DACL_PROTECTED) ? PROTECTED_DACL_SECURITY_INFORMATION : UNPROTECTED_DACL_SECURITY_INFORMATION);
    PSID owner = nullptr;
    BOOL defaulted = FALSE;
    // Only an administrator may give a file to another account, and only with the privilege
    // enabled; otherwise the file stays the tool's account's.
    if (GetSecurityDescriptorOwner(m_descriptor.get(), &owner, &defaulted) && owner
        && SetFileSecurityW(name, dacl | OWNER_SECURITY_INFORMATION, m_descriptor.get()))
        return true;
    return SetFileSecurityW(name, dacl, m_descriptor.get());
}

bool FileSecurity::readableByEveryone() const
{
    if (!isValid())
        return false;
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    PACL acl = nullptr;
    if (!GetSecurityDescriptorDacl(m_descriptor.get(), &present, &acl, &defaulted))
        return false;
    if (!present || !acl)
        return true;
    std::array<std::vector<unsigned char>, 3> everyone
        = {wellKnownSid(WinWorldSid), wellKnownSid(WinAuthenticatedUserSid), wellKnownSid(WinBuiltinUsersSid)};
    constexpr ACCESS_MASK kReading = FILE_READ_DATA | GENERIC_READ | GENERIC_ALL;
    // Entries apply in order: a denial before an allowance wins for its group.
    std::array<bool, 3> denied = {};
    for (DWORD i = 0; i < acl->AceCount; ++i) {
        void *entry = nullptr;
        if (!GetAce(acl, i, &entry))
            continue;
        const auto *header = static_cast<const ACE_HEADER *>(entry);
        if ((header->AceFlags & INHERIT_ONLY_ACE) != 0)
            continue;
        // Allowed and denied entries share their layout: header, mask, then the SID.
        auto *ace = static_cast<ACCESS_ALLOWED_ACE *>(entry);
        if ((ace->Mask & kReading) == 0)
            continue;
        for (size_t group = 0; group < everyone.size(); ++group) {
            if (everyone[group].empty() || !EqualSid(&ace->SidStart, everyone[group].data()))
                continue;
            if (header->AceType == ACCESS_DENIED_ACE_TYPE)
                denied[group] = true;
            else if (header->AceType == ACCESS_ALLOWED_ACE_TYPE && !denied[group])
                return true;
        }
    }
    return false;
}

QString FileSecurity::text() const
{
    LPWSTR sddl = nullptr;
    if (!isValid()
        || !ConvertSecurityDescriptorToStringSecurityDescriptorW(
            m_descriptor.get(), SDDL_REVISION_1, kDescribed, &sddl, nullptr))
        return QString();
    const std::unique_ptr<void, LocalFreeDeleter> owner(sddl);
    return QString::fromWCharArray(sddl);
}

} // namespace core
