// NonAdministratorScope: the calling thread impersonates the process's own token with
// Administrators turned into a deny-only group, a caller that is neither LocalSystem
// nor an administrator, until the scope ends.
#pragma once
#include <windows.h>

namespace nvtest {

class NonAdministratorScope {
public:
    NonAdministratorScope();
    ~NonAdministratorScope();
    NonAdministratorScope(const NonAdministratorScope&) = delete;
    NonAdministratorScope& operator=(const NonAdministratorScope&) = delete;

private:
    bool m_active = false;
};

} // namespace nvtest
