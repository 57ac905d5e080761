#include "common/keysecurity.h"

#include <aclapi.h>
#include <vector>

#include "common/conversionscope.h"
#include "common/handles.h"
#include "common/hresult.h"

namespace nv {

namespace {

class WellKnownSid {
public:
    explicit WellKnownSid(WELL_KNOWN_SID_TYPE type)
    {
        DWORD cb = sizeof(m_buffer);
        ThrowLastErrorIf(!::CreateWellKnownSid(type, nullptr, m_buffer, &cb));
    }
    PSID get() noexcept { return m_buffer; }

private:
    alignas(void*) BYTE m_buffer[SECURITY_MAX_SID_SIZE];
};

unique_handle_null OpenEffectiveToken()
{
    unique_handle_null token;
    if (::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, TRUE, token.put()))
        return token;
    if (::GetLastError() != ERROR_NO_TOKEN)
        ThrowLastError();
    ThrowLastErrorIf(!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.put()));
    return token;
}

std::vector<BYTE> QueryTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS cls)
{
    DWORD cb = 0;
    ::GetTokenInformation(token, cls, nullptr, 0, &cb);
    if (cb == 0)
        ThrowLastError();
    std::vector<BYTE> info(cb);
    ThrowLastErrorIf(!::GetTokenInformation(token, cls, info.data(), cb, &cb));
    return info;
}

} // namespace

bool CallerIsSystemOrAdministrator()
{
    bool privileged = false;
    if (CConversionScope::FindPrivilege(&privileged))
        return privileged;
    privileged = TokenIsSystemOrAdministrator();
    CConversionScope::RememberPrivilege(privileged);
    return privileged;
}

bool TokenIsSystemOrAdministrator()
{
    unique_handle_null token = OpenEffectiveToken();
    WellKnownSid system(WinLocalSystemSid);
    WellKnownSid admins(WinBuiltinAdministratorsSid);

    std::vector<BYTE> user = QueryTokenInformation(token.get(), TokenUser);
    if (::EqualSid(reinterpret_cast<TOKEN_USER*>(user.data())->User.Sid, system.get()))
        return true;

    std::vector<BYTE> groupsInfo = QueryTokenInformation(token.get(), TokenGroups);
    const auto* groups = reinterpret_cast<const TOKEN_GROUPS*>(groupsInfo.data());
    for (DWORD i = 0; i < groups->GroupCount; ++i) {
        const SID_AND_ATTRIBUTES& g = groups->Groups[i];
        if ((g.Attributes & SE_GROUP_USE_FOR_DENY_ONLY) == 0 && ::EqualSid(g.Sid, admins.get()))
            return true;
    }
    return false;
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

} // namespace nv
