#include "parser_targets.h"

#include <comdef.h>
#include <oleauto.h>
#include <cstdio>
#include <cstring>
#include <set>

#include "common/handles.h"
#include "converter3/secretpacking.h"
#include "legacydb/derreader.h"
#include "legacydb/secretrecord.h"
#include "legacydb/userextractor.h"
#include "security/securitycontext.h"
#include "writer/db20_der.h"
#include "writer/db20_writer.h"
#include "writer/host_provisioning.h"
#include "support/db_paths.h"
#include "support/text_util.h"

namespace nvfuzz {

using nvtest::Hex;
using nvtest::kDbPath;

namespace {

// The harness's own machine: a host identifier and a container no test uses.
constexpr GUID kFuzzHostId = {0x6E0F5A21, 0x3C4D, 0x4B7E, {0x9A, 0x11, 0x52, 0xF0, 0x0D, 0xBE, 0xEF, 0x14}};
// The machine key of the harness, the same in every run so that a saved sealed input
// still opens when it is replayed. Unsealing costs one RSA private-key operation per
// input; the format does not depend on the key's size, so this is a key of 512 bits,
// the smallest the provider takes for a 3DES key blob (a PRIVATEKEYBLOB, made once by
// CryptGenKey and CryptExportKey).
constexpr BYTE kFuzzMachineKey[] = {
    0x07, 0x02, 0x00, 0x00, 0x00, 0xA4, 0x00, 0x00, 0x52, 0x53, 0x41, 0x32, 0x00, 0x02, 0x00, 0x00,
    0x01, 0x00, 0x01, 0x00, 0xCD, 0x89, 0xA5, 0x84, 0x9A, 0x9D, 0xA2, 0x17, 0xBC, 0xC6, 0x38, 0x4E,
    0xC1, 0x87, 0x9D, 0x18, 0x2E, 0x95, 0x83, 0x6F, 0x6A, 0x75, 0xDD, 0x4B, 0x94, 0x6E, 0x73, 0xCF,
    0x5C, 0xEC, 0x48, 0x1E, 0xFF, 0x8C, 0x16, 0xB0, 0x9F, 0x0F, 0x78, 0x6F, 0x7E, 0x14, 0xBE, 0xAC,
    0x1B, 0xE9, 0xA2, 0xD8, 0x43, 0x4F, 0xC1, 0x8B, 0x5D, 0xD2, 0x0D, 0x45, 0x5B, 0x76, 0x9A, 0x2C,
    0x98, 0x44, 0x9E, 0xB4, 0x85, 0x38, 0x42, 0x2A, 0x00, 0x70, 0x71, 0x43, 0x29, 0x99, 0x09, 0x9B,
    0xA7, 0xE0, 0x05, 0xA1, 0x4C, 0xBC, 0xF1, 0x27, 0x42, 0x6E, 0xC6, 0x2F, 0xB6, 0xAF, 0x81, 0xEA,
    0x67, 0xBB, 0x36, 0xC3, 0xA9, 0x72, 0xA7, 0x27, 0xC6, 0x0C, 0x7E, 0xAC, 0xA5, 0xD5, 0xAA, 0x2E,
    0xAF, 0xDA, 0x6C, 0xA6, 0x97, 0xDD, 0xB0, 0x79, 0x1D, 0x08, 0xFA, 0x88, 0x87, 0x4E, 0x44, 0x34,
    0xC7, 0x10, 0xDC, 0xEC, 0x3D, 0x0B, 0xF2, 0xBA, 0xDF, 0xF7, 0xE7, 0x0C, 0xF1, 0xC9, 0xA8, 0xD3,
    0xFE, 0x65, 0xC7, 0xC0, 0xD9, 0xE6, 0x4B, 0xB0, 0x3B, 0x84, 0x77, 0xDC, 0xCF, 0xA1, 0x66, 0xAF,
    0xFB, 0x84, 0xD8, 0xA0, 0xA9, 0x4E, 0x89, 0xF8, 0x32, 0xD6, 0xC1, 0xC0, 0x2B, 0x72, 0xE1, 0xCE,
    0x43, 0xFA, 0xB2, 0x3B, 0x94, 0xFF, 0xE4, 0xA0, 0xC5, 0x02, 0xAD, 0x78, 0xF1, 0xCE, 0xE9, 0x9C,
    0xB8, 0xA8, 0x50, 0x65, 0x22, 0x02, 0xA6, 0xE4, 0xD4, 0x88, 0x1E, 0x8C, 0xA2, 0xDF, 0x97, 0xE7,
    0xD4, 0x79, 0xA7, 0x92, 0x22, 0x89, 0x45, 0xAA, 0xA5, 0xBC, 0xE7, 0x8F, 0x65, 0xCE, 0xCA, 0x8E,
    0xE2, 0xE4, 0x8F, 0x18, 0x39, 0x11, 0x81, 0xEB, 0xEE, 0x46, 0xB9, 0x4F, 0x36, 0x71, 0xB9, 0x36,
    0xD9, 0x2C, 0x61, 0x3D, 0x23, 0x3D, 0x93, 0xDC, 0xE1, 0xA2, 0x49, 0xBC, 0x2C, 0x0B, 0x74, 0xC3,
    0x03, 0x5D, 0xDC, 0x35, 0x05, 0xD5, 0x72, 0xEF, 0x86, 0xEC, 0x8A, 0x7C, 0xD1, 0x2B, 0xAF, 0xCC,
    0x14, 0x9E, 0xDE, 0xD7, 0x44, 0xDD, 0xCB, 0xA1, 0x57, 0x1C, 0x37, 0x7A, 0xCE, 0x09, 0x13, 0x87,
    0x89, 0x6E, 0x06, 0x09
};
constexpr wchar_t kAccountsPath[] = L"SOFTWARE\\Norvane\\DB\\Policy\\Accounts\\";
// The template map of an extractor keeps one entry per SID text it has seen.
constexpr unsigned kInputsPerExtractor = 256;

bool IsSecurityFacility(HRESULT hr) { return (static_cast<ULONG>(hr) & 0xFFFF0000u) == 0x80090000u; }

Outcome Disallowed(HRESULT hr, const char* parser)
{
    return {hr, std::string(parser) + " returned " + Hex(hr) + ", which its format does not allow"};
}

void RaiseIfFailed(LONG r)
{
    if (r != ERROR_SUCCESS)
        _com_issue_error(HRESULT_FROM_WIN32(r));
}

void WriteActCtrl(const std::wstring& sidText, DWORD value)
{
    HKEY raw = nullptr;
    RaiseIfFailed(::RegCreateKeyExW(HKEY_LOCAL_MACHINE, (kAccountsPath + sidText).c_str(), 0, nullptr, 0,
                                    KEY_SET_VALUE | KEY_WOW64_32KEY, nullptr, &raw, nullptr));
    nv::unique_hkey key(raw);
    RaiseIfFailed(::RegSetValueExW(key.get(), L"ActCtrl", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                                   sizeof(value)));
}

// Removes a key of the 32-bit view with everything below it; a missing key is fine.
void DeleteTree32(const wchar_t* path)
{
    HKEY raw = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_ALL_ACCESS | KEY_WOW64_32KEY, &raw) != ERROR_SUCCESS)
        return;
    ::RegDeleteTreeW(raw, nullptr);
    ::RegCloseKey(raw);
    ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, path, KEY_WOW64_32KEY, 0);
}

