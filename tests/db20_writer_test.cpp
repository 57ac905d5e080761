// The format 2.0 writer on its own: its DER items (byte tables), the scrambled
// combined password secret, determinism of the model, the registry layout it writes
// and the sealed values, checked with CryptoAPI directly rather than with the reader.
#include <windows.h>
#include <wincrypt.h>
#include <gtest/gtest.h>
#include <cstring>
#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "common/handles.h"
#include "common/teacfb.h"
#include "secret_keys.h"
#include "support/key_containers.h"
#include "support/registry_sandbox.h"
#include "support/db_paths.h"
#include "writer/db20_der.h"
#include "writer/db20_writer.h"
#include "writer/host_provisioning.h"

using namespace nvtest;
using namespace nvwriter;
using Bytes = std::vector<BYTE>;

namespace {

constexpr DWORD kDer = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
constexpr GUID kGuid = {0x00112233, 0x4455, 0x6677, {0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}};

// Test-side decoding, independent of the library's reader.
Bytes Decode(LPCSTR type, const Bytes& der)
{
    DWORD cb = 0;
    if (der.empty() || !::CryptDecodeObject(kDer, type, der.data(), static_cast<DWORD>(der.size()), 0, nullptr, &cb))
        return {};
    Bytes out(cb);
    if (!::CryptDecodeObject(kDer, type, der.data(), static_cast<DWORD>(der.size()), 0, out.data(), &cb))
        return {};
    return out;
}

std::vector<Bytes> Items(const Bytes& der)
{
    const Bytes buf = Decode(X509_SEQUENCE_OF_ANY, der);
    if (buf.empty())
        return {};
    const auto* seq = reinterpret_cast<const CRYPT_SEQUENCE_OF_ANY*>(buf.data());
    std::vector<Bytes> items;
    for (DWORD i = 0; i < seq->cValue; ++i)
        items.emplace_back(seq->rgValue[i].pbData, seq->rgValue[i].pbData + seq->rgValue[i].cbData);
    return items;
}

Bytes OctetsOf(const Bytes& der)
{
    const Bytes buf = Decode(X509_OCTET_STRING, der);
    if (buf.empty())
        return {};
    const auto* b = reinterpret_cast<const CRYPT_DATA_BLOB*>(buf.data());
    return Bytes(b->pbData, b->pbData + b->cbData);
}

Bytes ToBeSigned(const Bytes& der)
{
    const Bytes buf = Decode(X509_CERT, der);
    if (buf.empty())
        return {};
    const auto* info = reinterpret_cast<const CERT_SIGNED_CONTENT_INFO*>(buf.data());
    return Bytes(info->ToBeSigned.pbData, info->ToBeSigned.pbData + info->ToBeSigned.cbData);
}

Bytes Bmp(const std::wstring& text)
{
    // BMPString with the terminating zero character, big-endian.
    Bytes out = {0x1E, static_cast<BYTE>((text.size() + 1) * 2)};
    for (wchar_t c : text) {
        out.push_back(static_cast<BYTE>(c >> 8));
        out.push_back(static_cast<BYTE>(c));
    }
    out.push_back(0);
    out.push_back(0);
    return out;
}

Bytes Scrambled(Bytes plain)
{
    std::uint32_t key[4];
    for (int i = 0; i < 4; ++i)
        key[i] = nvkeys::kSecretKeyWords[i] ^ nvkeys::kSecretKeyMasks[i];
    std::uint8_t iv[8];
    nvcipher::WordsToRegister(nvkeys::kSecretInitialRegister, iv);
    nvcipher::CfbEncrypt(key, iv, plain.data(), plain.data(), plain.size());
    return plain;
}

Bytes Opened(HCRYPTPROV prov, const Bytes& sealed)
{
    const std::vector<Bytes> parts = Items(sealed);
    if (parts.size() != 2)
        return {};
    const Bytes keyBlob = OctetsOf(parts[0]);
    Bytes data = OctetsOf(parts[1]);
    nv::unique_hcryptkey exchange, session;
    EXPECT_TRUE(::CryptGetUserKey(prov, AT_KEYEXCHANGE, exchange.put()));
    EXPECT_TRUE(::CryptImportKey(prov, keyBlob.data(), static_cast<DWORD>(keyBlob.size()), exchange.get(), 0,
                                 session.put()));
    // A 3DES session key wrapped as SIMPLEBLOB.
    const auto* header = reinterpret_cast<const BLOBHEADER*>(keyBlob.data());
    EXPECT_EQ(SIMPLEBLOB, header->bType);
    EXPECT_EQ(static_cast<ALG_ID>(CALG_3DES), header->aiKeyAlg);
    DWORD cb = static_cast<DWORD>(data.size());
    EXPECT_TRUE(::CryptDecrypt(session.get(), 0, TRUE, 0, data.data(), &cb));
    data.resize(cb);
    return data;
}

class Db20WriterTest : public RegistrySandbox {
protected:
    Db20Database Write(std::uint32_t seed, unsigned users)
    {
        Db20Options o;
        o.seed = seed;
        o.userCount = users;
        Db20Database db = MakeDb20Database(o);
        m_containers.Track(db.hostId);
        EXPECT_EQ(S_OK, WriteDb20Database(db));
        return db;
    }

