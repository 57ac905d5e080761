#include "frame/conversionlock.h"

#include <aclapi.h>
#include <sddl.h>
#include <vector>

#include "common/hresult.h"
#include "common/keysecurity.h"

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
    return nv::BestEffort(
        [&]() -> std::vector<BYTE> {
            DWORD cb = 0;
            ::GetTokenInformation(token, cls, nullptr, 0, &cb);
            std::vector<BYTE> info(cb);
            if (cb == 0 || !::GetTokenInformation(token, cls, info.data(), cb, &cb))
                return {};
            return info;
        },
        std::vector<BYTE>());
}

// Whether the owner of the lock someone made before us is one we trust: LocalSystem,
// Administrators, or this process's own account, as its user or as the owner its
// token gives new objects (Wine gives them the primary group, not Administrators).
// S_OK trusted, S_FALSE not; a failure to read it is that failure.
HRESULT OwnerIsTrusted(HANDLE mutex) noexcept
{
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR sd = nullptr;
    const DWORD r = ::GetSecurityInfo(mutex, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr,
                                      nullptr, &sd);
    if (r != ERROR_SUCCESS)
        return nv::HResultFromWin32(static_cast<LONG>(r));
    nv::unique_hlocal sdOwner(sd);
    nv::unique_handle_null token;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.put())) {
        const DWORD error = ::GetLastError();
        return nv::HResultFromFailedCall(error);
    }
    const std::vector<BYTE> user = TokenSid(token.get(), TokenUser);
    const std::vector<BYTE> defaultOwner = TokenSid(token.get(), TokenOwner);
    if (user.empty() || defaultOwner.empty())
        return E_UNEXPECTED;
    PSID userSid = reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid;
    PSID ownerSid = reinterpret_cast<const TOKEN_OWNER*>(defaultOwner.data())->Owner;
    return IsTrustedLockOwner(owner, userSid) || IsTrustedLockOwner(owner, ownerSid) ? S_OK : S_FALSE;
}

// Whether the caller may go on when the mutex someone made keeps it out: only
// LocalSystem or an administrator, whom a lock of ours would have let in.
bool CallerIsPrivileged() noexcept
{
    return nv::BestEffort([] { return nv::TokenIsSystemOrAdministrator(); }, false);
}

} // namespace

bool IsTrustedLockOwner(PSID owner, PSID self) noexcept
{
    if (!owner || !::IsValidSid(owner))
        return false;
    return IsWellKnown(owner, WinLocalSystemSid) || IsWellKnown(owner, WinBuiltinAdministratorsSid) ||
           (self && ::IsValidSid(self) && ::EqualSid(owner, self));
}

CConversionLock::CConversionLock(NVTraceNS::CTraceScope& scope, LockCount& count) noexcept : m_count(count)
{
    const DWORD thread = ::GetCurrentThreadId();
    // Nested only on the thread that holds the outer lock; another thread of this
    // process takes the mutex, which makes it wait for the first.
    m_outermost = m_count.depth == 0 || m_count.thread != thread;
    if (m_outermost)
        Take(scope);
    else
        m_hr = S_OK;
    // Another thread that got the mutex after the first let go finds the count at 0.
    if (SUCCEEDED(m_hr) && (m_count.depth == 0 || m_count.thread == thread)) {
        m_count.thread = thread;
        ++m_count.depth;
        m_counted = true;
    }
}

void CConversionLock::Take(NVTraceNS::CTraceScope& scope) noexcept
{
    PSECURITY_DESCRIPTOR sd = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(kMutexSddl, SDDL_REVISION_1, &sd, nullptr)) {
        const DWORD error = ::GetLastError();
        m_hr = nv::HResultFromFailedCall(error);
        return;
    }
    nv::unique_hlocal sdOwner(sd);
    SECURITY_ATTRIBUTES sa{sizeof(sa), sd, FALSE};
    m_mutex.reset(::CreateMutexW(&sa, FALSE, kConversionMutexName));
    const DWORD created = ::GetLastError();
    if (!m_mutex) {
        if (created == ERROR_ACCESS_DENIED) {
            if (!CallerIsPrivileged()) {
                // Ours keeps out whoever is not an administrator.
                m_hr = E_ACCESSDENIED;
                NVTraceNS::Trace(scope, 0, "conversion lock %ls cannot be opened", kConversionMutexName);
                return;
            }
            // Made by an account that keeps administrators out: not a lock of ours.
            NVTraceNS::Trace(scope, 0, "conversion lock %ls belongs to another account: going on without it",
                             kConversionMutexName);
            m_hr = S_OK;
            return;
        }
        m_hr = nv::HResultFromFailedCall(created);
        NVTraceNS::Trace(scope, 0, "conversion lock %ls cannot be opened", kConversionMutexName);
        return;
    }
    if (created == ERROR_ALREADY_EXISTS) {
        const HRESULT trusted = OwnerIsTrusted(m_mutex.get());
        if (FAILED(trusted)) {
            m_hr = trusted;
            NVTraceNS::Trace(scope, 0, "the owner of conversion lock %ls cannot be read", kConversionMutexName);
            return;
        }
        if (trusted == S_FALSE) {
            NVTraceNS::Trace(scope, 0, "conversion lock %ls belongs to another account: going on without it",
                             kConversionMutexName);
            m_mutex.reset();
            m_hr = S_OK;
            return;
        }
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
        m_hr = nv::HResultFromFailedCall(error);
        break;
    }
    }
}

CConversionLock::~CConversionLock()
{
    if (m_counted)
        --m_count.depth;
    if (m_held)
        ::ReleaseMutex(m_mutex.get());
}

} // namespace nvframe
