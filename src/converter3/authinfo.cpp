#include "converter3/authinfo.h"

#include <cstring>
#include <cwchar>
#include "common/hresult.h"

namespace {

// One counted string of the header: the x64 layout of a counted Unicode string.
#pragma pack(push, 1)
struct AUTH_STRING {
    USHORT Length;
    USHORT MaximumLength;
    DWORD Reserved;
    UINT64 Buffer;
};
struct AUTH_HEADER {
    DWORD Kind;
    DWORD Reserved;
    AUTH_STRING First;
    AUTH_STRING Second;
};
#pragma pack(pop)
static_assert(sizeof(AUTH_HEADER) == CNVPasswordAuthInfo::kHeaderSize, "the header is 40 bytes");
static_assert(offsetof(AUTH_HEADER, First) == CNVPasswordAuthInfo::kFirstStringOffset, "first string field");
static_assert(offsetof(AUTH_HEADER, Second) == CNVPasswordAuthInfo::kSecondStringOffset, "second string field");

USHORT ByteLength(const wchar_t* s)
{
    size_t cch = s ? std::wcslen(s) : 0;
    // The maximum length (length + 2) must fit 16 bits too.
    if (cch * sizeof(wchar_t) + sizeof(wchar_t) > 0xFFFF)
        nv::ThrowHr(E_INVALIDARG);
    return static_cast<USHORT>(cch * sizeof(wchar_t));
}

} // namespace

CNVPasswordAuthInfo::CNVPasswordAuthInfo(DWORD dwKind, const wchar_t* wszFirst, const wchar_t* wszSecond)
{
    const USHORT cbFirst = ByteLength(wszFirst);
    const USHORT cbSecond = ByteLength(wszSecond);
    const USHORT cbFirstMax = static_cast<USHORT>(cbFirst + sizeof(wchar_t));
    const USHORT cbSecondMax = static_cast<USHORT>(cbSecond + sizeof(wchar_t));
    const DWORD cb = kHeaderSize + cbFirstMax + cbSecondMax;

    BYTE* p = static_cast<BYTE*>(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, cb));
    if (!p)
        nv::ThrowHr(E_OUTOFMEMORY);
    m_pbBlock = p;
    m_cbBlock = cb;

    BYTE* pFirst = p + kHeaderSize;
    BYTE* pSecond = pFirst + cbFirstMax;
    if (cbFirst)
        std::memcpy(pFirst, wszFirst, cbFirst);
    if (cbSecond)
        std::memcpy(pSecond, wszSecond, cbSecond);

    AUTH_HEADER header{};
    header.Kind = dwKind;
    header.First.Length = cbFirst;
    header.First.MaximumLength = cbFirstMax;
    header.First.Buffer = reinterpret_cast<UINT_PTR>(pFirst);
    header.Second.Length = cbSecond;
    header.Second.MaximumLength = cbSecondMax;
    header.Second.Buffer = reinterpret_cast<UINT_PTR>(pSecond);
    std::memcpy(p, &header, sizeof(header));
}

CNVPasswordAuthInfo::~CNVPasswordAuthInfo()
{
    if (m_pbBlock) {
        ::SecureZeroMemory(m_pbBlock, m_cbBlock);
        ::HeapFree(::GetProcessHeap(), 0, m_pbBlock);
    }
}

void CNVPasswordAuthInfo::Encode(nv::CCryptBlob& blob) const
{
    blob.Assign(m_pbBlock, m_cbBlock);
}
