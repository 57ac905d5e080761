#include "support/conversion_fixture.h"

#include <objbase.h>
#include <aclapi.h>
#include <wincrypt.h>
#include <algorithm>
#include <cstdio>
#include "common/teacfb.h"
#include "common/storecontract.h"
#include "secret_keys.h"
#include "nvstore_inspect.h"
#include "support/store_sandbox.h"

namespace nvtest {

std::wstring UserKeyPath(const GUID& userGuid)
{
    return std::wstring(kDataUsersPath) + L"\\" + GuidText(userGuid);
}

std::vector<std::string> OwnLines(const TraceCapture& trace, const std::string& scope, std::size_t occurrence)
{
    std::vector<std::string> own;
    int depth = 0;
    for (const std::string& line : trace.LinesInScope(scope, occurrence)) {
        if (line.rfind("> ", 0) == 0) {
            ++depth;
            continue;
        }
        if (line == "<") {
            --depth;
            continue;
        }
        if (depth == 0)
            own.push_back(line);
    }
    return own;
}

std::string Hex(HRESULT hr)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(hr));
    return text;
}

namespace {

// The items of a SEQUENCE OF ANY, each a complete DER value; ok turns false when it
// does not decode or does not have the expected number of items.
std::vector<std::vector<BYTE>> Items(const std::vector<BYTE>& der, size_t expected, bool* ok)
{
    std::vector<std::vector<BYTE>> items;
    DWORD cb = 0;
    if (!::CryptDecodeObject(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, X509_SEQUENCE_OF_ANY, der.data(),
                             static_cast<DWORD>(der.size()), 0, nullptr, &cb)) {
        *ok = false;
        return items;
    }
    std::vector<BYTE> block(cb);
    if (!::CryptDecodeObject(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, X509_SEQUENCE_OF_ANY, der.data(),
                             static_cast<DWORD>(der.size()), 0, block.data(), &cb)) {
        *ok = false;
        return items;
    }
    const auto* seq = reinterpret_cast<const CRYPT_SEQUENCE_OF_ANY*>(block.data());
    for (DWORD i = 0; i < seq->cValue; ++i)
        items.emplace_back(seq->rgValue[i].pbData, seq->rgValue[i].pbData + seq->rgValue[i].cbData);
    if (items.size() != expected)
        *ok = false;
    return items;
}

std::vector<BYTE> DecodeBlobContent(LPCSTR type, const std::vector<BYTE>& der, bool* ok)
{
    DWORD cb = 0;
    if (!::CryptDecodeObject(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, type, der.data(), static_cast<DWORD>(der.size()),
                             0, nullptr, &cb)) {
        *ok = false;
        return {};
    }
    std::vector<BYTE> block(cb);
    if (!::CryptDecodeObject(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, type, der.data(), static_cast<DWORD>(der.size()),
                             0, block.data(), &cb)) {
        *ok = false;
        return {};
    }
    const auto* blob = reinterpret_cast<const CRYPT_DATA_BLOB*>(block.data());
    return std::vector<BYTE>(blob->pbData, blob->pbData + blob->cbData);
}

DWORD LittleEndianValue(const std::vector<BYTE>& bytes, bool isSigned, bool* ok)
{
    // The decoder gives zero as no bytes at all.
    if (bytes.size() > 4) {
        *ok = false;
        return 0;
    }
    DWORD v = (isSigned && (bytes.back() & 0x80)) ? 0xFFFFFFFFu : 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        v &= ~(0xFFu << (8 * i));
        v |= static_cast<DWORD>(bytes[i]) << (8 * i);
    }
    return v;
}

std::vector<BYTE> Utf16Bytes(const std::wstring& s)
{
    const BYTE* p = reinterpret_cast<const BYTE*>(s.data());
    return std::vector<BYTE>(p, p + s.size() * sizeof(wchar_t));
}

template <class Haystack>
bool ContainsBytes(const Haystack& hay, const std::vector<BYTE>& needle)
{
    if (needle.empty() || hay.size() < needle.size())
        return false;
    return std::search(hay.begin(), hay.end(), needle.begin(), needle.end()) != hay.end();
}

} // namespace