// Every TLV of the forest, as a complete encoding.
void CollectItems(const std::vector<DerNode>& nodes, std::set<Bytes>& out)
{
    for (const DerNode& node : nodes) {
        out.insert(EncodeDer({node}));
        if (node.opened)
            CollectItems(node.children, out);
    }
}

} // namespace

Bytes Target::Generate(DerMutator& mutator, std::string& how)
{
    const std::vector<Bytes>& seeds = Seeds();
    return mutator.Mutate(seeds[mutator.Below(seeds.size())], how);
}

// ---- shared state ------------------------------------------------------------

struct Fixture::Impl {
    nv::unique_hcryptprov prov;
    nvwriter::Db20Database db;
    std::vector<Bytes> userBlobs;
    std::vector<Bytes> storedValues;
    std::vector<Bytes> exportRecords;
    std::vector<Bytes> secretRecords;
    std::vector<Bytes> combinedSecrets; // unscrambled DER
    std::vector<Bytes> items;
    // A session key sealed once for the machine key, to seal mutated user blobs.
    nv::unique_hcryptkey sessionKey;
    Bytes sessionKeyBlob;

    Impl()
    {
        DeleteTree32(kDbPath);
        nvwriter::WriteHostId(kFuzzHostId, KEY_WOW64_32KEY);
        nvwriter::DeleteMachineContainer(kFuzzHostId);
        {
            const std::wstring name = nvwriter::ContainerNameOf(kFuzzHostId);
            HCRYPTPROV raw = 0;
            if (!::CryptAcquireContextW(&raw, name.c_str(), nvwriter::kHostKeyProvider, PROV_RSA_FULL,
                                        CRYPT_MACHINE_KEYSET | CRYPT_NEWKEYSET))
                _com_issue_error(HRESULT_FROM_WIN32(::GetLastError()));
            nv::unique_hcryptprov creating(raw);
            nv::unique_hcryptkey key;
            if (!::CryptImportKey(raw, kFuzzMachineKey, sizeof(kFuzzMachineKey), 0, CRYPT_EXPORTABLE, key.put()))
                _com_issue_error(HRESULT_FROM_WIN32(::GetLastError()));
        }
        prov = nvwriter::OpenMachineContainer(kFuzzHostId);

        nvwriter::Db20Options options;
        options.seed = 2026;
        options.userCount = 4;
        options.domainCount = 1;
        db = nvwriter::MakeDb20Database(options);
        for (const nvwriter::Db20User& user : db.users) {
            const Bytes blob = nvwriter::EncodeDb20UserBlob(prov.get(), user);
            userBlobs.push_back(blob);
            storedValues.push_back(nvwriter::SealDb20UserBlob(prov.get(), blob));
            if (!user.sidText.empty())
                WriteActCtrl(user.sidText, user.accountControl);
            for (const nvwriter::Db20Secret& secret : user.secrets) {
                const Bytes record =
                    nvwriter::EncodeDb20SecretRecord(secret, nvwriter::SealDb20Content(prov.get(), secret.content));
                secretRecords.push_back(record);
                nvwriter::ExportRecordItems exportItems;
                exportItems.data = record;
                exportItems.time = user.times[1];
                exportRecords.push_back(nvwriter::MakeExportRecord(prov.get(), exportItems));
                if (secret.combined) {
                    Bytes plain(secret.content.size());
                    UnscrambleSecret(secret.content.data(), plain.data(), static_cast<DWORD>(plain.size()));
                    combinedSecrets.push_back(plain);
                }
            }
        }
        // Combined secrets of every shape the format has: no password, no PIN, an empty
        // PIN, the highest version.
        for (int shape = 0; shape < 4; ++shape) {
            nvwriter::Db20Secret s;
            s.combined = true;
            s.combinedVersion = shape == 3 ? 9 : 1;
            s.hasPassword = shape != 0;
            s.password = L"Tr0ub4dor&3";
            s.hasPin = shape >= 2;
            s.pin = shape == 2 ? L"" : L"4711";
            Bytes scrambled = nvwriter::EncodeDb20CombinedSecret(s);
            Bytes plain(scrambled.size());
            UnscrambleSecret(scrambled.data(), plain.data(), static_cast<DWORD>(plain.size()));
            combinedSecrets.push_back(plain);
        }

        std::set<Bytes> all;
        for (const auto* group : {&userBlobs, &exportRecords, &secretRecords, &combinedSecrets}) {
            for (const Bytes& b : *group) {
                std::vector<DerNode> roots;
                if (ParseDer(b.data(), b.size(), roots))
                    CollectItems(roots, all);
            }
        }
        items.assign(all.begin(), all.end());

        nv::unique_hcryptkey exchange;
        if (!::CryptGetUserKey(prov.get(), AT_KEYEXCHANGE, exchange.put()) ||
            !::CryptGenKey(prov.get(), CALG_3DES, CRYPT_EXPORTABLE, sessionKey.put()))
            _com_issue_error(HRESULT_FROM_WIN32(::GetLastError()));
        DWORD cb = 0;
        ::CryptExportKey(sessionKey.get(), exchange.get(), SIMPLEBLOB, 0, nullptr, &cb);
        sessionKeyBlob.resize(cb);
        if (!::CryptExportKey(sessionKey.get(), exchange.get(), SIMPLEBLOB, 0, sessionKeyBlob.data(), &cb))
            _com_issue_error(HRESULT_FROM_WIN32(::GetLastError()));
        sessionKeyBlob.resize(cb);
    }

