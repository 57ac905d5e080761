// What the store's COM objects share: the module's object count, the one lock every
// operation runs under, and the copies they hand to callers (task-allocated blobs,
// BSTRs) with the checks of what callers hand in.
#pragma once
#include <windows.h>
#include <objbase.h>
#include <atomic>
#include <cstring>
#include <mutex>
#include <string>

#include "common/hresult.h"
#include "storecounters.h"

namespace nvstore {

// Objects and server locks alive in this module (DllCanUnloadNow).
extern std::atomic<long> g_moduleCount;

// The process-wide lock of the store's operations.
std::mutex& StoreLock();

// One operation: under the store lock, with failures turned into result codes.
template <class Body>
HRESULT Locked(Body&& body) noexcept
{
    COperationTimer timer;
    return nv::Guarded([&]() -> HRESULT {
        std::lock_guard<std::mutex> guard(StoreLock());
        return body();
    });
}

// A task-allocated copy for the caller; empty data gives the empty blob.
struct TaskBlob {
    BYTE* p = nullptr;
    DWORD cb = 0;
    TaskBlob() = default;
    TaskBlob(const BYTE* data, size_t n)
    {
        if (n == 0)
            return;
        p = static_cast<BYTE*>(::CoTaskMemAlloc(n));
        if (!p)
            nv::ThrowHr(E_OUTOFMEMORY);
        std::memcpy(p, data, n);
        cb = static_cast<DWORD>(n);
    }
    TaskBlob(const TaskBlob&) = delete;
    TaskBlob& operator=(const TaskBlob&) = delete;
    ~TaskBlob()
    {
        if (p) {
            ::SecureZeroMemory(p, cb);
            ::CoTaskMemFree(p);
        }
    }
    void HandOut(CRYPT_DATA_BLOB* out) noexcept
    {
        out->cbData = cb;
        out->pbData = p;
        p = nullptr;
        cb = 0;
    }
};

// A BSTR copy of the text for the caller.
BSTR AllocBstr(const std::wstring& s);
// An input blob: present, with data whenever it has a size.
void CheckInBlob(const CRYPT_DATA_BLOB* p);

} // namespace nvstore
