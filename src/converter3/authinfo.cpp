#include "converter3/authinfo.h"

#include <cstring>
#include <cwchar>
#include "common/hresult.h"
#include "common/storecontract.h"

namespace {

static_assert(sizeof(NV_PASSWORD_AUTH_HEADER) == CNVPasswordAuthInfo::kHeaderSize, "the header is 40 bytes");
static_assert(offsetof(NV_PASSWORD_AUTH_HEADER, first) == CNVPasswordAuthInfo::kFirstStringOffset, "first string");
static_assert(offsetof(NV_PASSWORD_AUTH_HEADER, second) == CNVPasswordAuthInfo::kSecondStringOffset, "second string");

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

    NV_PASSWORD_AUTH_HEADER header{};
    header.dwKind = dwKind;
    header.first.Length = cbFirst;
    header.first.MaximumLength = cbFirstMax;
    header.first.Buffer = reinterpret_cast<PWSTR>(pFirst);
    header.second.Length = cbSecond;
    header.second.MaximumLength = cbSecondMax;
    header.second.Buffer = reinterpret_cast<PWSTR>(pSecond);
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
