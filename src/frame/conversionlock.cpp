#include "frame/conversionlock.h"

#include <aclapi.h>
#include <sddl.h>
#include <vector>

namespace nvframe {

DWORD g_conversionLockWaitMs = 30000;

namespace {

// LocalSystem and Administrators only: nobody else may open, hold or wait on it.
constexpr const wchar_t kMutexSddl[] = L"D:P(A;;GA;;;SY)(A;;GA;;;BA)";

bool IsWellKnown(PSID sid, WELL_KNOWN_SID_TYPE type) noexcept
{
    BYTE buffer[SECURITY_MAX_SID_SIZE];
    DWORD cb = sizeof(buffer);
    return ::CreateWellKnownSid(type, nullptr, buffer, &cb) && ::EqualSid(sid, buffer);
}

// One SID of the process's token (its user, or the owner it gives new objects).
std::vector<BYTE> TokenSid(HANDLE token, TOKEN_INFORMATION_CLASS cls) noexcept
{
    try {
        DWORD cb = 0;
        ::GetTokenInformation(token, cls, nullptr, 0, &cb);
        std::vector<BYTE> info(cb);
        if (cb == 0 || !::GetTokenInformation(token, cls, info.data(), cb, &cb))
            return {};
        return info;
    } catch (...) {
        return {};
    }
}

// The owner of the lock someone made before us is one we trust: LocalSystem,
// Administrators, or this process's own account, as its user or as the owner its
// token gives new objects (Wine gives them the primary group, not Administrators).
bool OwnerIsTrusted(HANDLE mutex) noexcept
{
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR sd = nullptr;
    if (::GetSecurityInfo(mutex, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr, nullptr,
                          &sd) != ERROR_SUCCESS)
        return false;
    nv::unique_hlocal sdOwner(sd);
    nv::unique_handle_null token;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.put()))
        return false;
    const std::vector<BYTE> user = TokenSid(token.get(), TokenUser);
    const std::vector<BYTE> defaultOwner = TokenSid(token.get(), TokenOwner);
    PSID userSid = user.empty() ? nullptr : reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid;
    PSID ownerSid = defaultOwner.empty() ? nullptr : reinterpret_cast<const TOKEN_OWNER*>(defaultOwner.data())->Owner;
    return IsTrustedLockOwner(owner, userSid) || IsTrustedLockOwner(owner, ownerSid);
}

} // namespace

bool IsTrustedLockOwner(PSID owner, PSID self) noexcept
{
    if (!owner || !::IsValidSid(owner))
        return false;
    return IsWellKnown(owner, WinLocalSystemSid) || IsWellKnown(owner, WinBuiltinAdministratorsSid) ||
           (self && ::IsValidSid(self) && ::EqualSid(owner, self));
}

CConversionLock::CConversionLock(NVTraceNS::CTraceScope& scope, unsigned& depth) noexcept : m_depth(depth)
{
    m_outermost = m_depth == 0;
    if (m_outermost)
        Take(scope);
    else
        m_hr = S_OK;
    if (SUCCEEDED(m_hr)) {
        ++m_depth;
        m_counted = true;
    }
}

void CConversionLock::Take(NVTraceNS::CTraceScope& scope) noexcept
{
    PSECURITY_DESCRIPTOR sd = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(kMutexSddl, SDDL_REVISION_1, &sd, nullptr)) {
        const DWORD error = ::GetLastError();
        m_hr = error ? HRESULT_FROM_WIN32(error) : E_UNEXPECTED;
        return;
    }
    nv::unique_hlocal sdOwner(sd);
    SECURITY_ATTRIBUTES sa{sizeof(sa), sd, FALSE};
    m_mutex.reset(::CreateMutexW(&sa, FALSE, kConversionMutexName));
    const DWORD created = ::GetLastError();
    if (!m_mutex) {
        if (created == ERROR_ACCESS_DENIED) {
            // Made by an account that keeps us out: not a lock of ours.
            NVTraceNS::Trace(scope, 0, "conversion lock %ls belongs to another account: going on without it",
                             kConversionMutexName);
            m_hr = S_OK;
            return;
        }
        m_hr = created ? HRESULT_FROM_WIN32(created) : E_UNEXPECTED;
        NVTraceNS::Trace(scope, 0, "conversion lock %ls cannot be opened", kConversionMutexName);
        return;
    }
    if (created == ERROR_ALREADY_EXISTS && !OwnerIsTrusted(m_mutex.get())) {
        NVTraceNS::Trace(scope, 0, "conversion lock %ls belongs to another account: going on without it",
                         kConversionMutexName);
        m_mutex.reset();
        m_hr = S_OK;
        return;
    }
    DWORD wait = ::WaitForSingleObject(m_mutex.get(), 0);
    if (wait == WAIT_TIMEOUT) {
        NVTraceNS::Trace(scope, 0, "waiting up to %lu ms for another conversion to end",
                         static_cast<unsigned long>(g_conversionLockWaitMs));
        wait = ::WaitForSingleObject(m_mutex.get(), g_conversionLockWaitMs);
    }
    switch (wait) {
    case WAIT_OBJECT_0:
        m_held = true;
        m_hr = S_OK;
        break;
    case WAIT_ABANDONED:
        m_held = true;
        m_hr = S_OK;
        NVTraceNS::Trace(scope, 0, "the previous holder of the conversion lock ended without releasing it");
        break;
    case WAIT_TIMEOUT:
        m_hr = NV_E_CONVERSION_BUSY;
        NVTraceNS::Trace(scope, 0, "another conversion still holds the database after %lu ms",
                         static_cast<unsigned long>(g_conversionLockWaitMs));
        break;
    default: {
        const DWORD error = ::GetLastError();
        m_hr = error ? HRESULT_FROM_WIN32(error) : E_UNEXPECTED;
        break;
    }
    }
}

CConversionLock::~CConversionLock()
{
    if (m_counted)
        --m_depth;
    if (m_held)
        ::ReleaseMutex(m_mutex.get());
}

} // namespace nvframe