bool DecodeStoredTemplate(const std::vector<BYTE>& bytes, DecodedTemplate* out)
{
    bool ok = true;
    const auto outer = Items(bytes, 2, &ok);
    if (!ok)
        return false;
    const auto object = Items(outer[0], 2, &ok);
    if (!ok)
        return false;
    const auto info = Items(object[0], 5, &ok);
    if (!ok)
        return false;
    out->format = LittleEndianValue(DecodeBlobContent(X509_MULTI_BYTE_UINT, info[0], &ok), false, &ok);
    out->flags = LittleEndianValue(DecodeBlobContent(X509_MULTI_BYTE_UINT, info[1], &ok), false, &ok);
    out->type = DecodeBlobContent(X509_OCTET_STRING, info[2], &ok);
    out->owner = DecodeBlobContent(X509_OCTET_STRING, info[3], &ok);
    out->size = LittleEndianValue(DecodeBlobContent(X509_MULTI_BYTE_UINT, info[4], &ok), false, &ok);
    out->headerValue =
        static_cast<LONG>(LittleEndianValue(DecodeBlobContent(X509_MULTI_BYTE_INTEGER, object[1], &ok), true, &ok));
    out->data = DecodeBlobContent(X509_OCTET_STRING, outer[1], &ok);
    return ok;
}

nvwriter::Db20Template SampleTemplate(unsigned position, BYTE fill, size_t dataBytes, LONG headerValue)
{
    nvwriter::Db20Template t;
    t.position = position;
    t.format = 1;
    t.flags = position;
    t.type = {0x5A1E0C31, 0x8F2B, 0x4C7D, {0x9E, 0x10, 0x3B, 0x6A, 0x27, 0xD4, 0x81, 0x55}};
    t.owner = {0x10203040, 0x5060, 0x7080, {fill, 2, 3, 4, 5, 6, 7, 8}};
    t.data.assign(dataBytes, fill);
    t.size = static_cast<DWORD>(t.data.size());
    t.headerValue = headerValue;
    return t;
}

std::vector<BYTE> GuidMemoryBytes(const GUID& g)
{
    const BYTE* p = reinterpret_cast<const BYTE*>(&g);
    return std::vector<BYTE>(p, p + sizeof(GUID));
}

std::vector<BYTE> UnscramblePackedPassword(const std::vector<BYTE>& packed)
{
    std::uint32_t key[4];
    for (int i = 0; i < 4; ++i)
        key[i] = nvkeys::kSecretKeyWords[i] ^ nvkeys::kSecretKeyMasks[i];
    std::uint8_t iv[8];
    nvcipher::WordsToRegister(nvkeys::kSecretInitialRegister, iv);
    std::vector<BYTE> plain(packed.size());
    nvcipher::CfbDecrypt(key, iv, packed.data(), plain.data(), plain.size());
    return plain;
}

namespace {

void AppendDerLength(std::vector<BYTE>& out, size_t n)
{
    if (n < 0x80) {
        out.push_back(static_cast<BYTE>(n));
    } else if (n < 0x100) {
        out.push_back(0x81);
        out.push_back(static_cast<BYTE>(n));
    } else {
        out.push_back(0x82);
        out.push_back(static_cast<BYTE>(n >> 8));
        out.push_back(static_cast<BYTE>(n));
    }
}

} // namespace