    ~Impl()
    {
        sessionKey.reset();
        prov.reset();
        nvwriter::DeleteMachineContainer(kFuzzHostId);
        DeleteTree32(kDbPath);
        DeleteTree32(nvwriter::kHostKeyPath);
    }

    // A stored value around any user blob, as the old product sealed it.
    Bytes Seal(const Bytes& blob)
    {
        Bytes cipher(blob.size() + 16);
        std::memcpy(cipher.data(), blob.data(), blob.size());
        DWORD cb = static_cast<DWORD>(blob.size());
        if (!::CryptEncrypt(sessionKey.get(), 0, TRUE, 0, cipher.data(), &cb, static_cast<DWORD>(cipher.size())))
            _com_issue_error(HRESULT_FROM_WIN32(::GetLastError()));
        cipher.resize(cb);
        using namespace nvwriter::der20;
        const Bytes seal = Seq({Uint(nvwriter::kDb20SealVersion), Octets(Seq({Octets(sessionKeyBlob), Octets(cipher)}))});
        Bytes value(4 + seal.size());
        for (std::size_t i = 0; i < 4; ++i)
            value[i] = nvwriter::kDb20SealMagic[i];
        std::memcpy(value.data() + 4, seal.data(), seal.size());
        return value;
    }
};

namespace {

using LegacyNVDB2::CLocalDBUserExtractor;

// Both user record targets share the extractor's life cycle.
class ExtractorTarget : public Target {
protected:
    CLocalDBUserExtractor& Extractor()
    {
        if (!m_extractor || ++m_uses >= kInputsPerExtractor) {
            m_extractor.reset();
            m_extractor = std::make_unique<CLocalDBUserExtractor>();
            m_uses = 0;
        }
        return *m_extractor;
    }

