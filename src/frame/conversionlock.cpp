#include "frame/conversionlock.h"

#include <sddl.h>

namespace nvframe {

DWORD g_conversionLockWaitMs = 30000;

namespace {

// LocalSystem and Administrators only: nobody else may open, hold or wait on it.
constexpr const wchar_t kMutexSddl[] = L"D:P(A;;GA;;;SY)(A;;GA;;;BA)";

} // namespace

CConversionLock::CConversionLock(NVTraceNS::CTraceScope& scope) noexcept
{
    PSECURITY_DESCRIPTOR sd = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(kMutexSddl, SDDL_REVISION_1, &sd, nullptr)) {
        m_hr = HRESULT_FROM_WIN32(::GetLastError());
        return;
    }
    nv::unique_hlocal sdOwner(sd);
    SECURITY_ATTRIBUTES sa{sizeof(sa), sd, FALSE};
    m_mutex.reset(::CreateMutexW(&sa, FALSE, kConversionMutexName));
    if (!m_mutex) {
        m_hr = HRESULT_FROM_WIN32(::GetLastError());
        NVTraceNS::Trace(scope, 0, "conversion lock %ls cannot be opened", kConversionMutexName);
        return;
    }
    DWORD wait = ::WaitForSingleObject(m_mutex.get(), 0);
    if (wait == WAIT_TIMEOUT) {
        m_waited = true;
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
        // Owned now; what the other holder left is in the registry's backup state.
        m_held = true;
        m_hr = S_OK;
        NVTraceNS::Trace(scope, 0, "the previous holder of the conversion lock ended without releasing it");
        break;
    case WAIT_TIMEOUT:
        m_hr = NV_E_CONVERSION_BUSY;
        NVTraceNS::Trace(scope, 0, "another conversion still holds the database after %lu ms",
                         static_cast<unsigned long>(g_conversionLockWaitMs));
        break;
    default:
        m_hr = HRESULT_FROM_WIN32(::GetLastError());
        break;
    }
}

CConversionLock::~CConversionLock()
{
    if (m_held)
        ::ReleaseMutex(m_mutex.get());
}

} // namespace nvframe