std::vector<BYTE> ExpectedPasswordSecretDer(const std::wstring& password)
{
    std::vector<BYTE> text;
    for (wchar_t c : password) {
        text.push_back(static_cast<BYTE>(c >> 8));
        text.push_back(static_cast<BYTE>(c));
    }
    text.push_back(0x00);
    text.push_back(0x00);
    std::vector<BYTE> body{0x02, 0x01, 0x01, 0x1E};
    AppendDerLength(body, text.size());
    body.insert(body.end(), text.begin(), text.end());
    std::vector<BYTE> out{0x30};
    AppendDerLength(out, body.size());
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

bool DecodePackedPassword(const std::vector<BYTE>& packed, DWORD* version, std::wstring* password)
{
    const std::vector<BYTE> plain = UnscramblePackedPassword(packed);

    bool ok = true;
    const auto items = Items(plain, 2, &ok);
    if (!ok)
        return false;
    *version = LittleEndianValue(DecodeBlobContent(X509_MULTI_BYTE_UINT, items[0], &ok), false, &ok);
    DWORD cb = 0;
    if (!ok || !::CryptDecodeObject(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, X509_ANY_STRING, items[1].data(),
                                    static_cast<DWORD>(items[1].size()), 0, nullptr, &cb))
        return false;
    std::vector<BYTE> block(cb);
    if (!::CryptDecodeObject(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, X509_ANY_STRING, items[1].data(),
                             static_cast<DWORD>(items[1].size()), 0, block.data(), &cb))
        return false;
    const auto* value = reinterpret_cast<const CERT_NAME_VALUE*>(block.data());
    if (value->dwValueType != CERT_RDN_BMP_STRING || value->Value.cbData % 2 != 0)
        return false;
    std::wstring text(reinterpret_cast<const wchar_t*>(value->Value.pbData), value->Value.cbData / 2);
    if (!text.empty() && text.back() == L'\0')
        text.pop_back();
    if (text.find(L'\0') != std::wstring::npos)
        return false;
    *password = text;
    return true;
}

std::wstring StoredSecretName(const nvwriter::Db20Secret& secret, const std::wstring& logonInfoName)
{
    return secret.valueName == nvwriter::kDb20LogonInfoSecret ? logonInfoName : secret.valueName;
}

std::wstring PasswordOf(const nvwriter::Db20User& user)
{
    for (const auto& s : user.secrets)
        if (s.valueName == nvwriter::kDb20LogonInfoSecret && s.combined && s.hasPassword)
            return s.password;
    return std::wstring();
}

LONG HeaderValueAsRead(LONG written)
{
    if (written >= 0)
        return written;
    // Shortest two's complement: drop leading 0xFF bytes while the next one keeps the sign.
    DWORD v = static_cast<DWORD>(written);
    int bytes = 4;
    while (bytes > 1 && ((v >> (8 * (bytes - 1))) & 0xFF) == 0xFF && ((v >> (8 * (bytes - 2))) & 0x80))
        --bytes;
    const DWORD mask = bytes == 4 ? 0xFFFFFFFFu : ((1u << (8 * bytes)) - 1);
    return static_cast<LONG>(v & mask);
}

std::map<DWORD, const nvwriter::Db20Template*> ExpectedTemplates(const nvwriter::Db20User& user)
{
    const nvwriter::Db20Credential* first = nullptr;
    DWORD mask = 0;
    for (const auto& c : user.credentials) {
        if (c.credentialId != nvwriter::kDb20FingerprintCredentialId)
            continue;
        if (!first)
            first = &c;
        mask = c.mask;
    }
    std::map<DWORD, const nvwriter::Db20Template*> out;
    size_t next = 0;
    for (DWORD bit = 0; bit < 32 && first; ++bit) {
        if (!(mask & (1u << bit)))
            continue;
        if (next >= first->templates.size())
            break;
        out[bit] = &first->templates[next++];
    }
    return out;
}

void ExpectUserConverted(const nvwriter::Db20User& user, const ConvertedExpectations& expect)
{
    namespace inspect = nvstore::inspect;
    const std::wstring& sid = user.sidText;
    SCOPED_TRACE("user " + Narrow(user.userName) + " " + Narrow(sid));
    ASSERT_TRUE(inspect::UserExists(sid));

    // Secrets: exactly the old fields (AccountControl aside), each sealed for the user.
    std::map<std::wstring, const nvwriter::Db20Secret*> expectedSecrets;
    for (const auto& s : user.secrets)
        expectedSecrets[StoredSecretName(s, expect.logonInfoName)] = &s;
    const auto stored = inspect::ListSecrets(sid);
    std::vector<std::wstring> storedNames, expectedNames;
    for (const auto& [name, bytes] : stored)
        storedNames.push_back(name);
    for (const auto& [name, secret] : expectedSecrets)
        expectedNames.push_back(name);
    EXPECT_EQ(expectedNames, storedNames);
    for (const auto& [name, secret] : expectedSecrets) {
        auto it = stored.find(name);
        if (it == stored.end())
            continue;
        std::vector<BYTE> opened;
        EXPECT_EQ(S_OK, inspect::OpenSealedSecret(sid, it->second, &opened)) << Narrow(name);
        if (secret->valueName == nvwriter::kDb20LogonInfoSecret) {
            // The password, repacked: version 1 and the password alone.
            DWORD version = 0;
            std::wstring password;
            EXPECT_TRUE(DecodePackedPassword(opened, &version, &password)) << Narrow(name);
            EXPECT_EQ(1u, version);
            EXPECT_EQ(PasswordOf(user), password);
            // Byte for byte: SEQUENCE { 1, the password with its terminating zero }.
            EXPECT_EQ(ExpectedPasswordSecretDer(PasswordOf(user)), UnscramblePackedPassword(opened)) << Narrow(name);
        } else {
            EXPECT_NE(secret->content, it->second) << "secret stored in plain: " << Narrow(name);
            EXPECT_EQ(secret->content, opened) << Narrow(name);
        }
    }

    // Templates, each at its position.
    const auto expectedTemplates = ExpectedTemplates(user);
    const auto templates = inspect::ListTemplates(sid);
    std::vector<DWORD> storedPositions, expectedPositions;
    for (const auto& [pos, bytes] : templates)
        storedPositions.push_back(pos);
    for (const auto& [pos, t] : expectedTemplates)
        expectedPositions.push_back(pos);
    EXPECT_EQ(expectedPositions, storedPositions);
    for (const auto& [pos, t] : expectedTemplates) {
        auto it = templates.find(pos);
        if (it == templates.end())
            continue;
        DecodedTemplate d;
        ASSERT_TRUE(DecodeStoredTemplate(it->second, &d)) << "position " << pos;
        EXPECT_EQ(t->format, d.format) << "position " << pos;
        EXPECT_EQ(t->flags, d.flags) << "position " << pos;
        EXPECT_EQ(GuidMemoryBytes(t->type), d.type) << "position " << pos;
        EXPECT_EQ(GuidMemoryBytes(t->owner), d.owner) << "position " << pos;
        EXPECT_EQ(t->size, d.size) << "position " << pos;
        EXPECT_EQ(HeaderValueAsRead(t->headerValue), d.headerValue) << "position " << pos;
        EXPECT_EQ(t->data, d.data) << "position " << pos;
    }

    // The password enrolled, the payload, the registration.
    EXPECT_TRUE(inspect::HasPassword(sid));
    EXPECT_TRUE(inspect::CheckPassword(sid, PasswordOf(user)));
    std::vector<BYTE> payload;
    EXPECT_TRUE(inspect::GetPayload(sid, &payload));
    EXPECT_FALSE(payload.empty());
    if (expect.payload) {
        EXPECT_EQ(*expect.payload, payload);
    }
    EXPECT_EQ(expect.registered, inspect::IsRegistered(sid));
    std::vector<BYTE> publicKey;
    EXPECT_TRUE(inspect::GetPublicKey(sid, &publicKey));

    // The old data is gone.
    EXPECT_FALSE(KeyExists(UserKeyPath(user.guid).c_str(), kView32));
}

std::vector<StoreCopyGap> StoreCopyGaps(const nvwriter::Db20User& user, const std::wstring& logonInfoName, bool whole)
{
    namespace inspect = nvstore::inspect;
    std::vector<StoreCopyGap> gaps;
    const std::wstring& sid = user.sidText;
    if (!inspect::UserExists(sid)) {
        gaps.push_back({StoreCopyGap::Record, "", "no user record in the store"});
        return gaps;
    }
    const auto stored = inspect::ListSecrets(sid);
    for (const auto& secret : user.secrets) {
        if (secret.content.empty())
            continue; // nothing to move
        const bool password = secret.valueName == nvwriter::kDb20LogonInfoSecret;
        const StoreCopyGap::Kind kind = password ? StoreCopyGap::Password : StoreCopyGap::Secret;
        const std::wstring name = StoredSecretName(secret, logonInfoName);
        const std::string shown = Narrow(name);
        auto it = stored.find(name);
        if (it == stored.end()) {
            gaps.push_back({kind, shown, "missing"});
            continue;
        }
        std::vector<BYTE> opened;
        const HRESULT hr = inspect::OpenSealedSecret(sid, it->second, &opened);
        if (hr != S_OK) {
            gaps.push_back({kind, shown, "does not open with the user's key: " + Hex(hr)});
            continue;
        }
        if (password) {
            DWORD version = 0;
            std::wstring text;
            if (!DecodePackedPassword(opened, &version, &text))
                gaps.push_back({kind, shown, "not a packed password"});
            else if (version != 1 || text != PasswordOf(user))
                gaps.push_back({kind, shown,
                                "packs version " + std::to_string(version) +
                                    (text == PasswordOf(user) ? std::string(" with the password")
                                                              : " and another password (" +
                                                                    std::to_string(text.size()) + " characters)")});
        } else if (opened != secret.content) {
            gaps.push_back({kind, shown, "opens to other content"});
        }
    }
    const auto templates = inspect::ListTemplates(sid);
    for (const auto& [pos, t] : ExpectedTemplates(user)) {
        const std::string shown = std::to_string(pos);
        auto it = templates.find(pos);
        if (it == templates.end()) {
            gaps.push_back({StoreCopyGap::Template, shown, "missing"});
            continue;
        }
        DecodedTemplate d;
        if (!DecodeStoredTemplate(it->second, &d)) {
            gaps.push_back({StoreCopyGap::Template, shown, "not the template layout"});
            continue;
        }
        if (d.format != t->format || d.flags != t->flags || d.type != GuidMemoryBytes(t->type) ||
            d.owner != GuidMemoryBytes(t->owner) || d.size != t->size ||
            d.headerValue != HeaderValueAsRead(t->headerValue) || d.data != t->data)
            gaps.push_back({StoreCopyGap::Template, shown, "fields differ from the original"});
    }
    if (whole) {
        inspect::Bytes bytes;
        if (!inspect::GetPayload(sid, &bytes))
            gaps.push_back({StoreCopyGap::Record, "payload", "missing"});
        if (!inspect::GetPublicKey(sid, &bytes))
            gaps.push_back({StoreCopyGap::Record, "public key", "missing"});
        if (!inspect::IsRegistered(sid))
            gaps.push_back({StoreCopyGap::Record, "registration", "missing"});
        const std::wstring password = PasswordOf(user);
        if (!password.empty() && !inspect::CheckPassword(sid, password))
            gaps.push_back({StoreCopyGap::Password, "authentication", "the password does not authenticate"});
    }
    return gaps;
}

void ExpectNoneInTrace(const TraceCapture& trace, const std::vector<std::wstring>& secrets)
{
    const std::vector<std::uint8_t> raw = trace.Bytes();
    ASSERT_FALSE(raw.empty());
    std::vector<BYTE> texts;
    for (const nvtrace::Record& r : trace.Records())
        texts.insert(texts.end(), r.text.begin(), r.text.end());
    ASSERT_FALSE(texts.empty());
    for (const std::wstring& s : secrets) {
        if (s.empty())
            continue;
        const std::string utf8 = Narrow(s);
        const std::vector<BYTE> u8(utf8.begin(), utf8.end());
        const std::vector<BYTE> u16 = Utf16Bytes(s);
        EXPECT_FALSE(ContainsBytes(raw, u8)) << utf8;
        EXPECT_FALSE(ContainsBytes(raw, u16)) << utf8;
        EXPECT_FALSE(ContainsBytes(texts, u8)) << utf8;
        EXPECT_FALSE(ContainsBytes(texts, u16)) << utf8;
    }
}

void LockRegistryKey(const std::wstring& path, REGSAM view)
{
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, WRITE_DAC | view, &key));
    EXPLICIT_ACCESSW ea{};
    ea.grfAccessPermissions = KEY_READ | WRITE_DAC | READ_CONTROL;
    ea.grfAccessMode = SET_ACCESS;
    ea.grfInheritance = NO_INHERITANCE;
    ea.Trustee.TrusteeForm = TRUSTEE_IS_NAME;
    ea.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
    wchar_t everyone[] = L"EVERYONE";
    ea.Trustee.ptstrName = everyone;
    PACL acl = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::SetEntriesInAclW(1, &ea, nullptr, &acl));
    const DWORD r = ::SetSecurityInfo(key, SE_REGISTRY_KEY,
                                      DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                      acl, nullptr);
    ::LocalFree(acl);
    ::RegCloseKey(key);
    ASSERT_EQ(ERROR_SUCCESS, r);
    // The lock holds: full access is refused now.
    HKEY probe = nullptr;
    ASSERT_EQ(ERROR_ACCESS_DENIED, ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_ALL_ACCESS | view, &probe));
}