    // What a parsed record may hold.
    static std::string CheckRecord(const NV_USER_RECORD& record)
    {
        if (record.pSid && !::IsValidSid(record.pSid))
            return "the record's SID is not a valid SID";
        return {};
    }

    std::unique_ptr<CLocalDBUserExtractor> m_extractor;
    unsigned m_uses = 0;
};

class SealedTarget : public ExtractorTarget {
public:
    explicit SealedTarget(Fixture::Impl& impl) : m_impl(impl) {}
    const char* Name() const override { return "sealed"; }
    const std::vector<Bytes>& Seeds() const override { return m_impl.storedValues; }

    // Half the inputs damage the stored value itself; the other half damage the user
    // blob and seal it properly, so that the damage gets past the decryption.
    Bytes Generate(DerMutator& mutator, std::string& how) override
    {
        if (mutator.Below(2) == 0)
            return Target::Generate(mutator, how);
        const Bytes blob = mutator.Mutate(m_impl.userBlobs[mutator.Below(m_impl.userBlobs.size())], how);
        how = "sealed(" + how + ")";
        return m_impl.Seal(blob);
    }

    Outcome Run(const BYTE* pb, DWORD cb) override
    {
        NV_USER_RECORD record{};
        HRESULT hr = S_OK;
        try {
            Extractor().UnsealUser(pb, cb, &record);
        } catch (const _com_error& e) {
            hr = e.Error();
        } catch (...) {
            hr = E_UNEXPECTED;
        }
        Outcome out{hr, {}};
        if (!(hr == S_OK || hr == NTE_BAD_DATA || IsSecurityFacility(hr) || hr == E_INVALIDARG || hr == E_OUTOFMEMORY))
            out = Disallowed(hr, "UnsealUser");
        else if (hr == S_OK)
            out.violation = CheckRecord(record);
        else if (record.pSid)
            out.violation = "a failed unseal left a SID in the record";
        if (record.pSid)
            ::LocalFree(record.pSid);
        return out;
    }

private:
    Fixture::Impl& m_impl;
};

class UserBlobTarget : public ExtractorTarget {
public:
    explicit UserBlobTarget(Fixture::Impl& impl) : m_impl(impl) {}
    const char* Name() const override { return "userblob"; }
    const std::vector<Bytes>& Seeds() const override { return m_impl.userBlobs; }

