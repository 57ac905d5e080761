#include "support/token_scope.h"

#include <gtest/gtest.h>

#include "common/handles.h"

namespace nvtest {

NonAdministratorScope::NonAdministratorScope()
{
    nv::unique_handle_null process;
    EXPECT_TRUE(::OpenProcessToken(::GetCurrentProcess(), TOKEN_ALL_ACCESS, process.put()));
    BYTE admins[SECURITY_MAX_SID_SIZE];
    DWORD cb = sizeof(admins);
    EXPECT_TRUE(::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, admins, &cb));
    SID_AND_ATTRIBUTES disable{admins, 0};
    nv::unique_handle_null restricted;
    EXPECT_TRUE(::CreateRestrictedToken(process.get(), 0, 1, &disable, 0, nullptr, 0, nullptr, restricted.put()));
    nv::unique_handle_null impersonation;
    EXPECT_TRUE(::DuplicateTokenEx(restricted.get(), TOKEN_ALL_ACCESS, nullptr, SecurityImpersonation,
                                   TokenImpersonation, impersonation.put()));
    m_active = ::SetThreadToken(nullptr, impersonation.get()) != FALSE;
    EXPECT_TRUE(m_active);
}

NonAdministratorScope::~NonAdministratorScope()
{
    if (m_active)
        ::RevertToSelf();
}

} // namespace nvtest
