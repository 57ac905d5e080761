#include "common/keysecurity.h"

#include <vector>

#include "common/conversionscope.h"
#include "common/handles.h"
#include "common/hresult.h"

namespace nv {

namespace {

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

HRESULT GrantFullAccess(HKEY hKey, ACCESS_MASK usersMask)
{
    return Guarded([&]() -> HRESULT {
        if (!CallerIsSystemOrAdministrator())
            return S_OK;
        // S_FALSE when the DACL cannot be set: the delete is tried anyway.
        return SetProtectedKeyDacl(hKey, usersMask);
    });
}

} // namespace nv