    Outcome Run(const BYTE* pb, DWORD cb) override
    {
        NV_USER_RECORD record{};
        const HRESULT hr = Extractor().ParseUserBlob(cb, pb, &record);
        Outcome out{hr, {}};
        // The parser is lenient: every blob gives a record.
        if (hr != S_OK && hr != E_OUTOFMEMORY)
            out = Disallowed(hr, "ParseUserBlob");
        else
            out.violation = CheckRecord(record);
        if (record.pSid)
            ::LocalFree(record.pSid);
        return out;
    }

private:
    Fixture::Impl& m_impl;
};

class ImportTarget : public Target {
public:
    explicit ImportTarget(Fixture::Impl& impl) : m_impl(impl), m_context(KEY_WOW64_32KEY) {}
    const char* Name() const override { return "import"; }
    const std::vector<Bytes>& Seeds() const override { return m_impl.exportRecords; }

    Outcome Run(const BYTE* pb, DWORD cb) override
    {
        CRYPT_DATA_BLOB record{cb, const_cast<BYTE*>(pb)};
        CRYPT_DATA_BLOB data{0xDEAD, reinterpret_cast<BYTE*>(1)};
        GUID target, source;
        std::memset(&target, 0xA5, sizeof(target));
        std::memset(&source, 0xA5, sizeof(source));
        const HRESULT hr = m_context.Import(&record, &data, &target, &source);
        Outcome out{hr, {}};
        // Bytes that are no record at all still succeed, with empty outputs.
        if (hr != S_OK && hr != E_OUTOFMEMORY) {
            out = Disallowed(hr, "Import");
        } else if (hr == S_OK) {
            if (data.cbData > cb)
                out.violation = "Import handed out more data than the record holds";
            else if ((data.cbData == 0) != (data.pbData == nullptr))
                out.violation = "Import's data blob has a count and a pointer that disagree";
            GUID a5;
            std::memset(&a5, 0xA5, sizeof(a5));
            if (std::memcmp(&target, &a5, sizeof(a5)) == 0 || std::memcmp(&source, &a5, sizeof(a5)) == 0)
                out.violation = "Import left a GUID output unwritten";
        }
        if (hr == S_OK && data.pbData)
            ::CoTaskMemFree(data.pbData);
        return out;
    }

private:
    Fixture::Impl& m_impl;
    CFPSecurityContext m_context;
};

class SecretTarget : public Target {
public:
    explicit SecretTarget(Fixture::Impl& impl) : m_impl(impl) {}
    const char* Name() const override { return "secret"; }
    const std::vector<Bytes>& Seeds() const override { return m_impl.secretRecords; }

    Outcome Run(const BYTE* pb, DWORD cb) override
    {
        CNVSecret secret;
        const CRYPT_DATA_BLOB field{cb, const_cast<BYTE*>(pb)};
        HRESULT hr;
        try {
            hr = LegacyNVDB2::DecodeSecretField(nullptr, field, secret);
        } catch (const _com_error& e) {
            hr = e.Error();
        } catch (...) {
            hr = E_UNEXPECTED;
        }
        Outcome out{hr, {}};
        if (hr != S_OK && hr != S_FALSE && hr != E_OUTOFMEMORY)
            return Disallowed(hr, "DecodeSecretField");
        const WCHAR* name = secret.m_info.wszName;
        if (std::char_traits<WCHAR>::length(name) > kSecretNameMax || name[kSecretNameMax] != 0)
            out.violation = "the secret's name is not terminated within its field";
        else if (secret.m_content.cbData > cb)
            out.violation = "the secret's content is longer than the record";
        else if (hr == S_FALSE && secret.m_info.header.dwTypeCode != kSecretTypeCode)
            out.violation = "a record of fewer than two items changed the type code";
        return out;
    }

private:
    Fixture::Impl& m_impl;
};

class PasswordTarget : public Target {
public:
    explicit PasswordTarget(Fixture::Impl& impl) : m_impl(impl) {}
    const char* Name() const override { return "password"; }
    const std::vector<Bytes>& Seeds() const override { return m_impl.combinedSecrets; }

    // The stored form is scrambled: most inputs are damaged DER scrambled as the
    // writer does it; some are damaged and left unscrambled.
    Bytes Generate(DerMutator& mutator, std::string& how) override
    {
        Bytes b = Target::Generate(mutator, how);
        if (mutator.Below(8) != 0) {
            nvwriter::ScrambleDb20(b);
            how = "scrambled(" + how + ")";
        }
        return b;
    }