    ContainerJanitor m_containers;
};

} // namespace

TEST(Db20DerTest, ItemsEncodeAsTheLayoutNamesThem)
{
    EXPECT_EQ((Bytes{0x02, 0x01, 0x05}), der20::Uint(5));
    EXPECT_EQ((Bytes{0x02, 0x02, 0x00, 0x80}), der20::Uint(0x80));
    EXPECT_EQ((Bytes{0x02, 0x05, 0x00, 0x80, 0x00, 0x00, 0x01}), der20::Uint(0x80000001u));
    EXPECT_EQ((Bytes{0x02, 0x02, 0x02, 0x01}), der20::Uint(0x0201));
    EXPECT_EQ((Bytes{0x02, 0x01, 0xFF}), der20::Int(-1));
    EXPECT_EQ((Bytes{0x02, 0x01, 0x64}), der20::Int(100));
    EXPECT_EQ((Bytes{0x02, 0x05, 0x01, 0x04, 0x03, 0x02, 0x01}), der20::UintBytes({1, 2, 3, 4, 1}));
    EXPECT_EQ((Bytes{0x04, 0x10, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD,
                     0xEE, 0xFF}),
              der20::GuidOctets(kGuid));
    EXPECT_EQ((Bytes{0x1E, 0x06, 0x00, 0x61, 0x00, 0x62, 0x00, 0x00}), der20::Text(L"ab"));
    EXPECT_EQ((Bytes{0x1E, 0x06, 0x00, 0x61, 0x00, 0x62, 0x00, 0x00}), der20::AnyStringBmp(L"ab"));
    EXPECT_EQ((Bytes{0x04, 0x06, 0x61, 0x00, 0x62, 0x00, 0x00, 0x00}),
              der20::NameValue(CERT_RDN_OCTET_STRING, reinterpret_cast<const BYTE*>(L"ab"), 6));
    EXPECT_EQ((Bytes{0x30, 0x06, 0x02, 0x01, 0x01, 0x04, 0x01, 0x09}),
              der20::Seq({der20::Uint(1), der20::Octets(Bytes{9})}));
    EXPECT_EQ((Bytes{0x30, 0x00}), der20::Seq(std::vector<DerBytes>{}));
    EXPECT_EQ((Bytes{0x03, 0x03, 0x00, 0xAB, 0xCD}), der20::Bits({0xAB, 0xCD}));
}

