#include "writer/db20_writer.h"

#include <algorithm>
#include <cstring>
#include "common/handles.h"
#include "common/hresult.h"
#include "common/regkey.h"
#include "common/teacfb.h"
#include "secret_keys.h"
#include "writer/host_provisioning.h"

namespace nvwriter {

namespace {

// Relative to the database key.
constexpr const wchar_t kDataUsersRel[] = L"Data\\Users";
constexpr const wchar_t kAccountsRel[] = L"Policy\\Accounts";
constexpr const wchar_t kActCtrlValue[] = L"ActCtrl";
constexpr DWORD kOtherCredentialIds[] = {1, 3, 4}; // password, token, smart card
constexpr DWORD kOlderDescriptionVersion = 1;

// Template kinds of the old product's fingerprint engine.
constexpr GUID kTemplateTypes[2] = {
    {0x5A1E0C31, 0x8F2B, 0x4C7D, {0x9E, 0x10, 0x3B, 0x6A, 0x27, 0xD4, 0x81, 0x55}},
    {0x0B9C47E2, 0x1D3A, 0x4F60, {0xA7, 0x2E, 0x55, 0x91, 0xC8, 0x3F, 0x06, 0xBB}},
};

// The 2.0 model's draws on the shared generator, which depends on nothing but the
// seed. GUIDs and byte strings are drawn as this writer has always drawn them (a GUID
// from three draws, one draw a byte), so that a seed still writes the same database.
class Rng {
public:
    explicit Rng(std::uint64_t seed) : m_prng(0x6A09E667F3BCC909ull ^ seed) {}
    DWORD U32() { return static_cast<DWORD>(m_prng.Next() >> 32); }
    DWORD Below(DWORD n) { return m_prng.Below(n); }
    GUID Guid()
    {
        GUID g;
        g.Data1 = U32();
        const DWORD w = U32();
        g.Data2 = static_cast<WORD>(w);
        g.Data3 = static_cast<WORD>(((w >> 16) & 0x0FFF) | 0x4000);
        const std::uint64_t tail = m_prng.Next();
        std::memcpy(g.Data4, &tail, 8);
        g.Data4[0] = static_cast<BYTE>((g.Data4[0] & 0x3F) | 0x80);
        return g;
    }
    std::vector<BYTE> Bytes(size_t n)
    {
        std::vector<BYTE> b(n);
        for (auto& x : b)
            x = static_cast<BYTE>(m_prng.Next() >> 56);
        return b;
    }
    std::wstring Chars(size_t n, const wchar_t* alphabet) { return m_prng.Chars(n, alphabet); }

private:
    Prng m_prng;
};

std::wstring ThisComputerName()
{
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD cch = MAX_COMPUTERNAME_LENGTH + 1;
    nv::ThrowLastErrorIf(!::GetComputerNameW(name, &cch));
    return std::wstring(name, cch);
}

std::wstring SidPrefix(Rng& rng)
{
    return L"S-1-5-21-" + std::to_wstring(rng.U32()) + L"-" + std::to_wstring(rng.U32()) + L"-" +
           std::to_wstring(rng.U32());
}

FILETIME TimeInDecade(Rng& rng)
{
    // 2006-01-01 plus up to ten years, whole seconds (what UTCTime keeps).
    const std::uint64_t unixSeconds = 1136073600ull + rng.Below(315360000u);
    const std::uint64_t ticks = (unixSeconds + 11644473600ull) * 10000000ull;
    return FILETIME{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

Db20Credential MakeFingerprintEntry(Rng& rng, bool highPositions)
{
    Db20Credential entry;
    entry.credentialId = kDb20FingerprintCredentialId;
    const unsigned fingers = 1 + rng.Below(4);
    while (static_cast<unsigned>(__builtin_popcount(entry.mask)) < fingers)
        entry.mask |= 1u << rng.Below(10);
    if (highPositions)
        entry.mask |= 0x80000000u | (1u << (16 + rng.Below(15)));
    for (unsigned bit = 0; bit < 32; ++bit) {
        if (!(entry.mask & (1u << bit)))
            continue;
        Db20Template t;
        t.position = bit;
        const DWORD kind = rng.Below(2);
        t.format = 1 + kind;
        t.flags = rng.Below(4);
        t.type = kTemplateTypes[kind];
        t.owner = rng.Guid();
        t.data = rng.Bytes(64 + rng.Below(512));
        t.size = static_cast<DWORD>(t.data.size());
        t.headerValue = static_cast<LONG>(rng.Below(101));
        entry.templates.push_back(std::move(t));
    }
    return entry;
}

Db20Credential OtherEntry(DWORD credentialId)
{
    Db20Credential entry;
    entry.credentialId = credentialId;
    return entry;
}

Db20Secret MakeLogonInfoSecret(Rng& rng, unsigned index)
{
    Db20Secret s;
    s.valueName = s.name = kDb20LogonInfoSecret;
    s.headerGuid = rng.Guid();
    s.headerValue = rng.Below(8);
    s.guid = rng.Guid();
    s.combined = true;
    s.combinedVersion = (index % 11 == 5) ? 9 : 1;
    s.hasPassword = true;
    s.password = rng.Chars(6 + rng.Below(15), L"abcdefghijkmnopqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXYZ23456789!#%+-_");
    if (index % 7 == 3)
        s.password.clear(); // an empty password item
    s.hasPin = (index % 2 == 0);
    if (s.hasPin)
        s.pin = rng.Chars(4 + rng.Below(5), L"0123456789");
    s.content = EncodeDb20CombinedSecret(s);
    return s;
}

Db20Secret MakePlainSecret(Rng& rng, const std::wstring& name, bool older)
{
    Db20Secret s;
    s.valueName = s.name = name;
    s.headerGuid = rng.Guid();
    s.headerValue = rng.Below(8);
    s.typeCode = older ? kDb20OlderSecretTypeCode : kDb20SecretTypeCode;
    s.guid = rng.Guid();
    s.content = rng.Bytes(8 + rng.Below(120));
    return s;
}

const wchar_t* const kSecretNames[] = {
    L"Domain Password", L"Mail Account", L"VPN Token", L"Web Credential",
    L"Corporate Single Sign-On Credential Store", // longer than a record name keeps
    L"Backup PIN",
};

void ApplyDefect(Db20Database& db, size_t index, Db20Defect defect)
{
    Db20User& user = db.users[index];
    user.defect = defect;
    if (defect == Db20Defect::MissingActCtrl)
        user.writeActCtrl = false;
    if (defect == Db20Defect::DuplicateSid && index > 0) {
        // Both users share the policy key, so they share what it holds.
        user.sidText = db.users[index - 1].sidText;
        user.accountControl = db.users[index - 1].accountControl;
        user.writeActCtrl = db.users[index - 1].writeActCtrl;
    }
}

// X509_CERT over the to-be-signed bytes. With a provider, signed with md5RSA by its
// key-exchange key; with none, a filler signature that verifies against no key.
DerBytes SignedEnvelope(HCRYPTPROV hProv, const std::vector<DerBytes>& items)
{
    if (hProv)
        return MakeSignedSequence(hProv, items);
    const DerBytes toBeSigned = der20::Seq(items);
    DerBytes signature(256, 0xA5);
    CERT_SIGNED_CONTENT_INFO info{};
    info.ToBeSigned = {static_cast<DWORD>(toBeSigned.size()), const_cast<BYTE*>(toBeSigned.data())};
    info.SignatureAlgorithm = {const_cast<LPSTR>(kMd5RsaOid), {0, nullptr}};
    info.Signature = {static_cast<DWORD>(signature.size()), signature.data(), 0};
    return der20::Encode(X509_CERT, &info);
}

// One store: MainDB or Cache\<domain>, its user list value and its name index.
void WriteStore(DbWriter& writer, const Db20Database& db, const std::wstring& store, bool machine)
{
    const std::wstring storePath = machine ? std::wstring(L"MainDB") : L"Cache\\" + store;
    DWORD userList = 0;
    for (const Db20User& user : db.users)
        userList += (user.store == store) ? 1 : 0;
    writer.SetDword(storePath + L"\\Users", L"", machine ? db.machineUserList : userList);
    const std::wstring index = storePath + L"\\Users\\Index\\NameIndex";
    writer.CreateKey(index);
    for (const Db20User& user : db.users) {
        if (user.store != store)
            continue;
        writer.SetString(index, user.userName, GuidText(user.guid));
        UserRecord record;
        record.store = machine ? std::wstring() : store;
        record.name = user.userName;
        record.id = user.guid;
        record.userKeyPath = std::wstring(kDataUsersRel) + L"\\" + GuidText(user.guid);
        writer.record().users.push_back(record);
    }
    StoreRecord record;
    record.name = machine ? std::wstring() : store;
    record.machine = machine;
    record.nameIndexPath = index;
    writer.record().stores.push_back(record);
}

DerBytes TemplateItem(const Db20Template& t)
{
    using namespace der20;
    const DerBytes info = Seq({Uint(t.format), Uint(t.flags), GuidOctets(t.type), GuidOctets(t.owner), Uint(t.size)});
    return Octets(Seq({Seq({info, Int(t.headerValue)}), Octets(t.data)}));
}

void WriteUser(DbWriter& writer, HCRYPTPROV hProv, const Db20User& user)
{
    const std::wstring policy = std::wstring(kAccountsRel) + L"\\" + user.sidText;
    writer.CreateKey(policy);
    if (user.writeActCtrl)
        writer.SetDword(policy, kActCtrlValue, user.accountControl);

    const std::wstring key = std::wstring(kDataUsersRel) + L"\\" + GuidText(user.guid);
    writer.CreateKey(key);
    if (user.defect == Db20Defect::StringDefaultValue) {
        writer.SetString(key, L"", user.displayName);
    } else {
        const DerBytes blob = EncodeDb20UserBlob(hProv, user);
        static constexpr BYTE kWrongMagic[4] = {'N', 'V', 'O', 'X'};
        DWORD version = kDb20SealVersion;
        if (user.defect == Db20Defect::SealVersion1)
            version = 1;
        if (user.defect == Db20Defect::SealVersion3)
            version = 3;
        writer.SetBinary(key, L"",
                         SealDb20UserBlob(hProv, blob, version,
                                          user.defect == Db20Defect::WrongMagic ? kWrongMagic : kDb20SealMagic));
    }

    for (const Db20Secret& secret : user.secrets) {
        // As the old product wrote them: empty identifier bit strings.
        ExportRecordItems items;
        items.data = EncodeDb20SecretRecord(secret, SealDb20Content(hProv, secret.content));
        items.time = user.times[1];
        writer.SetBinary(key, secret.valueName, MakeExportRecord(hProv, items));
    }
    if (!user.accountControlField.empty()) {
        const DWORD v = user.accountControl;
        writer.SetBinary(key, user.accountControlField, {BYTE(v), BYTE(v >> 8), BYTE(v >> 16), BYTE(v >> 24)});
    }
}

} // namespace

Db20Database MakeDb20Database(const Db20Options& options)
{
    Rng rng(options.seed);
    Db20Database db;
    db.hostId = rng.Guid();
    db.computerName = options.computerName.empty() ? ThisComputerName() : options.computerName;
    const std::wstring machinePrefix = SidPrefix(rng);
    std::vector<std::wstring> domainPrefixes;
    for (unsigned d = 0; d < options.domainCount; ++d) {
        db.domains.push_back(d < options.domainNames.size() ? options.domainNames[d]
                                                           : L"NVDOMAIN" + std::to_wstring(d + 1));
        domainPrefixes.push_back(SidPrefix(rng));
    }

    static constexpr DWORD kAccountControls[] = {0, 0x1, 0x2, 0x10, 0x200, 0x10000, 0x80000001u};
    for (unsigned i = 0; i < options.userCount; ++i) {
        Db20User user;
        const bool domainUser = !db.domains.empty() && i % 3 == 2;
        const unsigned domain = domainUser ? (i / 3) % static_cast<unsigned>(db.domains.size()) : 0;
        user.store = domainUser ? db.domains[domain] : db.computerName;
        wchar_t name[32];
        ::swprintf(name, 32, L"user%03u", i);
        user.userName = name;
        user.headerGuid = rng.Guid();
        user.guid = rng.Guid();
        for (FILETIME& t : user.times)
            t = TimeInDecade(rng);
        user.displayName = L"Test User " + std::to_wstring(i);
        user.sidText = (domainUser ? domainPrefixes[domain] : machinePrefix) + L"-" + std::to_wstring(1000 + i);
        user.headerNumbers[0] = rng.Below(16);
        user.headerNumbers[1] = rng.Below(1000);

        switch (i % 6) {
        case 0:
            user.credentials.push_back(MakeFingerprintEntry(rng, false));
            break;
        case 1:
            user.credentials.push_back(OtherEntry(kOtherCredentialIds[0]));
            user.credentials.push_back(MakeFingerprintEntry(rng, false));
            break;
        case 2:
            user.credentials.push_back(MakeFingerprintEntry(rng, false));
            user.credentials.push_back(OtherEntry(kOtherCredentialIds[2]));
            break;
        case 3:
            user.credentials.push_back(OtherEntry(kOtherCredentialIds[0]));
            break;
        case 4:
            user.credentials.push_back(OtherEntry(kOtherCredentialIds[0]));
            user.credentials.push_back(MakeFingerprintEntry(rng, false));
            user.credentials.push_back(OtherEntry(kOtherCredentialIds[1]));
            break;
        default:
            user.credentials.push_back(MakeFingerprintEntry(rng, true));
            break;
        }

        user.accountControl = (i % 8 == 7) ? rng.U32() : kAccountControls[rng.Below(7)];
        if (i % 9 == 8)
            user.accountControlField.clear();
        else if (i % 4 == 3)
            user.accountControlField = L"accountcontrol";

        if (i % 5 != 4)
            user.secrets.push_back(MakeLogonInfoSecret(rng, i));
        const unsigned extra = rng.Below(4);
        for (unsigned s = 0; s < extra; ++s) {
            const std::wstring base = kSecretNames[(i + s) % (sizeof(kSecretNames) / sizeof(kSecretNames[0]))];
            user.secrets.push_back(MakePlainSecret(rng, base, rng.Below(4) == 0));
        }
        db.users.push_back(std::move(user));
    }

    db.machineUserList = 0;
    for (const Db20User& user : db.users)
        db.machineUserList += (user.store == db.computerName) ? 1 : 0;

    for (const auto& [index, defect] : options.defects) {
        if (index < db.users.size())
            ApplyDefect(db, index, defect);
    }
    return db;
}

DerBytes EncodeDb20UserList(const Db20User& user)
{
    using namespace der20;
    DerBytes guidItem;
    if (user.defect == Db20Defect::Guid15 || user.defect == Db20Defect::Guid17) {
        DerBytes raw = GuidNetworkBytes(user.guid);
        raw.resize(user.defect == Db20Defect::Guid15 ? 15 : 17, 0x5A);
        guidItem = Octets(raw);
    } else {
        guidItem = GuidOctets(user.guid);
    }
    DerBytes sidItem;
    if (user.defect == Db20Defect::TextType2) {
        sidItem = NameValue(CERT_RDN_OCTET_STRING, reinterpret_cast<const BYTE*>(user.sidText.c_str()),
                            static_cast<DWORD>((user.sidText.size() + 1) * sizeof(wchar_t)));
    } else {
        sidItem = Text(user.sidText);
    }
    const DerBytes header = Seq({GuidOctets(user.headerGuid), guidItem, Time(user.times[0]), Time(user.times[1]),
                                 Time(user.times[2]), Text(user.displayName), sidItem, Uint(user.headerNumbers[0]),
                                 Uint(user.headerNumbers[1])});

    std::vector<DerBytes> items;
    items.push_back(header);
    const DWORD count = static_cast<DWORD>(user.credentials.size());
    if (user.defect == Db20Defect::FiveByteNumber)
        items.push_back(UintBytes({BYTE(count), BYTE(count >> 8), BYTE(count >> 16), BYTE(count >> 24), 0x01}));
    else
        items.push_back(Uint(count));
    for (const Db20Credential& entry : user.credentials) {
        items.push_back(Uint(entry.credentialId));
        items.push_back(Uint(entry.mask));
        if (entry.credentialId == kDb20FingerprintCredentialId) {
            for (const Db20Template& t : entry.templates)
                items.push_back(TemplateItem(t));
        }
        for (const DerBytes& extra : entry.extraItems)
            items.push_back(extra);
    }
    return Seq(items);
}

DerBytes EncodeDb20UserBlob(HCRYPTPROV hProv, const Db20User& user)
{
    using namespace der20;
    return SignedEnvelope(hProv, {Octets(EncodeDb20UserList(user)), Uint(kDb20RecordVersion)});
}

DerBytes SealDb20Content(HCRYPTPROV hProv, const std::vector<BYTE>& plain)
{
    nv::unique_hcryptkey exchange;
    nv::ThrowLastErrorIf(!::CryptGetUserKey(hProv, AT_KEYEXCHANGE, exchange.put()));
    nv::unique_hcryptkey session;
    nv::ThrowLastErrorIf(!::CryptGenKey(hProv, CALG_3DES, CRYPT_EXPORTABLE, session.put()));

    DWORD cbKey = 0;
    nv::ThrowLastErrorIf(!::CryptExportKey(session.get(), exchange.get(), SIMPLEBLOB, 0, nullptr, &cbKey));
    DerBytes keyBlob(cbKey);
    nv::ThrowLastErrorIf(!::CryptExportKey(session.get(), exchange.get(), SIMPLEBLOB, 0, keyBlob.data(), &cbKey));
    keyBlob.resize(cbKey);

    DWORD cbCipher = static_cast<DWORD>(plain.size());
    nv::ThrowLastErrorIf(!::CryptEncrypt(session.get(), 0, TRUE, 0, nullptr, &cbCipher, 0));
    DerBytes cipher(std::max<size_t>(cbCipher, plain.size()));
    std::copy(plain.begin(), plain.end(), cipher.begin());
    DWORD cbData = static_cast<DWORD>(plain.size());
    nv::ThrowLastErrorIf(
        !::CryptEncrypt(session.get(), 0, TRUE, 0, cipher.data(), &cbData, static_cast<DWORD>(cipher.size())));
    cipher.resize(cbData);
    return der20::Seq({der20::Octets(keyBlob), der20::Octets(cipher)});
}

DerBytes SealDb20UserBlob(HCRYPTPROV hProv, const DerBytes& userBlob, DWORD sealVersion, const BYTE magic[4])
{
    const DerBytes seal = der20::Seq({der20::Uint(sealVersion), der20::Octets(SealDb20Content(hProv, userBlob))});
    DerBytes value(4 + seal.size());
    for (size_t i = 0; i < 4; ++i)
        value[i] = magic[i];
    std::copy(seal.begin(), seal.end(), value.begin() + 4);
    return value;
}

DerBytes EncodeDb20SecretRecord(const Db20Secret& secret, const DerBytes& sealedContent)
{
    using namespace der20;
    const DerBytes header = Seq({GuidOctets(secret.headerGuid), Uint(secret.typeCode), Uint(secret.headerValue)});
    if (secret.typeCode == kDb20SecretTypeCode)
        return Seq({header, GuidOctets(secret.guid), Text(secret.name), Octets(sealedContent)});
    // Older records: the description carries name and GUID; item 2 stays empty.
    const DerBytes description = Seq({Uint(kOlderDescriptionVersion), Text(secret.name), GuidOctets(secret.guid), Uint(0)});
    return Seq({header, description, Octets(nullptr, 0), Octets(sealedContent)});
}

void ScrambleDb20(std::vector<BYTE>& bytes)
{
    std::uint32_t key[4];
    for (int i = 0; i < 4; ++i)
        key[i] = nvkeys::kSecretKeyWords[i] ^ nvkeys::kSecretKeyMasks[i];
    std::uint8_t iv[8];
    nvcipher::WordsToRegister(nvkeys::kSecretInitialRegister, iv);
    nvcipher::CfbEncrypt(key, iv, bytes.data(), bytes.data(), bytes.size());
    ::SecureZeroMemory(key, sizeof(key));
}

std::vector<BYTE> EncodeDb20CombinedSecret(const Db20Secret& secret)
{
    std::vector<DerBytes> items;
    items.push_back(der20::Uint(secret.combinedVersion));
    // The PIN is item 2: it is only written after a password item.
    if (secret.hasPassword || secret.hasPin)
        items.push_back(der20::AnyStringBmp(secret.password));
    if (secret.hasPin)
        items.push_back(der20::AnyStringBmp(secret.pin));
    std::vector<BYTE> encoded = der20::Seq(items);
    for (DerBytes& item : items)
        ::SecureZeroMemory(item.data(), item.size());
    ScrambleDb20(encoded);
    return encoded;
}

void WriteUsers20(DbWriter& writer, const Db20Database& db)
{
    // The host belongs to the machine, not to the database: always the 32-bit view.
    ProvisionHost(db.hostId, KEY_WOW64_32KEY);
    const nv::unique_hcryptprov prov = OpenMachineContainer(db.hostId);
    writer.CreateKey(kDataUsersRel);
    for (const Db20User& user : db.users)
        WriteUser(writer, prov.get(), user);
    writer.Flush();
}

void Write20(DbWriter& writer, const Db20Database& db)
{
    WriteVersion(writer, L"2.0");
    WriteStore(writer, db, db.computerName, true);
    for (const std::wstring& domain : db.domains)
        WriteStore(writer, db, domain, false);
    WriteUsers20(writer, db);
}

Db20Options Db20OptionsFrom(const DbOptions& options)
{
    Db20Options o;
    o.domainNames = DomainNames10(options);
    o.domainCount = static_cast<unsigned>(o.domainNames.size());
    if (options.format == DbFormat::V20) {
        o.seed = options.seed;
        o.userCount = options.users;
    } else {
        // The 2.0-style users of a 1.0 database: a stream of their own.
        o.seed = options.seed ^ 0x2020202020202020ull;
        o.userCount = options.users20;
    }
    return o;
}

HRESULT WriteDb20Users(const Db20Database& db) noexcept
{
    return nv::Guarded([&]() -> HRESULT {
        DbWriter writer(kDefaultDbPath, KEY_WOW64_32KEY);
        WriteUsers20(writer, db);
        return S_OK;
    });
}

HRESULT WriteDb20Database(const Db20Database& db) noexcept
{
    return nv::Guarded([&]() -> HRESULT {
        DbWriter writer(kDefaultDbPath, KEY_WOW64_32KEY);
        Write20(writer, db);
        return S_OK;
    });
}

HRESULT DeleteDb20Container(const Db20Database& db) noexcept
{
    return nv::Guarded([&]() -> HRESULT { return DeleteMachineContainer(db.hostId) ? S_OK : S_FALSE; });
}

} // namespace nvwriter
