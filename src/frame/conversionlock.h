// CConversionLock: one conversion at a time on a machine.
//
// The database format has no lock; two processes converting one database at once
// would each back it up, move users and delete old keys under the other, and a
// store's key generation can replace a key the other already sealed secrets with.
// So Convert, Rollback and Cleanup hold a machine-wide named mutex for their length.
// A caller that finds it held waits up to g_conversionLockWaitMs and then fails
// with NV_E_CONVERSION_BUSY, having changed nothing. A holder that ended without
// releasing it (a killed process) leaves it abandoned: the next caller owns it and
// goes on.
//
// The converter counts the locks it holds and on which thread: the Rollback or
// Cleanup that Convert runs itself on that thread only counts, with no system call
// that could fail between a finished conversion and its clean-up. Another thread of
// the same process takes the mutex, and so waits for the first.
//
// The mutex is created with a DACL for LocalSystem and Administrators only. Any
// account may create a mutex of that name first; one whose owner is not LocalSystem,
// Administrators or this process's own account, or that does not let an administrator
// or LocalSystem open it, is not ours: the operation goes on without the lock (traced)
// rather than let another account stall every installer. A caller without admin rights
// that may not open the mutex fails with E_ACCESSDENIED; an owner that cannot be read
// fails the operation with that error.
#pragma once
#include <windows.h>
#include <nvdbconv/nvdbconv.h>
#include "common/handles.h"
#include "trace/trace.h"

namespace nvframe {

inline constexpr const wchar_t kConversionMutexName[] = L"Global\\NVDBConv.Conversion";
// What a caller gets when another conversion holds the lock for the whole wait, or
// when the database it was loaded for changed before it got the lock (the SDK
// header's code).
using ::NV_E_CONVERSION_BUSY;
static_assert(NV_E_CONVERSION_BUSY == HRESULT_FROM_WIN32(ERROR_BUSY), "the busy code is the system's ERROR_BUSY");
// The wait; long enough for another process's Rollback or Cleanup, far shorter than
// a whole conversion. Unit tests shorten it; the library exports nothing of it.
extern DWORD g_conversionLockWaitMs;

// Whether a conversion lock found already made, whose owner is this SID, is one a
// trusted caller made: LocalSystem, Administrators, or the account this process
// runs as (self).
bool IsTrustedLockOwner(PSID owner, PSID self) noexcept;

// The locks one converter holds: how many, and on which thread.
struct LockCount {
    unsigned depth = 0;
    DWORD thread = 0;
};

class CConversionLock {
public:
    // count: the converter's; the lock counts itself in it while it lives, and only
    // the outermost one on a thread takes the mutex.
    CConversionLock(NVTraceNS::CTraceScope& scope, LockCount& count) noexcept;
    ~CConversionLock();
    CConversionLock(const CConversionLock&) = delete;
    CConversionLock& operator=(const CConversionLock&) = delete;

    // S_OK when the operation may go on; NV_E_CONVERSION_BUSY or the failure otherwise.
    HRESULT Result() const noexcept { return m_hr; }
    // True for the operation's own lock, false for one nested in another operation.
    bool Outermost() const noexcept { return m_outermost; }

private:
    void Take(NVTraceNS::CTraceScope& scope) noexcept;

    LockCount& m_count;
    nv::unique_handle_null m_mutex;
    HRESULT m_hr = E_UNEXPECTED;
    bool m_counted = false;
    bool m_outermost = false;
    bool m_held = false;
};

} // namespace nvframe
