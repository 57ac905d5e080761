#include "legacydb/derreader.h"

#include <cstring>
#include "common/replaceablecalls.h"
#include "common/hresult.h"
#include "common/threadslot.h"
#include "security/securitycontext.h"

namespace LegacyNVDB2 {

namespace {

// The lenient reads of this thread so far.
nv::ThreadSlot g_lenientReads;

DWORD LowBytesToDword(const BYTE* pb, DWORD cb) noexcept
{
    // Only 1 to 4 bytes make a value; longer numbers are not truncated but refused.
    // No content bytes at all is how the coder gives an unsigned 0: not a fallback.
    if (cb > 4 || (cb && !pb)) {
        CountLenientRead();
        return 0;
    }
    if (cb < 1)
        return 0;
    DWORD value = 0;
    std::memcpy(&value, pb, cb);
    return value;
}

} // namespace

void RaiseOutOfMemory() { nv::ThrowHr(E_OUTOFMEMORY); }

DWORD LenientReadCount() noexcept { return static_cast<DWORD>(g_lenientReads.GetNumber()); }

void CountLenientRead() noexcept { g_lenientReads.SetNumber(static_cast<DWORD>(g_lenientReads.GetNumber() + 1)); }

bool DecodeStruct(LPCSTR structType, DerView item, Bytes& out)
{
    out.clear();
    if (item.empty()) {
        CountLenientRead();
        return false;
    }
    DWORD cb = 0;
    if (!nv::CallCryptDecodeObject(kDerEncoding, structType, item.pb, item.cb, 0, nullptr, &cb)) {
        nv::RaiseUnlessDecodeDataError(::GetLastError());
        CountLenientRead();
        return false;
    }
    if (cb == 0) {
        CountLenientRead();
        return false;
    }
    out.resize(cb);
    if (!nv::CallCryptDecodeObject(kDerEncoding, structType, item.pb, item.cb, 0, out.data(), &cb)) {
        const DWORD err = ::GetLastError();
        out.clear();
        nv::RaiseUnlessDecodeDataError(err);
        CountLenientRead();
        return false;
    }
    return true;
}

Bytes ReadEnvelope(DerView item)
{
    Bytes buf;
    if (!DecodeStruct(X509_CERT, item, buf))
        return {};
    const auto* info = reinterpret_cast<const CERT_SIGNED_CONTENT_INFO*>(buf.data());
    return Bytes(info->ToBeSigned.pbData, info->ToBeSigned.pbData + info->ToBeSigned.cbData);
}

ItemList ReadList(DerView item)
{
    Bytes buf;
    if (!DecodeStruct(X509_SEQUENCE_OF_ANY, item, buf))
        return {};
    const auto* seq = reinterpret_cast<const CRYPT_SEQUENCE_OF_ANY*>(buf.data());
    ItemList list;
    list.reserve(seq->cValue);
    for (DWORD i = 0; i < seq->cValue; ++i)
        list.emplace_back(seq->rgValue[i].pbData, seq->rgValue[i].pbData + seq->rgValue[i].cbData);
    return list;
}

Bytes ReadOctets(DerView item)
{
    Bytes buf;
    if (!DecodeStruct(X509_OCTET_STRING, item, buf))
        return {};
    const auto* blob = reinterpret_cast<const CRYPT_DATA_BLOB*>(buf.data());
    return Bytes(blob->pbData, blob->pbData + blob->cbData);
}

DWORD ReadNumber(DerView item)
{
    Bytes buf;
    if (!DecodeStruct(X509_MULTI_BYTE_UINT, item, buf))
        return 0;
    const auto* blob = reinterpret_cast<const CRYPT_UINT_BLOB*>(buf.data());
    return LowBytesToDword(blob->pbData, blob->cbData);
}

DWORD ReadSignedNumber(DerView item)
{
    Bytes buf;
    if (!DecodeStruct(X509_MULTI_BYTE_INTEGER, item, buf))
        return 0;
    const auto* blob = reinterpret_cast<const CRYPT_INTEGER_BLOB*>(buf.data());
    return LowBytesToDword(blob->pbData, blob->cbData);
}

GUID ReadGuid(DerView item)
{
    Bytes content = ReadOctets(item);
    if (content.size() != sizeof(GUID))
        CountLenientRead();
    return nvsecurity::GuidFromNetworkBytes(content.data(), static_cast<DWORD>(content.size()));
}

FILETIME ReadTime(DerView item)
{
    Bytes buf;
    if (!DecodeStruct(X509_CHOICE_OF_TIME, item, buf))
        return FILETIME{};
    if (buf.size() < sizeof(FILETIME)) {
        CountLenientRead();
        return FILETIME{};
    }
    FILETIME ft;
    std::memcpy(&ft, buf.data(), sizeof(ft));
    return ft;
}

std::wstring ReadText(DerView item)
{
    Bytes buf;
    if (!DecodeStruct(X509_NAME_VALUE, item, buf))
        return {};
    const auto* value = reinterpret_cast<const CERT_NAME_VALUE*>(buf.data());
    const DWORD type = value->dwValueType;
    const bool accepted = (type >= CERT_RDN_NUMERIC_STRING && type <= CERT_RDN_VISIBLE_STRING) ||
                          type == CERT_RDN_BMP_STRING || type == CERT_RDN_UTF8_STRING;
    if (!accepted) {
        CountLenientRead();
        return {};
    }
    if (!value->Value.pbData)
        return {};
    // The writer stores the terminating zero inside the value; the value's own length
    // bounds the read when it does not.
    const auto* chars = reinterpret_cast<const wchar_t*>(value->Value.pbData);
    const std::size_t maxChars = value->Value.cbData / sizeof(wchar_t);
    std::size_t n = 0;
    while (n < maxChars && chars[n] != L'\0')
        ++n;
    return std::wstring(chars, n);
}

} // namespace LegacyNVDB2