TEST(Db20CombinedSecretTest, IsTheScrambledSequenceOfVersionPasswordAndPin)
{
    Db20Secret s;
    s.combined = true;
    s.combinedVersion = 1;
    s.hasPassword = true;
    s.password = L"ab";
    s.hasPin = true;
    s.pin = L"12";
    Bytes plain = {0x30, 0x13, 0x02, 0x01, 0x01};
    for (const Bytes& item : {Bmp(L"ab"), Bmp(L"12")})
        plain.insert(plain.end(), item.begin(), item.end());
    EXPECT_EQ(Scrambled(plain), EncodeDb20CombinedSecret(s));

    s.hasPin = false;
    plain = {0x30, 0x0B, 0x02, 0x01, 0x01};
    const Bytes pw = Bmp(L"ab");
    plain.insert(plain.end(), pw.begin(), pw.end());
    EXPECT_EQ(Scrambled(plain), EncodeDb20CombinedSecret(s));

    // A PIN without a password keeps its place as item 2 behind an empty password.
    s.hasPassword = false;
    s.password.clear();
    s.hasPin = true;
    s.combinedVersion = 9;
    plain = {0x30, 0x0F, 0x02, 0x01, 0x09};
    for (const Bytes& item : {Bmp(L""), Bmp(L"12")})
        plain.insert(plain.end(), item.begin(), item.end());
    EXPECT_EQ(Scrambled(plain), EncodeDb20CombinedSecret(s));

    s.hasPin = false;
    EXPECT_EQ(Scrambled({0x30, 0x03, 0x02, 0x01, 0x09}), EncodeDb20CombinedSecret(s));
}

TEST(Db20ModelTest, TheSameSeedGivesTheSameDatabase)
{
    Db20Options o;
    o.seed = 77;
    o.userCount = 30;
    o.computerName = L"HOST";
    const Db20Database a = MakeDb20Database(o);
    const Db20Database b = MakeDb20Database(o);
    EXPECT_TRUE(IsEqualGUID(a.hostId, b.hostId));
    ASSERT_EQ(30u, a.users.size());
    ASSERT_EQ(a.users.size(), b.users.size());
    for (size_t i = 0; i < a.users.size(); ++i) {
        const Db20User& x = a.users[i];
        const Db20User& y = b.users[i];
        EXPECT_TRUE(IsEqualGUID(x.guid, y.guid));
        EXPECT_EQ(x.sidText, y.sidText);
        EXPECT_EQ(x.accountControl, y.accountControl);
        ASSERT_EQ(x.credentials.size(), y.credentials.size());
        for (size_t c = 0; c < x.credentials.size(); ++c) {
            EXPECT_EQ(x.credentials[c].mask, y.credentials[c].mask);
            ASSERT_EQ(x.credentials[c].templates.size(), y.credentials[c].templates.size());
            for (size_t t = 0; t < x.credentials[c].templates.size(); ++t)
                EXPECT_EQ(x.credentials[c].templates[t].data, y.credentials[c].templates[t].data);
        }
        ASSERT_EQ(x.secrets.size(), y.secrets.size());
        for (size_t s = 0; s < x.secrets.size(); ++s) {
            EXPECT_EQ(x.secrets[s].name, y.secrets[s].name);
            EXPECT_EQ(x.secrets[s].content, y.secrets[s].content);
        }
        EXPECT_EQ(EncodeDb20UserList(x), EncodeDb20UserList(y));
    }

    o.seed = 78;
    const Db20Database c = MakeDb20Database(o);
    EXPECT_FALSE(IsEqualGUID(a.hostId, c.hostId));
    EXPECT_NE(a.users[0].sidText, c.users[0].sidText);
}

