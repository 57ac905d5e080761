// CCryptBlob: owner of a CryptoAPI blob pair (byte count, data pointer), in one form
// per allocator: the process heap (CCryptBlob) and the COM task allocator
// (CCoTaskCryptBlob, for blobs handed to or received from COM callers).
//
// The blob frees its data on destruction and on every re-assignment. Because blobs
// carry secrets as often as not, the data is always zeroed before it is freed.
// The object derives from the blob pair, so it can be passed where a
// CRYPT_DATA_BLOB* is expected; its only virtual operation is the destructor.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include <objbase.h>
#include <cstddef>

namespace nv {

struct HeapBlobAllocator {
    static void* Alloc(size_t cb) noexcept { return ::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, cb ? cb : 1); }
    static void Free(void* p) noexcept { ::HeapFree(::GetProcessHeap(), 0, p); }
};

struct CoTaskBlobAllocator {
    static void* Alloc(size_t cb) noexcept
    {
        void* p = ::CoTaskMemAlloc(cb ? cb : 1);
        if (p)
            ::ZeroMemory(p, cb ? cb : 1);
        return p;
    }
    static void Free(void* p) noexcept { ::CoTaskMemFree(p); }
};

template <class Allocator>
class CCryptBlobT : public CRYPT_DATA_BLOB {
public:
    CCryptBlobT() noexcept
    {
        cbData = 0;
        pbData = nullptr;
    }
    CCryptBlobT(const BYTE* data, DWORD cb) : CCryptBlobT() { Assign(data, cb); }
    CCryptBlobT(const CCryptBlobT& other) : CCryptBlobT() { Assign(other.pbData, other.cbData); }
    CCryptBlobT(CCryptBlobT&& other) noexcept : CCryptBlobT() { Swap(other); }
    CCryptBlobT& operator=(const CCryptBlobT& other)
    {
        if (this != &other)
            Assign(other.pbData, other.cbData);
        return *this;
    }
    CCryptBlobT& operator=(CCryptBlobT&& other) noexcept
    {
        if (this != &other) {
            Free();
            Swap(other);
        }
        return *this;
    }
    virtual ~CCryptBlobT() { Free(); }

    // Replaces the content by a zero-filled block of cb bytes; raises E_OUTOFMEMORY.
    BYTE* Allocate(DWORD cb);
    // Replaces the content by a copy of the given bytes; raises E_OUTOFMEMORY.
    void Assign(const BYTE* data, DWORD cb);
    // Takes ownership of a block that this allocator made.
    void Attach(BYTE* data, DWORD cb) noexcept
    {
        Free();
        pbData = data;
        cbData = cb;
    }
    BYTE* Detach() noexcept
    {
        BYTE* p = pbData;
        pbData = nullptr;
        cbData = 0;
        return p;
    }
    void Free() noexcept
    {
        if (pbData) {
            ::SecureZeroMemory(pbData, cbData);
            Allocator::Free(pbData);
        }
        pbData = nullptr;
        cbData = 0;
    }
    bool IsEmpty() const noexcept { return cbData == 0 || pbData == nullptr; }
    void Swap(CCryptBlobT& other) noexcept
    {
        CRYPT_DATA_BLOB t = *this;
        static_cast<CRYPT_DATA_BLOB&>(*this) = other;
        static_cast<CRYPT_DATA_BLOB&>(other) = t;
    }
    // Out-parameter access for calls that allocate with this allocator.
    CRYPT_DATA_BLOB* put() noexcept
    {
        Free();
        return this;
    }
};

using CCryptBlob = CCryptBlobT<HeapBlobAllocator>;
using CCoTaskCryptBlob = CCryptBlobT<CoTaskBlobAllocator>;

extern template class CCryptBlobT<HeapBlobAllocator>;
extern template class CCryptBlobT<CoTaskBlobAllocator>;

} // namespace nv
