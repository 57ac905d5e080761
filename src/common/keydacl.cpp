#include "common/keydacl.h"

#include <aclapi.h>
#include <sddl.h>
#include <vector>

#include "common/handles.h"
#include "common/hresult.h"

namespace nv {

WellKnownSid::WellKnownSid(WELL_KNOWN_SID_TYPE type)
{
    DWORD cb = sizeof(m_buffer);
    ThrowLastErrorIf(!::CreateWellKnownSid(type, nullptr, m_buffer, &cb));
}

HRESULT SetProtectedKeyDacl(HKEY key, ACCESS_MASK usersMask)
{
    WellKnownSid system(WinLocalSystemSid);
    WellKnownSid admins(WinBuiltinAdministratorsSid);
    WellKnownSid users(WinBuiltinUsersSid);
    struct Entry {
        PSID sid;
        ACCESS_MASK mask;
    } entries[] = {
        {system.get(), KEY_ALL_ACCESS},
        {admins.get(), KEY_ALL_ACCESS},
        {users.get(), usersMask},
    };

    DWORD cbAcl = sizeof(ACL);
    for (const Entry& e : entries) {
        if (e.mask != 0)
            cbAcl += sizeof(ACCESS_ALLOWED_ACE) - sizeof(DWORD) + ::GetLengthSid(e.sid);
    }
    std::vector<BYTE> aclBuffer(cbAcl);
    PACL acl = reinterpret_cast<PACL>(aclBuffer.data());
    ThrowLastErrorIf(!::InitializeAcl(acl, cbAcl, ACL_REVISION));
    for (const Entry& e : entries) {
        if (e.mask == 0)
            continue;
        ThrowLastErrorIf(
            !::AddAccessAllowedAceEx(acl, ACL_REVISION, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE, e.mask, e.sid));
    }
    DWORD r = ::SetSecurityInfo(key, SE_REGISTRY_KEY, DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                                nullptr, nullptr, acl, nullptr);
    return r == ERROR_SUCCESS ? S_OK : S_FALSE;
}

PSECURITY_DESCRIPTOR NewAdministratorsOnlyKeySecurity() noexcept
{
    PSECURITY_DESCRIPTOR sd = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;OICI;KA;;;SY)(A;OICI;KA;;;BA)",
                                                                SDDL_REVISION_1, &sd, nullptr))
        return nullptr;
    return sd;
}

HRESULT ProtectKeyForAdministrators(HKEY root, const wchar_t* path, REGSAM view) noexcept
{
    return Guarded([&]() -> HRESULT {
        // A key this makes has the list from its first moment; one that was there
        // gets it set.
        unique_hlocal security(NewAdministratorsOnlyKeySecurity());
        if (!security)
            ThrowHr(E_OUTOFMEMORY);
        SECURITY_ATTRIBUTES sa{sizeof(sa), security.get(), FALSE};
        unique_hkey key;
        ThrowIfWin32Failed(::RegCreateKeyExW(root, path, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                             READ_CONTROL | WRITE_DAC | view, &sa, key.put(), nullptr));
        return SetProtectedKeyDacl(key.get(), 0);
    });
}

} // namespace nv