TEST(Db20ModelTest, TheModelIsRealisticAndConsistent)
{
    Db20Options o;
    o.seed = 5;
    o.userCount = 60;
    o.domainCount = 2;
    o.computerName = L"HOST";
    const Db20Database db = MakeDb20Database(o);
    std::set<std::wstring> sids, guids;
    unsigned domainUsers = 0, withoutFingerprints = 0, older = 0, logon = 0, longNames = 0, highBits = 0;
    for (const Db20User& u : db.users) {
        sids.insert(u.sidText);
        guids.insert(GuidText(u.guid));
        domainUsers += u.store != L"HOST";
        bool fingerprint = false;
        for (const Db20Credential& c : u.credentials) {
            if (c.credentialId != kDb20FingerprintCredentialId) {
                EXPECT_EQ(0u, c.mask);
                EXPECT_TRUE(c.templates.empty());
                continue;
            }
            fingerprint = true;
            // One template per set bit, ascending.
            unsigned bits = 0, last = 0;
            for (unsigned b = 0; b < 32; ++b)
                bits += (c.mask >> b) & 1;
            ASSERT_EQ(bits, c.templates.size());
            for (size_t t = 0; t < c.templates.size(); ++t) {
                EXPECT_TRUE(c.mask & (1u << c.templates[t].position));
                if (t) {
                    EXPECT_GT(c.templates[t].position, last);
                }
                last = c.templates[t].position;
                EXPECT_EQ(c.templates[t].size, c.templates[t].data.size());
            }
            highBits += (c.mask & 0x80000000u) != 0;
        }
        withoutFingerprints += !fingerprint;
        std::set<std::wstring> names;
        for (const Db20Secret& s : u.secrets) {
            EXPECT_TRUE(names.insert(s.valueName).second) << "duplicate value name";
            older += s.typeCode == kDb20OlderSecretTypeCode;
            logon += s.valueName == kDb20LogonInfoSecret;
            longNames += s.name.size() > 31;
            if (s.combined) {
                EXPECT_EQ(EncodeDb20CombinedSecret(s), s.content);
            }
        }
    }
    EXPECT_EQ(60u, sids.size());
    EXPECT_EQ(60u, guids.size());
    EXPECT_GT(domainUsers, 0u);
    EXPECT_GT(withoutFingerprints, 0u);
    EXPECT_GT(older, 0u);
    EXPECT_GT(logon, 40u);
    EXPECT_GT(longNames, 0u);
    EXPECT_GT(highBits, 0u);
}

TEST_F(Db20WriterTest, WritesTheDatabaseLayoutInThe32BitView)
{
    const Db20Database db = Write(101, 9);
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane", kView64));

    std::wstring version;
    ASSERT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"2.0", version);

    RegValue hostId;
    ASSERT_TRUE(GetValue(L"SOFTWARE\\Norvane\\NVHOST", L"HostId", kView32, &hostId));
    EXPECT_EQ(static_cast<DWORD>(REG_BINARY), hostId.type);
    Bytes expectedHost = {static_cast<BYTE>(db.hostId.Data1 >> 24), static_cast<BYTE>(db.hostId.Data1 >> 16),
                          static_cast<BYTE>(db.hostId.Data1 >> 8),  static_cast<BYTE>(db.hostId.Data1),
                          static_cast<BYTE>(db.hostId.Data2 >> 8),  static_cast<BYTE>(db.hostId.Data2),
                          static_cast<BYTE>(db.hostId.Data3 >> 8),  static_cast<BYTE>(db.hostId.Data3)};
    expectedHost.insert(expectedHost.end(), db.hostId.Data4, db.hostId.Data4 + 8);
    EXPECT_EQ(expectedHost, hostId.data);

    DWORD userList = 0xdeadbeef;
    ASSERT_TRUE(GetDword(L"SOFTWARE\\Norvane\\DB\\MainDB\\Users", L"", kView32, &userList));
    EXPECT_EQ(db.machineUserList, userList);
    EXPECT_GT(userList, 0u);
    for (const std::wstring& domain : db.domains)
        EXPECT_TRUE(KeyExists((L"SOFTWARE\\Norvane\\DB\\Cache\\" + domain + L"\\Users\\Index\\NameIndex").c_str(), kView32));

    std::vector<std::wstring> expectedKeys;
    for (const Db20User& u : db.users) {
        SCOPED_TRACE(Narrow(u.userName));
        const std::wstring index = (u.store == db.computerName ? std::wstring(L"SOFTWARE\\Norvane\\DB\\MainDB")
                                                                : L"SOFTWARE\\Norvane\\DB\\Cache\\" + u.store) +
                                   L"\\Users\\Index\\NameIndex";
        std::wstring text;
        ASSERT_TRUE(GetString(index.c_str(), u.userName.c_str(), kView32, &text));
        EXPECT_EQ(GuidText(u.guid), text);

        DWORD actCtrl = 0;
        ASSERT_TRUE(GetDword((L"SOFTWARE\\Norvane\\DB\\Policy\\Accounts\\" + u.sidText).c_str(), L"ActCtrl", kView32,
                             &actCtrl));
        EXPECT_EQ(u.accountControl, actCtrl);

        const std::wstring key = L"SOFTWARE\\Norvane\\DB\\Data\\Users\\" + GuidText(u.guid);
        expectedKeys.push_back(GuidText(u.guid));
        RegValue sealed;
        ASSERT_TRUE(GetValue(key.c_str(), L"", kView32, &sealed));
        EXPECT_EQ(static_cast<DWORD>(REG_BINARY), sealed.type);
        ASSERT_GT(sealed.data.size(), 4u);
        EXPECT_EQ(0, std::memcmp(sealed.data.data(), "NVOA", 4));

        std::vector<std::wstring> expectedValues = {L""};
        for (const Db20Secret& s : u.secrets) {
            RegValue record;
            ASSERT_TRUE(GetValue(key.c_str(), s.valueName.c_str(), kView32, &record));
            EXPECT_EQ(static_cast<DWORD>(REG_BINARY), record.type);
            expectedValues.push_back(s.valueName);
        }
        if (!u.accountControlField.empty()) {
            RegValue field;
            ASSERT_TRUE(GetValue(key.c_str(), u.accountControlField.c_str(), kView32, &field));
            const DWORD v = u.accountControl;
            EXPECT_EQ((Bytes{BYTE(v), BYTE(v >> 8), BYTE(v >> 16), BYTE(v >> 24)}), field.data);
            expectedValues.push_back(u.accountControlField);
        }
        std::vector<std::wstring> actualValues = ValueNames(key.c_str(), kView32);
        std::sort(actualValues.begin(), actualValues.end());
        std::sort(expectedValues.begin(), expectedValues.end());
        EXPECT_EQ(expectedValues, actualValues);
    }
    std::vector<std::wstring> keys = SubkeyNames(L"SOFTWARE\\Norvane\\DB\\Data\\Users", kView32);
    std::sort(keys.begin(), keys.end());
    std::sort(expectedKeys.begin(), expectedKeys.end());
    EXPECT_EQ(expectedKeys, keys);
}