    Outcome Run(const BYTE* pb, DWORD cb) override
    {
        CRYPT_DATA_BLOB content{cb, const_cast<BYTE*>(pb)};
        BSTR password = reinterpret_cast<BSTR>(1), pin = reinterpret_cast<BSTR>(1);
        const HRESULT hr = UnpackPasswordAndPin(&content, &password, &pin);
        Outcome out{hr, {}};
        const bool allowed = hr == S_OK || hr == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) || hr == NTE_BAD_DATA ||
                             IsSecurityFacility(hr) || hr == E_OUTOFMEMORY;
        if (!allowed)
            out = Disallowed(hr, "UnpackPasswordAndPin");
        if (hr == S_OK) {
            if (pin && SysStringLen(pin) == 0)
                out.violation = "an empty PIN was handed out (an empty PIN stays none)";
            // Every character takes at least one content byte: two in a BMPString, one
            // in the one-byte string types (numeric to visible), which widen to UTF-16.
            if (pin && SysStringLen(pin) > cb)
                out.violation = "the PIN has more characters than the content has bytes";
            if (password && SysStringLen(password) > cb)
                out.violation = "the password has more characters than the content has bytes";
            for (BSTR* s : {&password, &pin}) {
                if (*s) {
                    ::SecureZeroMemory(*s, SysStringByteLen(*s));
                    ::SysFreeString(*s);
                }
            }
        } else if (cb == 0 && hr != HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)) {
            out.violation = "an empty content did not give 0x80070002";
        }
        return out;
    }

private:
    Fixture::Impl& m_impl;
};

class DerTarget : public Target {
public:
    explicit DerTarget(Fixture::Impl& impl) : m_impl(impl) {}
    const char* Name() const override { return "der"; }
    const std::vector<Bytes>& Seeds() const override { return m_impl.items; }

    Outcome Run(const BYTE* pb, DWORD cb) override
    {
        using namespace LegacyNVDB2;
        const DerView item(pb, cb);
        try {
            if (ReadEnvelope(item).size() > cb)
                return {S_OK, "the envelope's signed content is longer than the input"};
            const ItemList list = ReadList(item);
            size_t total = 0;
            for (const auto& b : list)
                total += b.size();
            if (total > cb)
                return {S_OK, "the list's items are longer than the input"};
            if (ReadOctets(item).size() > cb)
                return {S_OK, "the octets are longer than the input"};
            ReadNumber(item);
            ReadSignedNumber(item);
            ReadGuid(item);
            ReadTime(item);
            // A UTF-8 value turns into at most one UTF-16 character per byte.
            if (ReadText(item).size() > cb)
                return {S_OK, "the text is longer than the input"};
            LegacyNVDB2::Bytes any;
            for (LPCSTR type : {X509_BITS, X509_NAME_VALUE, X509_MULTI_BYTE_UINT})
                DecodeStruct(type, item, any);
        } catch (const _com_error& e) {
            return {e.Error(), "a DER reader raised " + Hex(e.Error()) + "; the readers never fail"};
        } catch (...) {
            return {E_UNEXPECTED, "a DER reader threw; the readers never fail"};
        }
        return {};
    }

private:
    Fixture::Impl& m_impl;
};

} // namespace

const char* TargetNames() { return "sealed, userblob, import, secret, password, der"; }

Fixture::Fixture() : m_impl(std::make_unique<Impl>())
{
    m_targets.push_back(std::make_unique<SealedTarget>(*m_impl));
    m_targets.push_back(std::make_unique<UserBlobTarget>(*m_impl));
    m_targets.push_back(std::make_unique<ImportTarget>(*m_impl));
    m_targets.push_back(std::make_unique<SecretTarget>(*m_impl));
    m_targets.push_back(std::make_unique<PasswordTarget>(*m_impl));
    m_targets.push_back(std::make_unique<DerTarget>(*m_impl));
}

Fixture::~Fixture()
{
    m_targets.clear(); // extractors and contexts hold the container
    m_impl.reset();
}

std::vector<Target*> Fixture::Select(const std::string& name)
{
    std::vector<Target*> out;
    for (const auto& t : m_targets) {
        if (name == "all" || name == t->Name())
            out.push_back(t.get());
    }
    return out;
}

Target* Fixture::Find(const std::string& name)
{
    for (const auto& t : m_targets) {
        if (name == t->Name())
            return t.get();
    }
    return nullptr;
}

} // namespace nvfuzz
