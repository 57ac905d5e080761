#include "legacydb/userextractor.h"

#include <algorithm>

#include <sddl.h>
#include <cstring>
#include <memory>
#include <new>
#include <vector>
#include "common/replaceablecalls.h"
#include "common/handles.h"
#include "common/hresult.h"
#include "common/regkey.h"
#include "legacydb/derreader.h"
#include "legacydb/hostname.h"
#include "legacydb/regset.h"
#include "legacydb/secretrecord.h"
#include "legacydb/sidtext.h"
#include "security/securitycontext.h"
#include "trace/trace.h"

namespace LegacyNVDB2 {

namespace {

constexpr REGSAM kReadMask = KEY_READ | KEY_WOW64_32KEY; // 0x20219
constexpr const wchar_t kHostKeySuffix[] = L"\\NVHOST";
constexpr const wchar_t kUsersKeySuffix[] = L"\\DB\\Data\\Users";
constexpr const wchar_t kAccountsKeySuffix[] = L"\\DB\\Policy\\Accounts\\";
constexpr const wchar_t kAccountControlValue[] = L"ActCtrl";
constexpr const wchar_t kAccountControlField[] = L"AccountControl";
constexpr DWORD kKeyNameChars = 256;

// A path of at most MAX_PATH - 1 characters, as the fixed buffers of the format hold.
std::wstring BoundedPath(std::wstring path)
{
    if (path.size() >= MAX_PATH)
        path.resize(MAX_PATH - 1);
    return path;
}

void ReadTemplateItem(DerView item, CNVTemplate& tmpl)
{
    tmpl.Clear();
    const DWORD lenientBefore = LenientReadCount();
    const Bytes content = ReadOctets(item);
    const ItemList parts = ReadList(DerView(content));
    const ItemList header = ReadList(ItemAt(parts, 0));
    const ItemList info = ReadList(ItemAt(header, 0));

    BI_DATAOBJECT_INFO dataObject{};
    dataObject.dwFormat = ReadNumber(ItemAt(info, 0));
    dataObject.dwFlags = ReadNumber(ItemAt(info, 1));
    dataObject.guidType = ReadGuid(ItemAt(info, 2));
    dataObject.guidOwner = ReadGuid(ItemAt(info, 3));
    dataObject.dwSize = ReadNumber(ItemAt(info, 4));
    LONG headerValue = 0;
    if (header.size() >= 2)
        headerValue = static_cast<LONG>(ReadSignedNumber(ItemAt(header, 1)));
    else
        CountLenientRead();

    std::memcpy(&tmpl.m_header.info, &dataObject, sizeof(dataObject));
    tmpl.m_header.lHeaderValue = headerValue;
    if (parts.size() >= 2) {
        const Bytes data = ReadOctets(ItemAt(parts, 1));
        tmpl.m_data.assign(data.begin(), data.end());
    } else {
        CountLenientRead();
    }
    // Also five data-object fields, no more: a longer list is not this format.
    if (info.size() != 5)
        CountLenientRead();
    tmpl.m_bLenient = LenientReadCount() != lenientBefore;
}

} // namespace

CLocalDBUserExtractor::CLocalDBUserExtractor() noexcept
{
    NVTraceNS::CTraceScope scope("CLocalDBUserExtractor::CLocalDBUserExtractor", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        const std::wstring hostPath = BoundedPath(std::wstring(nv::kVendorKeyPath) + kHostKeySuffix);
        nv::CNVRegKey key;
        nv::ThrowIfWin32Failed(key.Open(HKEY_LOCAL_MACHINE, hostPath.c_str(), kReadMask));

        DWORD type = REG_NONE, cb = 0;
        nv::ThrowIfWin32Failed(nv::CallRegQueryValueExW(key, nvsecurity::kHostIdValue, &type, nullptr, &cb));
        Bytes value(cb);
        if (cb) {
            DWORD cbRead = cb;
            nv::ThrowIfWin32Failed(nv::CallRegQueryValueExW(key, nvsecurity::kHostIdValue, &type, value.data(), &cbRead));
            value.resize(cbRead);
        }
        if (type != REG_BINARY)
            value.clear();
        if (cb == 0)
            NVTraceNS::Trace(scope, 0, "HostId value is empty");

        const GUID hostId = nvsecurity::GuidFromNetworkBytes(value.data(), static_cast<DWORD>(value.size()));
        wchar_t container[nvsecurity::kContainerNameChars] = {};
        nvsecurity::FormatContainerName(hostId, container);
        nv::ThrowLastErrorIf(!::CryptAcquireContextW(m_provider.put(), container, nvsecurity::kProviderName,
                                                     PROV_RSA_FULL, CRYPT_MACHINE_KEYSET));
        return S_OK;
    });
    NVTraceNS::TraceReturn(scope, hr);
}