TEST_F(Db20WriterTest, TheMachineContainerHoldsAnExportable2048BitExchangeKey)
{
    nvwriter::SetHostKeyBits(0); // the product's size, not the sandbox's quick one
    const Db20Database db = Write(102, 1);
    nv::unique_hcryptprov prov = OpenMachineContainer(db.hostId);
    nv::unique_hcryptkey key;
    ASSERT_TRUE(::CryptGetUserKey(prov.get(), AT_KEYEXCHANGE, key.put()));
    DWORD bits = 0, cb = sizeof(bits);
    ASSERT_TRUE(::CryptGetKeyParam(key.get(), KP_KEYLEN, reinterpret_cast<BYTE*>(&bits), &cb, 0));
    EXPECT_EQ(2048u, bits);
    DWORD permissions = 0;
    cb = sizeof(permissions);
    ASSERT_TRUE(::CryptGetKeyParam(key.get(), KP_PERMISSIONS, reinterpret_cast<BYTE*>(&permissions), &cb, 0));
    EXPECT_TRUE(permissions & CRYPT_EXPORT);
    key.reset();
    prov.reset();
    EXPECT_EQ(S_OK, DeleteDb20Container(db));
    EXPECT_FALSE(MachineContainerExists(db.hostId));
    EXPECT_EQ(S_FALSE, DeleteDb20Container(db));
}

