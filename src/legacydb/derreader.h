// Positional readers of the legacy database's DER trees.
//
// Every item of a user record, a seal or a secret record is found by its place in a
// SEQUENCE OF ANY and decoded with one CryptoAPI structure type. The readers are
// lenient on purpose: an item that is missing (the list is too short) or that does
// not decode gives its kind's empty value, never an error. Lenient means lenient
// about the bytes only: a coder call that fails for want of memory raises
// E_OUTOFMEMORY, any other failure that is not a verdict on the data raises its
// code, and so does a buffer that cannot be allocated. Buffers that held decoded
// data are zeroed before they are freed, since the same readers open secret records.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include <cstddef>
#include <limits>
#include <new>
#include <string>
#include <vector>

namespace LegacyNVDB2 {

// Raises E_OUTOFMEMORY as the library's COM error.
[[noreturn]] void RaiseOutOfMemory();

// Allocator that clears every block before it gives it back; a block it cannot get
// raises E_OUTOFMEMORY.
template <class T>
struct ZeroingAllocator {
    using value_type = T;
    ZeroingAllocator() noexcept = default;
    template <class U>
    ZeroingAllocator(const ZeroingAllocator<U>&) noexcept {}
    T* allocate(std::size_t n)
    {
        if (n > std::numeric_limits<std::size_t>::max() / sizeof(T))
            RaiseOutOfMemory();
        void* p = ::operator new(n * sizeof(T), std::nothrow);
        if (!p)
            RaiseOutOfMemory();
        return static_cast<T*>(p);
    }
    void deallocate(T* p, std::size_t n) noexcept
    {
        ::SecureZeroMemory(p, n * sizeof(T));
        ::operator delete(p);
    }
    template <class U>
    bool operator==(const ZeroingAllocator<U>&) const noexcept { return true; }
    template <class U>
    bool operator!=(const ZeroingAllocator<U>&) const noexcept { return false; }
};

using Bytes = std::vector<BYTE, ZeroingAllocator<BYTE>>;
using ItemList = std::vector<Bytes>;

constexpr DWORD kDerEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

// A view of encoded bytes; an empty view stands for a missing item.
struct DerView {
    const BYTE* pb = nullptr;
    DWORD cb = 0;

    DerView() noexcept = default;
    DerView(const BYTE* p, DWORD n) noexcept : pb(p), cb(n) {}
    DerView(const Bytes& b) noexcept : pb(b.data()), cb(static_cast<DWORD>(b.size())) {}
    bool empty() const noexcept { return cb == 0 || pb == nullptr; }
};

// Item i of a list, or an empty view when the list is shorter.
inline DerView ItemAt(const ItemList& list, std::size_t i) noexcept
{
    return i < list.size() ? DerView(list[i]) : DerView();
}

// Decodes with the given structure type into a zeroing buffer; false (buffer empty)
// when the item is missing or the coder refuses the bytes as data. Other failures
// of the coder are raised (see above).
bool DecodeStruct(LPCSTR structType, DerView item, Bytes& out);

// How many times the readers of this thread have fallen back to an empty value: an
// item missing or refused as data, a number of more than 4 bytes, a GUID of another
// length than 16, a text of another type. It only ever grows; the strict conversion
// policy compares it before and after reading a template or a secret.
DWORD LenientReadCount() noexcept;
// Counts one fallback taken by a reader outside this file.
void CountLenientRead() noexcept;

// X509_CERT: the to-be-signed bytes (algorithm and signature are ignored).
Bytes ReadEnvelope(DerView item);
// X509_SEQUENCE_OF_ANY: copies of the encoded items, in order.
ItemList ReadList(DerView item);
// X509_OCTET_STRING: the content bytes.
Bytes ReadOctets(DerView item);
// X509_MULTI_BYTE_UINT: 1 to 4 content bytes (least significant first); any other
// count gives 0.
DWORD ReadNumber(DerView item);
// X509_MULTI_BYTE_INTEGER: same rule, no sign extension.
DWORD ReadSignedNumber(DerView item);
// Octets of exactly 16 bytes in network byte order (the host identifier's GUID
// form); anything else the zero GUID.
GUID ReadGuid(DerView item);
// X509_CHOICE_OF_TIME.
FILETIME ReadTime(DerView item);
// X509_NAME_VALUE of the string types 3 to 9, 12 and 13, read as zero-terminated
// UTF-16 within the value's bytes; other types give the empty string.
std::wstring ReadText(DerView item);

} // namespace LegacyNVDB2