CLocalDBUserExtractor::~CLocalDBUserExtractor()
{
    m_templates.clear();
}

void CLocalDBUserExtractor::UnsealUser(const BYTE* pbValue, DWORD cbValue, NV_USER_RECORD* pUser)
{
    nv::unique_hcryptkey exchangeKey;
    nv::ThrowLastErrorIf(!::CryptGetUserKey(m_provider.get(), AT_KEYEXCHANGE, exchangeKey.put()));

    DWORD version = 0;
    Bytes payload;
    if (cbValue >= sizeof(kSealMagic) && std::memcmp(pbValue, kSealMagic, sizeof(kSealMagic)) == 0) {
        const ItemList seal = ReadList(DerView(pbValue + sizeof(kSealMagic), cbValue - sizeof(kSealMagic)));
        if (seal.size() == 2) {
            version = ReadNumber(ItemAt(seal, 0));
            payload = ReadOctets(ItemAt(seal, 1));
        }
    }
    if (version != kSealVersion)
        nv::ThrowHr(NTE_BAD_DATA);

    const ItemList sealed = ReadList(DerView(payload));
    const Bytes keyBlob = ReadOctets(ItemAt(sealed, 0));
    Bytes blob = ReadOctets(ItemAt(sealed, 1));

    nv::unique_hcryptkey sessionKey;
    nv::ThrowLastErrorIf(!::CryptImportKey(m_provider.get(), keyBlob.data(), static_cast<DWORD>(keyBlob.size()),
                                           exchangeKey.get(), CRYPT_EXPORTABLE, sessionKey.put()));
    DWORD cbBlob = static_cast<DWORD>(blob.size());
    nv::ThrowLastErrorIf(!::CryptDecrypt(sessionKey.get(), 0, TRUE, 0, blob.data(), &cbBlob));
    blob.resize(cbBlob);

    // The parser is lenient about the bytes; a failure it reports is a shortage
    // (memory) that would leave the user half read, so it ends the enumeration.
    nv::ThrowIfFailed(ParseUserBlob(cbBlob, blob.data(), pUser));
}