TEST_F(Db20WriterTest, SealedUserValuesOpenWithTheMachineKeyToASignedUserList)
{
    const Db20Database db = Write(103, 3);
    nv::unique_hcryptprov prov = OpenMachineContainer(db.hostId);
    const Bytes publicKey = PublicKeyInfoOf(prov.get());
    const Bytes keyInfo = Decode(X509_PUBLIC_KEY_INFO, publicKey);
    for (const Db20User& u : db.users) {
        RegValue value;
        ASSERT_TRUE(GetValue((L"SOFTWARE\\Norvane\\DB\\Data\\Users\\" + GuidText(u.guid)).c_str(), L"", kView32, &value));
        const std::vector<Bytes> seal = Items(Bytes(value.data.begin() + 4, value.data.end()));
        ASSERT_EQ(2u, seal.size());
        EXPECT_EQ((Bytes{0x02, 0x01, 0x02}), seal[0]);
        const Bytes envelope = Opened(prov.get(), OctetsOf(seal[1]));

        // md5RSA by the machine key.
        EXPECT_TRUE(::CryptVerifyCertificateSignature(
            0, kDer, envelope.data(), static_cast<DWORD>(envelope.size()),
            reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(const_cast<BYTE*>(keyInfo.data()))));
        const std::vector<Bytes> outer = Items(ToBeSigned(envelope));
        ASSERT_EQ(2u, outer.size());
        EXPECT_EQ(EncodeDb20UserList(u), OctetsOf(outer[0]));
        EXPECT_EQ((Bytes{0x02, 0x01, 0x01}), outer[1]);
    }
}

TEST_F(Db20WriterTest, TheUserListPlacesEveryItemByPosition)
{
    Db20User u;
    u.guid = kGuid;
    u.headerGuid = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
    u.sidText = L"S-1-5-21-1-2-3-1000";
    u.displayName = L"D";
    u.headerNumbers[0] = 7;
    u.headerNumbers[1] = 300;
    Db20Credential other;
    other.credentialId = 1;
    Db20Credential fp;
    fp.credentialId = kDb20FingerprintCredentialId;
    fp.mask = 0x5;
    Db20Template t;
    t.position = 0;
    t.format = 1;
    t.flags = 2;
    t.type = kGuid;
    t.owner = u.headerGuid;
    t.size = 3;
    t.headerValue = 42;
    t.data = {0xA, 0xB, 0xC};
    fp.templates = {t, t};
    fp.templates[1].position = 2;
    u.credentials = {other, fp};

    const std::vector<Bytes> list = Items(EncodeDb20UserList(u));
    ASSERT_EQ(8u, list.size()); // header, count, (1, 0), (2, 5), two templates
    const std::vector<Bytes> header = Items(list[0]);
    ASSERT_EQ(9u, header.size());
    EXPECT_EQ(der20::GuidOctets(u.headerGuid), header[0]);
    EXPECT_EQ(der20::GuidOctets(kGuid), header[1]);
    EXPECT_EQ(Bmp(L"D"), header[5]);
    EXPECT_EQ(Bmp(L"S-1-5-21-1-2-3-1000"), header[6]);
    EXPECT_EQ((Bytes{0x02, 0x01, 0x07}), header[7]);
    EXPECT_EQ((Bytes{0x02, 0x02, 0x01, 0x2C}), header[8]);
    EXPECT_EQ((Bytes{0x02, 0x01, 0x02}), list[1]);
    EXPECT_EQ((Bytes{0x02, 0x01, 0x01}), list[2]);
    EXPECT_EQ((Bytes{0x02, 0x01, 0x00}), list[3]);
    EXPECT_EQ((Bytes{0x02, 0x01, 0x02}), list[4]);
    EXPECT_EQ((Bytes{0x02, 0x01, 0x05}), list[5]);
    // Template item: OCTET STRING { SEQUENCE { SEQUENCE { info, INTEGER }, OCTET STRING data } }.
    const std::vector<Bytes> item = Items(OctetsOf(list[6]));
    ASSERT_EQ(2u, item.size());
    const std::vector<Bytes> head = Items(item[0]);
    ASSERT_EQ(2u, head.size());
    EXPECT_EQ((Bytes{0x02, 0x01, 0x2A}), head[1]);
    const std::vector<Bytes> info = Items(head[0]);
    ASSERT_EQ(5u, info.size());
    EXPECT_EQ((Bytes{0x02, 0x01, 0x01}), info[0]);
    EXPECT_EQ((Bytes{0x02, 0x01, 0x02}), info[1]);
    EXPECT_EQ(der20::GuidOctets(kGuid), info[2]);
    EXPECT_EQ(der20::GuidOctets(u.headerGuid), info[3]);
    EXPECT_EQ((Bytes{0x02, 0x01, 0x03}), info[4]);
    EXPECT_EQ((Bytes{0x04, 0x03, 0xA, 0xB, 0xC}), item[1]);
    EXPECT_EQ(list[6], list[7]);
}