void UnlockRegistryKey(const std::wstring& path, REGSAM view)
{
    HKEY key = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, WRITE_DAC | view, &key) != ERROR_SUCCESS)
        return;
    ::SetSecurityInfo(key, SE_REGISTRY_KEY, DACL_SECURITY_INFORMATION | UNPROTECTED_DACL_SECURITY_INFORMATION, nullptr,
                      nullptr, nullptr, nullptr);
    ::RegCloseKey(key);
}

void Db20ConversionTest::LockKey(const std::wstring& path)
{
    m_locked.push_back(path);
    LockRegistryKey(path, kView32);
}

ComApartment::ComApartment() : m_hr(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)) {}

ComApartment::~ComApartment()
{
    if (SUCCEEDED(m_hr))
        ::CoUninitialize();
}

void Db20ConversionTest::SetUp()
{
    TraceCaptureTest::SetUp();
    nvstore::inspect::DeleteStoreKeyContainers();
    RestoreStoreRegistration();
    if (m_quickKeys)
        nvstore::inspect::SetUserKeyBits(1024);
    m_com = new ComApartment();
    ASSERT_TRUE(SUCCEEDED(m_com->result())) << std::hex << m_com->result();
}

void Db20ConversionTest::TearDown()
{
    for (const std::wstring& path : m_locked)
        UnlockRegistryKey(path, kView32);
    m_locked.clear();
    for (const nvwriter::Db20Database& db : m_written)
        EXPECT_EQ(S_OK, nvwriter::DeleteDb20Container(db));
    m_written.clear();
    delete m_com;
    m_com = nullptr;
    nvstore::inspect::DeleteStoreKeyContainers();
    RestoreStoreRegistration();
    TraceCaptureTest::TearDown();
}