HRESULT CLocalDBUserExtractor::EnumerateUsers(NV_USER_RECORD** ppUsers, DWORD* pdwCount)
{
    NVTraceNS::CTraceScope scope("CLocalDBUserExtractor::EnumerateUsers", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        *pdwCount = 0;
        const std::wstring usersPath = BoundedPath(std::wstring(nv::kVendorKeyPath) + kUsersKeySuffix);
        nv::CNVRegKey users;
        nv::ThrowIfWin32Failed(users.Open(HKEY_LOCAL_MACHINE, usersPath.c_str(), kReadMask));

        wchar_t name[kKeyNameChars];
        DWORD count = 0;
        for (;; ++count) {
            DWORD cch = kKeyNameChars;
            LONG r = ::RegEnumKeyExW(users, count, name, &cch, nullptr, nullptr, nullptr, nullptr);
            if (r == ERROR_NO_MORE_ITEMS)
                break;
            nv::ThrowIfWin32Failed(r);
        }

        auto* records = static_cast<NV_USER_RECORD*>(::LocalAlloc(LMEM_ZEROINIT, count * sizeof(NV_USER_RECORD)));
        if (!records)
            nv::ThrowHr(E_OUTOFMEMORY);
        *ppUsers = records;
        *pdwCount = count;

        m_templates.clear();
        m_droppedTemplates.clear();

        for (DWORD i = 0; i < count; ++i) {
            DWORD cch = kKeyNameChars;
            LONG r = ::RegEnumKeyExW(users, i, name, &cch, nullptr, nullptr, nullptr, nullptr);
            if (r == ERROR_NO_MORE_ITEMS)
                break;
            nv::ThrowIfWin32Failed(r);

            nv::CNVRegKey user;
            r = user.Open(users, name, kReadMask);
            if (r != ERROR_SUCCESS) {
                NVTraceNS::Trace(scope, 0, "cannot open key: <%ls>", name);
                NVTraceNS::TraceResult(scope, "", nv::HResultFromWin32(r));
                continue;
            }

            Bytes value;
            r = nv::QueryBinaryValue(user, nullptr, value);
            if (r != ERROR_SUCCESS) {
                NVTraceNS::Trace(scope, 0, "cannot get data from key: <%ls>", name);
                NVTraceNS::TraceResult(scope, "", nv::HResultFromWin32(r));
                continue;
            }

            UnsealUser(value.data(), static_cast<DWORD>(value.size()), &records[i]);
        }
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CLocalDBUserExtractor::ParseUserBlob(DWORD cbBlob, const BYTE* pbBlob, NV_USER_RECORD* pUser)
{
    NVTraceNS::CTraceScope scope("CLocalDBUserExtractor::ParseUserBlob", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        // Memory shortage inside the parser is reported as the COM error it stands for.
        nv::RaiseBadAllocAsOutOfMemory([&]() {
            const Bytes signedContent = ReadEnvelope(DerView(pbBlob, cbBlob));
            const ItemList outer = ReadList(DerView(signedContent));
            const Bytes userContent = ReadOctets(ItemAt(outer, 0));
            const ItemList user = ReadList(DerView(userContent));

            const DerView headerView = ItemAt(user, 0);
            CRYPT_DER_BLOB header{headerView.cb, const_cast<BYTE*>(headerView.pb)};
            nv::ThrowIfFailed(GetAccountControl(&header, pUser, &pUser->pSid, &pUser->dwAccountControl));

            const DWORD entries = ReadNumber(ItemAt(user, 1));
            NVTraceNS::Trace(scope, 0, "# of template types: %d", static_cast<int>(entries));

            size_t p = 2;
            for (DWORD i = 0; i < entries; ++i) {
                // Past the end every item reads empty: credential id 0, nothing to do.
                if (p >= user.size())
                    break;
                const DWORD credentialId = ReadNumber(ItemAt(user, p));
                const DWORD mask = ReadNumber(ItemAt(user, p + 1));
                p += 2;
                // Entries of other kinds carry no template items; nothing is skipped
                // for them, so the next entry starts right after this mask.
                if (credentialId != kFingerprintCredentialId)
                    continue;

                NVTraceNS::Trace(scope, 0, "template type %d, cred id: %d, fingerprint", static_cast<int>(i),
                                 static_cast<int>(credentialId));
                pUser->dwTemplateMask = mask;

                CNVTemplateVector list;
                for (int bit = 0; bit < 32; ++bit) {
                    if (!(mask & (1u << bit)))
                        continue;
                    auto tmpl = std::make_shared<CNVTemplate>();
                    ReadTemplateItem(ItemAt(user, p), *tmpl);
                    ++p;
                    list.push_back(std::move(tmpl));
                }
                // The first list stored under a SID stays.
                const std::wstring sidText = SidToText(pUser->pSid);
                if (!m_templates.emplace(sidText, std::move(list)).second)
                    m_droppedTemplates.insert(sidText);
            }
        });
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CLocalDBUserExtractor::GetAccountControl(const CRYPT_DER_BLOB* pHeader, NV_USER_RECORD* pUser, PSID* ppSid,
                                                 DWORD* pdwAccountControl)
{
    NVTraceNS::CTraceScope scope("CLocalDBUserExtractor::GetAccountControl", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        if (!pHeader)
            nv::ThrowHr(E_INVALIDARG);

        const ItemList header = ReadList(DerView(pHeader->pbData, pHeader->cbData));
        (void)ReadGuid(ItemAt(header, 0));
        const GUID guidUser = ReadGuid(ItemAt(header, 1));
        (void)ReadTime(ItemAt(header, 2));
        (void)ReadTime(ItemAt(header, 3));
        (void)ReadTime(ItemAt(header, 4));
        (void)ReadText(ItemAt(header, 5));
        const std::wstring sidText = ReadText(ItemAt(header, 6));
        (void)ReadNumber(ItemAt(header, 7));
        (void)ReadNumber(ItemAt(header, 8));

        *pdwAccountControl = 0;
        {
            // Any failure here only leaves the account control at 0.
            const std::wstring policyPath =
                BoundedPath(std::wstring(nv::kVendorKeyPath) + kAccountsKeySuffix + sidText);
            nv::CNVRegKey policy;
            DWORD value = 0;
            if (policy.Open(HKEY_LOCAL_MACHINE, policyPath.c_str(), kReadMask) == ERROR_SUCCESS &&
                nv::QueryDwordValue(policy, kAccountControlValue, &value) == ERROR_SUCCESS)
                *pdwAccountControl = value;
        }

        pUser->guidUser = guidUser;
        if (*ppSid) {
            ::LocalFree(*ppSid);
            *ppSid = nullptr;
        }
        // An invalid text leaves the SID null. Wine turns the empty text into S-1-0-0
        // and can leave a freed block behind on failure, so neither is trusted; and its
        // parser loops forever on a digit outside ASCII, which no SID text holds.
        const bool printableAscii = std::all_of(sidText.begin(), sidText.end(),
                                                [](wchar_t c) { return c >= L' ' && c <= L'~'; });
        if (!sidText.empty() && (!printableAscii || !::ConvertStringSidToSidW(sidText.c_str(), ppSid)))
            *ppSid = nullptr;
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CLocalDBUserExtractor::LoadTemplatesToVector(PSID pSid, CNVTemplateVector& templates)
{
    NVTraceNS::CTraceScope scope("CLocalDBUserExtractor::LoadTemplatesToVector", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        templates.clear();
        templates = m_templates[SidToText(pSid)];
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CLocalDBUserExtractor::FreeUsers(NV_USER_RECORD* pUsers)
{
    NVTraceNS::CTraceScope scope("CLocalDBUserExtractor::FreeUsers", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        const SIZE_T cb = pUsers ? ::LocalSize(pUsers) : 0;
        if (cb == 0)
            nv::ThrowHr(E_INVALIDARG);
        const SIZE_T count = cb / sizeof(NV_USER_RECORD);
        for (SIZE_T i = 0; i < count; ++i) {
            if (pUsers[i].pSid) {
                ::LocalFree(pUsers[i].pSid);
                pUsers[i].pSid = nullptr;
            }
        }
        ::LocalFree(pUsers);
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

bool CLocalDBUserExtractor::HasDroppedTemplates(PSID pSid) const
{
    return m_droppedTemplates.count(SidToText(pSid)) != 0;
}

HRESULT CLocalDBUserExtractor::InternalLoadSecretsToMap(const NV_USER_RECORD& user, CNVSecretMap& secrets)
{
    return InternalLoadSecretsToMap(user, secrets, nullptr);
}

HRESULT CLocalDBUserExtractor::InternalLoadSecretsToMap(const NV_USER_RECORD& user, CNVSecretMap& secrets,
                                                        HRESULT* phrFieldEnum)
{
    NVTraceNS::CTraceScope scope("CLocalDBUserExtractor::InternalLoadSecretsToMap", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        CNVDBRegSet recordSet;
        nv::ThrowIfFailed(recordSet.Open(CHostName().c_str(), 0));
        secrets.clear();

        std::vector<std::wstring> fields;
        nv::ThrowIfFailed(recordSet.EnumFields(user.guidUser, fields, phrFieldEnum));

        CFPSecurityContext context(KEY_WOW64_32KEY);
        for (const std::wstring& field : fields) {
            if (::CompareStringOrdinal(field.c_str(), -1, kAccountControlField, -1, TRUE) == CSTR_EQUAL)
                continue;
            nv::CCryptBlob bytes;
            const HRESULT hrRead = recordSet.ReadField(user.guidUser, field.c_str(), bytes);
            nv::ThrowIfFailed(hrRead);
            if (hrRead == S_FALSE)
                continue;

            auto secret = std::make_shared<CNVSecret>();
            const DWORD lenientBefore = LenientReadCount();
            const HRESULT hrDecode = DecodeSecretField(&context, bytes, *secret);
            secret->m_bLenient = hrDecode != S_OK || LenientReadCount() != lenientBefore;
            secrets.emplace(_bstr_t(field.c_str()), std::move(secret));
        }
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

} // namespace LegacyNVDB2
