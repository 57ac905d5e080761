#include "support/store_expectations.h"

#include <algorithm>
#include "nvstore_inspect.h"
#include "support/db_paths.h"
#include "support/registry_sandbox.h"
#include "support/text_util.h"

namespace nvtest {

std::wstring UserKeyPath(const GUID& userGuid)
{
    return std::wstring(kDataUsersPath) + L"\\" + GuidText(userGuid);
}

namespace {

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

} // namespace nvtest