void Db20ConversionTest::UnregisterStore()
{
    const std::wstring clsidKey = L"SOFTWARE\\Classes\\CLSID\\" + GuidText(nvstore::kClsidUserStore);
    DeleteTree(clsidKey.c_str(), kView64);
    DeleteTree(clsidKey.c_str(), kView32);
    ASSERT_FALSE(KeyExists(clsidKey.c_str(), kView64));
}

void Db20ConversionTest::RestoreStoreRegistration()
{
    if (::_wcsicmp(RegisteredStoreServerPath().c_str(), StoreServerPath().c_str()) != 0) {
        ASSERT_EQ(S_OK, RegisterStoreServer());
    }
}

nvwriter::Db20Database Db20ConversionTest::MakeDatabase(unsigned users, std::uint32_t seed, unsigned domains)
{
    nvwriter::Db20Options options;
    options.seed = seed;
    options.userCount = users;
    options.domainCount = domains;
    return nvwriter::MakeDb20Database(options);
}

void Db20ConversionTest::WriteDatabase(const nvwriter::Db20Database& db)
{
    // A database written again over itself has one container to delete.
    bool known = false;
    for (const nvwriter::Db20Database& written : m_written)
        known = known || IsEqualGUID(written.hostId, db.hostId);
    if (!known)
        m_written.push_back(db);
    ASSERT_EQ(S_OK, nvwriter::WriteDb20Database(db));
}

} // namespace nvtest
