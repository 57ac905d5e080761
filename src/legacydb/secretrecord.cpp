#include "legacydb/secretrecord.h"

#include <algorithm>
#include <string>
#include "common/cryptblob.h"
#include "common/hresult.h"
#include "legacydb/derreader.h"
#include "security/securitycontext.h"

namespace LegacyNVDB2 {

namespace {

void CopyName(const std::wstring& name, WCHAR (&out)[kSecretNameMax + 1]) noexcept
{
    const size_t n = std::min(name.size(), kSecretNameMax);
    std::copy_n(name.data(), n, out);
    out[n] = L'\0';
}

void ParseSecretList(DerView encoded, CNVSecret& secret)
{
    NV_SECRET_INFO& info = secret.m_info;
    const ItemList items = ReadList(encoded);

    const ItemList header = ReadList(ItemAt(items, 0));
    info.header.guidObject = ReadGuid(ItemAt(header, 0));
    info.header.dwTypeCode = ReadNumber(ItemAt(header, 1));
    info.header.dwValue = ReadNumber(ItemAt(header, 2));
    info.header.dwReserved = 0;

    if (info.header.dwTypeCode == kSecretTypeCode) {
        info.guidSecret = ReadGuid(ItemAt(items, 1));
        CopyName(ReadText(ItemAt(items, 2)), info.wszName);
    } else {
        const ItemList older = ReadList(ItemAt(items, 1));
        CopyName(ReadText(ItemAt(older, 1)), info.wszName);
        info.guidSecret = ReadGuid(ItemAt(older, 2));
        info.header.dwTypeCode = kSecretTypeCode;
    }

    const Bytes content = ReadOctets(ItemAt(items, 3));
    if (content.empty())
        secret.m_content.Free();
    else
        secret.m_content.Assign(content.data(), static_cast<DWORD>(content.size()));
}

} // namespace

HRESULT DecodeSecretField(INVExportImportExt* pImporter, const CRYPT_DATA_BLOB& field, CNVSecret& secret)
{
    nv::CCoTaskCryptBlob plain;
    DerView encoded(field.pbData, field.cbData);
    if (pImporter) {
        nv::ThrowIfFailed(pImporter->Import(&field, plain.put(), nullptr, nullptr));
        encoded = DerView(plain.pbData, plain.cbData);
    }

    secret.m_info = NV_SECRET_INFO{};
    secret.m_info.header.dwTypeCode = kSecretTypeCode;
    secret.m_content.Free();

    const ItemList top = ReadList(encoded);
    if (top.size() >= 2) {
        ParseSecretList(encoded, secret);
        return S_OK;
    }
    if (top.size() == 1)
        ParseSecretList(DerView(top[0]), secret);
    return S_FALSE;
}

} // namespace LegacyNVDB2
