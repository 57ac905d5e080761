#include "legacyread.h"

#include <oleauto.h>
#include <algorithm>
#include <memory>

#include "common/handles.h"
#include "converter3/logoninfoname.h"
#include "converter3/secretpacking.h"
#include "dbstate.h"
#include "legacydb/derreader.h"
#include "legacydb/secretrecord.h"
#include "legacydb/sidtext.h"
#include "legacydb/userextractor.h"
#include "security/securitycontext.h"
#include "trace/trace.h"

namespace nvdbconv {

namespace {

constexpr const wchar_t kAccountControlField[] = L"AccountControl";
constexpr DWORD kNameChars = 16384;

HRESULT FromWin32(LONG rc) { return rc == ERROR_SUCCESS ? S_OK : HRESULT_FROM_WIN32(static_cast<DWORD>(rc)); }

std::vector<std::wstring> UserKeyNames(HKEY users)
{
    std::vector<std::wstring> names;
    std::unique_ptr<wchar_t[]> name(new wchar_t[kNameChars]);
    for (DWORD i = 0;; ++i) {
        DWORD cch = kNameChars;
        if (::RegEnumKeyExW(users, i, name.get(), &cch, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        names.emplace_back(name.get(), cch);
    }
    return names;
}

// The secret content as the conversion's CNVSecret::GetContent opens it, with the
// extractor's provider (GetContent would build a security context of its own, and
// with it write the NVHOST key's access list).
HRESULT OpenSealed(HCRYPTPROV prov, const nv::CCryptBlob& content, LegacyNVDB2::Bytes* plain)
{
    using namespace LegacyNVDB2;
    nv::unique_hcryptkey exchange;
    if (!::CryptGetUserKey(prov, AT_KEYEXCHANGE, exchange.put()))
        return HRESULT_FROM_WIN32(::GetLastError());
    const Bytes sealed(content.pbData, content.pbData + content.cbData);
    const ItemList items = ReadList(DerView(sealed));
    const Bytes keyBlob = ReadOctets(ItemAt(items, 0));
    *plain = ReadOctets(ItemAt(items, 1));
    nv::unique_hcryptkey session;
    if (!::CryptImportKey(prov, keyBlob.data(), static_cast<DWORD>(keyBlob.size()), exchange.get(), 0, session.put()))
        return HRESULT_FROM_WIN32(::GetLastError());
    DWORD cb = static_cast<DWORD>(plain->size());
    if (!::CryptDecrypt(session.get(), 0, TRUE, 0, plain->data(), &cb))
        return HRESULT_FROM_WIN32(::GetLastError());
    plain->resize(cb);
    return S_OK;
}

void ReadSecrets(HKEY users, HCRYPTPROV prov, LegacyUser& user)
{
    user.secretsRead = true;
    nv::unique_hkey key;
    LONG rc = ::RegOpenKeyExW(users, user.key.c_str(), 0, KEY_READ, key.put());
    if (rc != ERROR_SUCCESS) {
        user.secretsResult = FromWin32(rc);
        return;
    }
    // Export records are opened without the machine key; a context that was never
    // constructed does that and touches nothing.
    CFPSecurityContext importer;
    std::unique_ptr<wchar_t[]> name(new wchar_t[kNameChars]);
    for (DWORD i = 0;; ++i) {
        DWORD cch = kNameChars, type = 0, cb = 0;
        rc = ::RegEnumValueW(key.get(), i, name.get(), &cch, nullptr, &type, nullptr, &cb);
        if (rc == ERROR_NO_MORE_ITEMS)
            break;
        if (rc != ERROR_SUCCESS && rc != ERROR_MORE_DATA) {
            user.secretsResult = FromWin32(rc);
            return;
        }
        const std::wstring field(name.get(), cch);
        if (field.empty() || ::CompareStringOrdinal(field.c_str(), -1, kAccountControlField, -1, TRUE) == CSTR_EQUAL)
            continue;
        if (type != REG_BINARY)
            continue;
        nv::CCryptBlob bytes;
        if (cb) {
            bytes.Allocate(cb);
            DWORD cbRead = cb;
            if (::RegQueryValueExW(key.get(), field.c_str(), nullptr, &type, bytes.pbData, &cbRead) != ERROR_SUCCESS)
                continue;
        }
        CNVSecret secret;
        HRESULT hr = S_OK;
        try {
            hr = LegacyNVDB2::DecodeSecretField(&importer, bytes, secret);
        } catch (const _com_error& e) {
            hr = e.Error();
        }
        if (FAILED(hr)) {
            user.secretsResult = hr;
            continue;
        }
        if (secret.m_content.IsEmpty())
            continue;
        ++user.secrets;
        if (field != nvconv3::g_wstrLegacyPasswordSecretName)
            continue;
        user.passwordSecret = true;
        LegacyNVDB2::Bytes plain;
        user.passwordResult = OpenSealed(prov, secret.m_content, &plain);
        if (FAILED(user.passwordResult))
            continue;
        CRYPT_DATA_BLOB content{static_cast<DWORD>(plain.size()), plain.data()};
        BSTR password = nullptr, pin = nullptr;
        user.passwordResult = UnpackPasswordAndPin(&content, &password, &pin);
        user.passwordEmpty = SUCCEEDED(user.passwordResult) && (!password || ::SysStringLen(password) == 0);
        for (BSTR b : {password, pin}) {
            if (b) {
                ::SecureZeroMemory(b, ::SysStringByteLen(b));
                ::SysFreeString(b);
            }
        }
        // plain is a zeroing vector: cleared when it goes.
    }
}

} // namespace

LegacyUsers ReadLegacyUsers(bool details)
{
    // This process links the library's reader beside the loaded library; only the
    // library writes the trace.
    NVTraceNS::SilenceInThisProcess();
    LegacyUsers out;

    nv::unique_hkey host;
    LONG rc = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, nvsecurity::kHostKeyPath, 0, KEY_READ | KEY_WOW64_32KEY, host.put());
    BYTE id[16] = {};
    DWORD cb = sizeof(id), type = 0;
    if (rc == ERROR_SUCCESS)
        rc = ::RegQueryValueExW(host.get(), nvsecurity::kHostIdValue, nullptr, &type, id, &cb);
    out.hostId = FromWin32(rc);
    if (SUCCEEDED(out.hostId) && (type != REG_BINARY || cb != sizeof(id)))
        out.hostId = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
    if (SUCCEEDED(out.hostId)) {
        wchar_t container[nvsecurity::kContainerNameChars] = {};
        nvsecurity::FormatContainerName(nvsecurity::GuidFromNetworkBytes(id, cb), container);
        out.container = container;
        nv::unique_hcryptprov prov;
        out.acquire = ::CryptAcquireContextW(prov.put(), container, nvsecurity::kProviderName, PROV_RSA_FULL,
                                             CRYPT_MACHINE_KEYSET)
                          ? S_OK
                          : HRESULT_FROM_WIN32(::GetLastError());
    } else {
        out.acquire = S_FALSE;
    }

    nv::unique_hkey users;
    out.usersKey = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kUsersPath, 0, KEY_READ | kDatabaseView, users.put()) ==
                   ERROR_SUCCESS;
    if (!out.usersKey)
        return out;
    for (const std::wstring& name : UserKeyNames(users.get())) {
        LegacyUser u;
        u.key = name;
        u.record = S_FALSE;
        out.users.push_back(u);
    }
    if (out.users.empty() || FAILED(out.acquire) || out.acquire == S_FALSE)
        return out;

    LegacyNVDB2::CLocalDBUserExtractor extractor;
    NV_USER_RECORD* records = nullptr;
    DWORD count = 0;
    out.enumeration = extractor.EnumerateUsers(&records, &count);
    for (DWORD i = 0; i < count && i < out.users.size(); ++i) {
        LegacyUser& u = out.users[i];
        if (records[i].pSid) {
            u.sid = LegacyNVDB2::SidToText(records[i].pSid);
            u.record = S_OK;
            u.templateMask = records[i].dwTemplateMask;
            CNVTemplateVector templates;
            if (SUCCEEDED(extractor.LoadTemplatesToVector(records[i].pSid, templates)))
                u.templates = templates.size();
        } else {
            // A slot the enumeration left zero: unreadable, or after a corrupt seal.
            u.record = FAILED(out.enumeration) ? out.enumeration : HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
        }
        if (details && SUCCEEDED(u.record))
            ReadSecrets(users.get(), extractor.GetProvider(), u);
    }
    if (records)
        extractor.FreeUsers(records);
    return out;
}

} // namespace nvdbconv
