// CConversionLock: one conversion at a time on a machine.
//
// The database format has no lock; two processes converting one database at once
// would each back it up, move users and delete old keys under the other, and a
// store's key generation can replace a key the other already sealed secrets with.
// So Convert, Rollback and Cleanup hold a machine-wide named mutex for their length.
// A caller that finds it held waits up to g_conversionLockWaitMs and then fails
// with NV_E_CONVERSION_BUSY, having changed nothing. The mutex is owned per thread
// and counts recursion, so the Rollback or Cleanup that Convert runs itself takes
// it again at no cost. A holder that ended without releasing it (a killed process)
// leaves it abandoned: the next caller owns it and goes on, as the backup state in
// the registry is what recovery works from.
//
// The mutex is created with a DACL for LocalSystem and Administrators only; a name
// someone else created first and did not let us open fails with
// HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED).
#pragma once
#include <windows.h>
#include "common/handles.h"
#include "trace/trace.h"

namespace nvframe {

inline constexpr const wchar_t kConversionMutexName[] = L"Global\\NVDBConv.Conversion";
// What a caller gets when another conversion holds the lock for the whole wait, or
// when the database it was loaded for changed while it waited.
inline constexpr HRESULT NV_E_CONVERSION_BUSY = HRESULT_FROM_WIN32(ERROR_BUSY);
// The wait; long enough for another process's Rollback or Cleanup, far shorter than
// a whole conversion. Unit tests shorten it; the library exports nothing of it.
extern DWORD g_conversionLockWaitMs;

class CConversionLock {
public:
    // Takes the lock, tracing into the operation's scope when it has to wait.
    explicit CConversionLock(NVTraceNS::CTraceScope& scope) noexcept;
    ~CConversionLock();
    CConversionLock(const CConversionLock&) = delete;
    CConversionLock& operator=(const CConversionLock&) = delete;

    // S_OK when held; NV_E_CONVERSION_BUSY or the open's failure otherwise.
    HRESULT Result() const noexcept { return m_hr; }
    // True when another thread or process held the lock as this one asked for it.
    bool Waited() const noexcept { return m_waited; }

private:
    nv::unique_handle_null m_mutex;
    HRESULT m_hr = E_FAIL;
    bool m_held = false;
    bool m_waited = false;
};

} // namespace nvframe
