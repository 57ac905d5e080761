#include "fault_world.h"

#include <algorithm>
#include <cstring>

#include "converter3/conversionpolicy.h"
#include "frame/dblayout.h"
#include "nvstore_inspect.h"
#include "support/conversion_fixture.h"
#include "support/drawn_records.h"
#include "writer/host_provisioning.h"
#include "writer/legacy_writer.h"

namespace nvfaults {

using namespace nvtest;
namespace inspect = nvstore::inspect;

namespace {

// The suite's keys are kept here between scenarios (32-bit view, like the database).
constexpr wchar_t kPristinePath[] = L"SOFTWARE\\NVDBConvFaults\\Pristine";
constexpr wchar_t kPristineRoot[] = L"SOFTWARE\\NVDBConvFaults";
constexpr wchar_t kSuitePath[] = L"SOFTWARE\\Norvane";
constexpr wchar_t kBackup10Path[] = L"SOFTWARE\\Norvane\\DB-v1.0";
// Small user keys keep the store's key generation cheap; the sealing is the same.
constexpr DWORD kStoreUserKeyBits = 512;

std::vector<BYTE> CurrentHostId()
{
    RegValue v;
    if (!GetValue(nvwriter::kHostKeyPath, nvwriter::kHostIdValueName, kView32, &v))
        return {};
    return v.data;
}

// A conversion that replaced "HostId" made a machine container of the new name.
void DeleteReplacedHostContainer(const std::vector<BYTE>& original)
{
    const std::vector<BYTE> now = CurrentHostId();
    if (now.size() != sizeof(GUID) || now == original)
        return;
    GUID other;
    std::memcpy(&other, now.data(), sizeof(GUID));
    nvwriter::DeleteMachineContainer(other);
}

HRESULT CopyTree(const wchar_t* from, const wchar_t* to)
{
    HKEY src = nullptr, dst = nullptr;
    LSTATUS rc = RegOpenKeyExW(HKEY_LOCAL_MACHINE, from, 0, KEY_READ | KEY_WOW64_32KEY, &src);
    if (rc != ERROR_SUCCESS)
        return HRESULT_FROM_WIN32(rc);
    rc = RegCreateKeyExW(HKEY_LOCAL_MACHINE, to, 0, nullptr, 0, KEY_ALL_ACCESS | KEY_WOW64_32KEY, nullptr, &dst,
                         nullptr);
    if (rc == ERROR_SUCCESS)
        rc = RegCopyTreeW(src, nullptr, dst);
    if (dst)
        RegCloseKey(dst);
    RegCloseKey(src);
    return HRESULT_FROM_WIN32(rc);
}

// Template positions with gaps, one mask per user (bit 31 included once).
constexpr DWORD kMasks[] = {0x00000025u, 0x80000102u, 0x00010041u, 0x00400408u};
const wchar_t* const kSecretNames[] = {L"Mail Account", L"Smart Card PIN", L"VPN Token"};

} // namespace

const char* ConversionName(Conversion c) { return c == Conversion::From10 ? "1.0" : "2.0"; }
const char* PolicyName(Policy p) { return p == Policy::Strict ? "strict" : "default"; }

bool ParseConversion(const std::string& text, Conversion* c)
{
    if (text == "1.0" || text == "10")
        *c = Conversion::From10;
    else if (text == "2.0" || text == "20")
        *c = Conversion::From20;
    else
        return false;
    return true;
}

bool ParsePolicy(const std::string& text, Policy* p)
{
    if (text == "default")
        *p = Policy::Default;
    else if (text == "strict")
        *p = Policy::Strict;
    else
        return false;
    return true;
}

nvwriter::Db20Database FaultDatabase20()
{
    nvwriter::Db20Options options;
    options.seed = 1414;
    options.userCount = 4;
    options.domainCount = 1;
    nvwriter::Db20Database db = nvwriter::MakeDb20Database(options);
    nvwriter::Prng rng(2026);
    for (size_t i = 0; i < db.users.size(); ++i) {
        nvwriter::Db20User& u = db.users[i];
        u.secrets.clear();
        u.secrets.push_back(nvtest::DrawLogonSecret(rng, 3, 10, 8));
        for (const wchar_t* name : kSecretNames) {
            nvwriter::Db20Secret plain;
            plain.valueName = plain.name = name;
            plain.headerGuid = rng.Guid();
            plain.headerValue = rng.Below(8);
            plain.typeCode = (i + plain.headerValue) % 3 == 0 ? nvwriter::kDb20OlderSecretTypeCode
                                                              : nvwriter::kDb20SecretTypeCode;
            plain.guid = rng.Guid();
            plain.content = rng.Bytes(16 + rng.Below(80));
            u.secrets.push_back(plain);
        }

        std::vector<nvwriter::Db20Credential> credentials;
        for (const auto& c : u.credentials)
            if (c.credentialId != nvwriter::kDb20FingerprintCredentialId)
                credentials.push_back(c);
        nvwriter::Db20Credential fingerprints;
        fingerprints.credentialId = nvwriter::kDb20FingerprintCredentialId;
        fingerprints.mask = kMasks[i % (sizeof(kMasks) / sizeof(kMasks[0]))];
        fingerprints.templates = nvtest::DrawTemplates(rng, fingerprints.mask, 48, 160);
        credentials.push_back(std::move(fingerprints));
        u.credentials = std::move(credentials);
    }
    return db;
}

bool World::Prepare(std::string* error)
{
    Dispose();
    HRESULT hr;
    if (m_conversion == Conversion::From20) {
        m_db20 = FaultDatabase20();
        hr = nvwriter::WriteDb20Database(m_db20);
        if (FAILED(hr)) {
            *error = "writing the 2.0 database failed: " + Hex(hr);
            return false;
        }
        m_hostId = CurrentHostId();
        m_userKeys.clear();
        for (const auto& u : m_db20.users)
            m_userKeys[GuidText(u.guid)] = Snapshot(UserKeyPath(u.guid).c_str(), kView32);
    } else {
        nvwriter::DbOptions options;
        options.format = nvwriter::DbFormat::V10;
        options.users = 4;
        options.domains = 1;
        options.seed = 1010;
        options.wipe = true;
        nvwriter::DbRecord record;
        hr = nvwriter::WriteDatabase(options, &record);
        if (FAILED(hr)) {
            *error = "writing the 1.0 database failed: " + Hex(hr);
            return false;
        }
        m_original10 = Snapshot(kDbPath, kView32);
    }
    hr = CopyTree(kSuitePath, kPristinePath);
    if (FAILED(hr)) {
        *error = "keeping the pristine copy failed: " + Hex(hr);
        return false;
    }
    return true;
}

bool World::Reset(Policy policy, std::string* error) const
{
    if (m_conversion == Conversion::From20)
        DeleteReplacedHostContainer(m_hostId);
    WipeSuiteKeys();
    inspect::DeleteStoreKeyContainers();
    const HRESULT hr = CopyTree(kPristinePath, kSuitePath);
    if (FAILED(hr)) {
        *error = "restoring the pristine copy failed: " + Hex(hr);
        return false;
    }
    inspect::SetUserKeyBits(kStoreUserKeyBits);
    if (policy == Policy::Strict)
        SetDword(kPolicyDefaultPath, nvconv3::kStrictConversionValue, nvconv3::kStrictConversionOn, kViewNative);
    return true;
}

void World::RecordConverted10() { m_converted10 = Snapshot(kDbPath, kView32); }

Inspection World::Inspect() const
{
    Inspection out;
    std::wstring backup;
    out.backupValue = GetString(kDbPath, L"Backup", kView32, &backup);
    out.backupPath = backup;
    // Where the backup of that name lives: a 1.0 database keeps it in the 32-bit view.
    const REGSAM backupView = backup == kBackup10Path ? kView32 : kView64;
    out.backupKey = out.backupValue && !backup.empty() && KeyExists(backup.c_str(), backupView);
    const wchar_t* ownBackup = m_conversion == Conversion::From10 ? kBackup10Path : kBackup20Path;
    out.backupKeyLeft = KeyExists(ownBackup, kView32) || KeyExists(ownBackup, kView64);
    GetString(kDbPath, L"Version", kView32, &out.version);
    out.layout30 = nvframe::IsDatabaseLayout30();

    if (m_conversion == Conversion::From10) {
        RegTree now = Snapshot(kDbPath, kView32);
        RegTree withoutBackup = now;
        withoutBackup.values.erase(L"|Backup");
        if (m_converted10.exists && withoutBackup == m_converted10) {
            out.converted10 = true;
            out.converted10KeepingValues = true;
            return out;
        }
        // Once "Version" reads 2.0 the step is done: the values it deletes (16-byte name
        // index entries, policy keys) are meant to be gone, and any of them still there
        // is a delete that failed and was ignored, as the conversion allows.
        auto version = now.values.find(L"|Version");
        auto convertedVersion = m_converted10.values.find(L"|Version");
        const bool finished = version != now.values.end() && convertedVersion != m_converted10.values.end() &&
                              version->second == convertedVersion->second;
        const RegTree saved = Snapshot(kBackup10Path, kView32);
        for (const auto& [name, value] : m_original10.values) {
            auto inDb = now.values.find(name);
            auto inBackup = saved.values.find(name);
            auto converted = m_converted10.values.find(name);
            const bool meantToGo = finished && converted == m_converted10.values.end();
            // Rewritten by the step ("Version"), and present as the step writes it.
            const bool rewritten = finished && converted != m_converted10.values.end() &&
                                   converted->second != value && inDb != now.values.end() &&
                                   inDb->second == converted->second;
            UserFinding f;
            f.user = Narrow(name);
            f.inDatabase = inDb != now.values.end() && inDb->second == value;
            f.inBackup = inBackup != saved.values.end() && inBackup->second == value;
            if (meantToGo && f.inDatabase)
                ++out.keptAfterFailedDelete;
            if (f.Lost() && !meantToGo && !rewritten)
                out.users.push_back(f);
        }
        // Finished, every value of the result there as the step writes it, and nothing
        // else but values the step meant to delete.
        bool onlyKept = finished && out.users.empty();
        auto has = [](const std::vector<std::wstring>& keys, const std::wstring& k) {
            return std::find(keys.begin(), keys.end(), k) != keys.end();
        };
        for (const std::wstring& k : m_converted10.keys)
            onlyKept &= has(now.keys, k);
        for (const std::wstring& k : now.keys)
            onlyKept &= has(m_converted10.keys, k) || has(m_original10.keys, k);
        for (const auto& [name, value] : m_converted10.values) {
            auto it = now.values.find(name);
            onlyKept &= it != now.values.end() && it->second == value;
        }
        for (const auto& [name, value] : withoutBackup.values)
            if (!m_converted10.values.count(name)) {
                auto original = m_original10.values.find(name);
                onlyKept &= original != m_original10.values.end() && original->second == value;
            }
        out.converted10KeepingValues = onlyKept;
        return out;
    }

    out.hostIdChanged = CurrentHostId() != m_hostId;
    for (const auto& u : m_db20.users) {
        UserFinding f;
        f.user = Narrow(u.sidText);
        const std::wstring key = GuidText(u.guid);
        const RegTree& original = m_userKeys.at(key);
        if (!out.hostIdChanged) {
            f.inDatabase = Snapshot(UserKeyPath(u.guid).c_str(), kView32) == original;
            const std::wstring saved = std::wstring(kBackup20Path) + L"\\Data\\Users\\" + key;
            f.inBackup = Snapshot(saved.c_str(), kView64) == original;
        }
        f.oldKey = KeyExists(UserKeyPath(u.guid).c_str(), kView32);
        f.missing = StoreCopyGaps(u, L"SystemLogonInfo", true);
        f.inStore = f.missing.empty();
        out.users.push_back(f);
    }
    return out;
}

void World::Dispose()
{
    if (m_conversion == Conversion::From20) {
        DeleteReplacedHostContainer(m_hostId);
        if (!m_hostId.empty())
            nvwriter::DeleteDb20Container(m_db20);
    }
    DeleteTree(kPristineRoot, kView32);
    WipeSuiteKeys();
    inspect::DeleteStoreKeyContainers();
}

std::string Inspection::Summary() const
{
    std::string s;
    if (converted10)
        return "database converted";
    unsigned db = 0, backup = 0, store = 0, two = 0, lost = 0;
    for (const auto& u : users) {
        db += u.inDatabase;
        backup += u.inBackup;
        store += u.inStore;
        two += u.TwoPlaces();
        lost += u.Lost();
    }
    s = "db " + std::to_string(db) + ", backup " + std::to_string(backup) + ", store " + std::to_string(store) +
        ", two places " + std::to_string(two) + ", lost " + std::to_string(lost);
    s += backupValue ? ", \"Backup\" = " + Narrow(backupPath) + (backupKey ? " (key present)" : " (key MISSING)")
                     : ", no \"Backup\"";
    if (hostIdChanged)
        s += ", HostId CHANGED";
    return s;
}

} // namespace nvfaults