TEST_F(Db20WriterTest, MalformedVariantsBreakWhatTheyName)
{
    Db20User u;
    u.guid = kGuid;
    u.sidText = L"S-1-5-18";
    u.credentials.resize(1);
    u.credentials[0].credentialId = 4;

    u.defect = Db20Defect::Guid15;
    EXPECT_EQ(17u, Items(Items(EncodeDb20UserList(u))[0])[1].size()); // 04 0F + 15 bytes
    u.defect = Db20Defect::Guid17;
    EXPECT_EQ(19u, Items(Items(EncodeDb20UserList(u))[0])[1].size());
    u.defect = Db20Defect::TextType2;
    const Bytes sid = Items(Items(EncodeDb20UserList(u))[0])[6];
    EXPECT_EQ(0x04, sid[0]);
    EXPECT_EQ(18u, sid[1]);
    u.defect = Db20Defect::FiveByteNumber;
    EXPECT_EQ((Bytes{0x02, 0x05, 0x01, 0x00, 0x00, 0x00, 0x01}), Items(EncodeDb20UserList(u))[1]);
}

TEST_F(Db20WriterTest, MalformedVariantsInTheRegistry)
{
    Db20Options o;
    o.seed = 104;
    o.userCount = 6;
    o.defects = {{0, Db20Defect::WrongMagic},         {1, Db20Defect::SealVersion1},
                 {2, Db20Defect::SealVersion3},       {3, Db20Defect::StringDefaultValue},
                 {4, Db20Defect::MissingActCtrl},     {5, Db20Defect::DuplicateSid}};
    Db20Database db = MakeDb20Database(o);
    m_containers.Track(db.hostId);
    ASSERT_EQ(S_OK, WriteDb20Database(db));
    auto value = [&](unsigned i) {
        RegValue v;
        EXPECT_TRUE(GetValue((L"SOFTWARE\\Norvane\\DB\\Data\\Users\\" + GuidText(db.users[i].guid)).c_str(), L"",
                             kView32, &v));
        return v;
    };
    auto sealVersion = [&](unsigned i) {
        const RegValue v = value(i);
        const std::vector<Bytes> seal = Items(Bytes(v.data.begin() + 4, v.data.end()));
        return seal.empty() ? Bytes() : seal[0];
    };
    const RegValue wrongMagic = value(0);
    ASSERT_GT(wrongMagic.data.size(), 4u);
    EXPECT_EQ(0, std::memcmp(wrongMagic.data.data(), "NVOX", 4));
    EXPECT_EQ((Bytes{0x02, 0x01, 0x02}), sealVersion(0));
    EXPECT_EQ((Bytes{0x02, 0x01, 0x01}), sealVersion(1));
    EXPECT_EQ((Bytes{0x02, 0x01, 0x03}), sealVersion(2));
    EXPECT_EQ(static_cast<DWORD>(REG_SZ), value(3).type);
    const std::wstring policy4 = L"SOFTWARE\\Norvane\\DB\\Policy\\Accounts\\" + db.users[4].sidText;
    EXPECT_TRUE(KeyExists(policy4.c_str(), kView32));
    RegValue none;
    EXPECT_FALSE(GetValue(policy4.c_str(), L"ActCtrl", kView32, &none));
    EXPECT_EQ(db.users[4].sidText, db.users[5].sidText);
    EXPECT_FALSE(db.users[4].writeActCtrl);
    EXPECT_FALSE(db.users[5].writeActCtrl);
    EXPECT_NE(db.users[3].sidText, db.users[4].sidText);
}

