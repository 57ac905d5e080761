// Result codes and the library's error type.
//
// Failures inside an operation are raised as _com_error carrying an HRESULT; every
// public boundary (export, COM method, converter operation) turns them back into a
// code with ResultFromCaughtException(). Nothing is thrown out of the library.
#pragma once
#include <windows.h>
#include <comdef.h>
#include <new>

namespace nv {

// A code with any facility bit set is already an HRESULT; any other non-zero code
// is a Win32 error; 0 stays success.
constexpr HRESULT HResultFromWin32(LONG code) noexcept
{
    if ((static_cast<ULONG>(code) & 0x1FFF0000u) != 0 || code == 0)
        return static_cast<HRESULT>(code);
    return static_cast<HRESULT>(0x80070000u | (static_cast<ULONG>(code) & 0xFFFFu));
}

// The result of a call that failed with this last error; a failure that set none
// is E_UNEXPECTED, never success.
constexpr HRESULT HResultFromFailedCall(DWORD lastError) noexcept
{
    return lastError ? HResultFromWin32(static_cast<LONG>(lastError)) : E_UNEXPECTED;
}

[[noreturn]] inline void ThrowHr(HRESULT hr) { throw _com_error(hr); }

inline void ThrowIfFailed(HRESULT hr)
{
    if (FAILED(hr))
        ThrowHr(hr);
}

// The raising rule for registry and system calls: a plain Win32 code other than 0
// is raised as its HRESULT; a code that already carries facility bits is raised
// only when negative, and otherwise counts as success.
inline void ThrowIfWin32Failed(LONG code)
{
    if (code == 0)
        return;
    if ((static_cast<ULONG>(code) & 0x1FFF0000u) != 0) {
        if (code < 0)
            ThrowHr(static_cast<HRESULT>(code));
        return;
    }
    ThrowHr(HResultFromWin32(code));
}

// For calls that report through GetLastError (CryptoAPI and friends).
// Every form of memory shortage is raised as E_OUTOFMEMORY.
[[noreturn]] inline void ThrowLastError()
{
    DWORD err = GetLastError();
    if (err == ERROR_NOT_ENOUGH_MEMORY || err == static_cast<DWORD>(HResultFromWin32(ERROR_NOT_ENOUGH_MEMORY)))
        ThrowHr(E_OUTOFMEMORY);
    ThrowHr(err == 0 ? E_FAIL : HResultFromWin32(static_cast<LONG>(err)));
}

inline void ThrowLastErrorIf(bool failed)
{
    if (failed)
        ThrowLastError();
}

// Call inside a catch block: the COM error gives its code, anything else E_UNEXPECTED.
inline HRESULT ResultFromCaughtException() noexcept
{
    try {
        throw;
    } catch (const _com_error& e) {
        return e.Error();
    } catch (...) {
        return E_UNEXPECTED;
    }
}

// The boundary helper: runs body (which returns an HRESULT) and maps whatever it
// throws to a result code.
template <class Body>
HRESULT Guarded(Body&& body) noexcept
{
    try {
        return body();
    } catch (...) {
        return ResultFromCaughtException();
    }
}

// Memory shortage, in one place. Inside the library it is the _com_error
// E_OUTOFMEMORY (ThrowLastError raises every Win32 form of it so). Code that
// allocates through the standard library raises std::bad_alloc instead; where such
// a shortage must reach the caller as E_OUTOFMEMORY, not as Guarded's E_UNEXPECTED,
// the work runs inside RaiseBadAllocAsOutOfMemory.
template <class Body>
auto RaiseBadAllocAsOutOfMemory(Body&& body) -> decltype(body())
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        ThrowHr(E_OUTOFMEMORY);
    }
}

// Guarded for a step whose caller must not go on when memory is short: runs body
// and maps what it throws to a result code as Guarded does, except a memory shortage
// (E_OUTOFMEMORY, or std::bad_alloc from the standard library, which Guarded would
// make E_UNEXPECTED), which runs beforeRaising (the step's own record of it) and is
// raised on as E_OUTOFMEMORY.
template <class Body, class BeforeRaising>
HRESULT GuardedUnlessOutOfMemory(Body&& body, BeforeRaising&& beforeRaising)
{
    try {
        return body();
    } catch (const _com_error& e) {
        if (e.Error() == E_OUTOFMEMORY) {
            beforeRaising();
            throw;
        }
        return e.Error();
    } catch (const std::bad_alloc&) {
        beforeRaising();
        ThrowHr(E_OUTOFMEMORY);
    } catch (...) {
        return ResultFromCaughtException();
    }
}

// The best-effort helper, beside Guarded: for side work whose failure changes
// nothing else (a trace header, a record entry, a probe of a path). Runs body and
// gives fallback for whatever it throws.
template <class Body, class T>
auto BestEffort(Body&& body, T fallback) noexcept -> decltype(body())
{
    try {
        return body();
    } catch (...) {
        return fallback;
    }
}

template <class Body>
void BestEffort(Body&& body) noexcept
{
    try {
        body();
    } catch (...) {
    }
}

} // namespace nv