TEST_F(Db20WriterTest, SecretsAreExportRecordsAroundSealedContent)
{
    Db20Options o;
    o.seed = 105;
    o.userCount = 1;
    Db20Database db = MakeDb20Database(o);
    Db20User& u = db.users[0];
    u.secrets.clear();
    Db20Secret current;
    current.valueName = current.name = L"Current";
    current.headerGuid = kGuid;
    current.headerValue = 4;
    current.guid = {9, 8, 7, {6, 5, 4, 3, 2, 1, 0, 1}};
    current.content = {1, 2, 3};
    Db20Secret older = current;
    older.valueName = older.name = L"Older";
    older.typeCode = kDb20OlderSecretTypeCode;
    u.secrets = {current, older};
    m_containers.Track(db.hostId);
    ASSERT_EQ(S_OK, WriteDb20Database(db));
    nv::unique_hcryptprov prov = OpenMachineContainer(db.hostId);

    const std::wstring key = L"SOFTWARE\\Norvane\\DB\\Data\\Users\\" + GuidText(u.guid);
    for (const Db20Secret& s : u.secrets) {
        SCOPED_TRACE(Narrow(s.name));
        RegValue v;
        ASSERT_TRUE(GetValue(key.c_str(), s.valueName.c_str(), kView32, &v));
        // Export record: data, two empty identifier bit strings, time.
        const std::vector<Bytes> record = Items(ToBeSigned(v.data));
        ASSERT_EQ(4u, record.size());
        EXPECT_EQ((Bytes{0x03, 0x01, 0x00}), record[1]);
        EXPECT_EQ((Bytes{0x03, 0x01, 0x00}), record[2]);
        const std::vector<Bytes> data = Items(OctetsOf(record[0]));
        ASSERT_EQ(4u, data.size());
        EXPECT_EQ(der20::Seq({der20::GuidOctets(kGuid), der20::Uint(s.typeCode), der20::Uint(4)}), data[0]);
        if (s.typeCode == kDb20SecretTypeCode) {
            EXPECT_EQ(der20::GuidOctets(s.guid), data[1]);
            EXPECT_EQ(Bmp(s.name), data[2]);
        } else {
            EXPECT_EQ(der20::Seq({der20::Uint(1), Bmp(s.name), der20::GuidOctets(s.guid), der20::Uint(0)}), data[1]);
            EXPECT_EQ((Bytes{0x04, 0x00}), data[2]);
        }
        EXPECT_EQ(s.content, Opened(prov.get(), OctetsOf(data[3])));
    }
}

TEST_F(Db20WriterTest, WriteUsersFillsAnExistingTreeWithoutTouchingTheRest)
{
    SetString(kDbPath, L"Version", L"1.0", kView32);
    SetBinary(L"SOFTWARE\\Norvane\\DB\\MainDB\\Users\\Index\\NameIndex", L"alice/", Bytes(16, 1), kView32);
    const RegTree before = Snapshot(L"SOFTWARE\\Norvane\\DB\\MainDB", kView32);

    Db20Options o;
    o.seed = 106;
    o.userCount = 3;
    Db20Database db = MakeDb20Database(o);
    m_containers.Track(db.hostId);
    ASSERT_EQ(S_OK, WriteDb20Users(db));

    std::wstring version;
    ASSERT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"1.0", version);
    const RegTree after = Snapshot(L"SOFTWARE\\Norvane\\DB\\MainDB", kView32);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Cache", kView32));
    EXPECT_EQ((std::vector<std::wstring>{L"Data", L"MainDB", L"Policy"}), SubkeyNames(kDbPath, kView32));
    EXPECT_EQ(3u, SubkeyNames(L"SOFTWARE\\Norvane\\DB\\Data\\Users", kView32).size());
    EXPECT_TRUE(MachineContainerExists(db.hostId));
    RegValue hostId;
    EXPECT_TRUE(GetValue(L"SOFTWARE\\Norvane\\NVHOST", L"HostId", kView32, &hostId));
}
