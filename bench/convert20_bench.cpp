// Format 2.0 -> 3.0 into the reference store (NVStore.dll): the time per user, split
// into the store's share (its own counters: time inside its operations, and within
// that its key-pair generation) and the library's own, beside a floor measured in the
// same run: a loop that does only the CryptoAPI work the format asks for, for the
// same users and secrets (unseal the user record, open each secret, seal each secret
// under the user's public key, import that key), once right before the conversion and
// once right after it; the floor is the mean of the two.
//
//   convert20_bench [--users N[,N...]] [--policies default|strict|default,strict]
//                   [--repeat N[,N...]] [--key-bits N] [--host-key-bits N] [--seed N]
//                   [--trace FILE]
//
// --users: database sizes, smallest first; the first is the base of the scaling
//   ratios. --policies: the conversion policy under
//   HKLM\SOFTWARE\Norvane\Policies\Default: "default" removes "StrictConversion",
//   "strict" sets it to 1; with both, the first size is converted under each, one
//   after the other, and the strict run is shown against the default one (the other
//   sizes under the first policy given). --repeat: how often each size is converted,
//   in the order of --users, the last count holding for the sizes after it (default
//   3); the first size's conversions alternate the policies. Every figure of a size
//   is the median of its conversions, each with its own floor loops around it, and the
//   library's ratio to the floor is the median of the conversions' own ratios.
//   --key-bits: the size of the users' key pairs that the store generates (its
//   UserKeyBits; 2048 is the store's own default). --host-key-bits: the size of the
//   machine's key-exchange key (default: the legacy writer's, 2048); a small one
//   leaves the library's registry and COM work in view. --trace: the conversion
//   writes a trace at verbosity 10 into FILE (a Windows path), for finding where the
//   time goes; it costs time itself.
//
// Each conversion runs in a child process of its own (this program with
// --convert-child), the way an installer loads the library: the peak private memory
// it reports is the conversion's, not the benchmark's model of the database. The
// floor loop runs in a fresh process as well (--floor-child), so that neither side
// starts with the provider and its keys already warm.
//
// With NV_BENCH_WINESERVER_PID set (scripts/bench sets it), each conversion also
// reports the wineserver's CPU time while it ran. The server answers the registry
// calls of both the library and the store, and every 30 seconds it rewrites a changed
// hive whole into its .reg file; with 10,000 users, the database, its backup key, the
// store and the key containers make that file over 200 MB, and each rewrite holds the
// server, on the benchmark's CPU, for about two seconds. scripts/bench holds those
// rewrites off unless told otherwise (NV_BENCH_REGISTRY_SAVES=1).
//
// It rewrites the suite's registry keys and the store, and deletes the machine and
// store key containers it made: run it in a scratch Wine prefix (scripts/bench does).
#include <windows.h>
#include <objbase.h>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "bench_util.h"
#include "common/guidtext.h"
#include "common/handles.h"
#include "common/regkey.h"
#include "nvstore_inspect.h"
#include "storecounters.h"
#include "support/process_runner.h"
#include "support/signed_records.h"
#include "legacydb/derreader.h"
#include "support/store_sandbox.h"
#include "writer/db20_writer.h"
#include "writer/host_provisioning.h"
#include "exit_file/exit_file.h"

namespace {

constexpr const wchar_t kPolicyPath[] = L"SOFTWARE\\Norvane\\Policies\\Default";
constexpr const wchar_t kStrictValue[] = L"StrictConversion";
constexpr const wchar_t kVendorPath[] = L"SOFTWARE\\Norvane";

constexpr char kChildArg[] = "--convert-child";
constexpr char kFloorChildArg[] = "--floor-child";

struct Options {
    std::vector<unsigned> sizes{100, 2000};
    std::vector<bool> strict{false};
    std::vector<unsigned> repeat{3}; // per size; the last one holds for the sizes after it
    DWORD keyBits = 2048;
    DWORD hostKeyBits = 0; // the legacy writer's, the product's size
    unsigned long long seed = 1;
    std::wstring traceFile; // with a name: the conversion traces at verbosity 10 into it
};

void WipeVendorKeys()
{
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kVendorPath);
    ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kVendorPath, KEY_WOW64_64KEY, 0);
    nv::CNVRegKey view32;
    if (view32.Open(HKEY_LOCAL_MACHINE, kVendorPath, KEY_ALL_ACCESS | KEY_WOW64_32KEY) == ERROR_SUCCESS) {
        ::RegDeleteTreeW(view32, nullptr);
        view32.Close();
        ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kVendorPath, KEY_WOW64_32KEY, 0);
    }
}

bool SetPolicy(bool strict)
{
    nv::CNVRegKey key;
    if (key.Create(HKEY_LOCAL_MACHINE, kPolicyPath, KEY_ALL_ACCESS) != ERROR_SUCCESS)
        return false;
    if (!strict) {
        ::RegDeleteValueW(key, kStrictValue);
        return true;
    }
    const DWORD one = 1;
    return ::RegSetValueExW(key, kStrictValue, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&one), sizeof(one)) ==
           ERROR_SUCCESS;
}

bool ReadStoreCounters(NVSTORE_COUNTERS& c)
{
    HMODULE store = ::GetModuleHandleW(L"NVStore.dll");
    auto fn = nv::GetProcAs<PFN_NVSTOREGETCOUNTERS>(store, kNVStoreGetCountersExport);
    return fn && fn(&c) == S_OK;
}

double TicksToMs(ULONGLONG ticks, ULONGLONG freq) { return freq ? 1e3 * static_cast<double>(ticks) / freq : 0.0; }

// What the floor loop works on, prepared before it is timed: each user's record and
// secrets sealed for the machine key as the old database holds them (a 3DES key as
// SIMPLEBLOB under the key-exchange key, and the bytes encrypted with it), and the
// user's public key as the store hands it out.
struct Sealed {
    std::vector<BYTE> keyBlob;
    std::vector<BYTE> cipher;
};
struct FloorUser {
    Sealed record;
    std::vector<Sealed> secrets;
    std::vector<BYTE> publicKey;
};

// Seals plain bytes under the key: a fresh 3DES key as SIMPLEBLOB, and the bytes
// encrypted in place in a buffer allocated at its final size, so that no copy of
// the plain bytes is left behind in a freed block.
bool Seal(HCRYPTPROV hProv, HCRYPTKEY exchange, const BYTE* plain, size_t cbPlain, Sealed& out)
{
    nv::unique_hcryptkey session;
    if (!::CryptGenKey(hProv, CALG_3DES, CRYPT_EXPORTABLE, session.put()))
        return false;
    DWORD cb = 0;
    if (!::CryptExportKey(session.get(), exchange, SIMPLEBLOB, 0, nullptr, &cb))
        return false;
    out.keyBlob.resize(cb);
    if (!::CryptExportKey(session.get(), exchange, SIMPLEBLOB, 0, out.keyBlob.data(), &cb))
        return false;
    out.cipher.assign(cbPlain + 16, 0);
    std::memcpy(out.cipher.data(), plain, cbPlain);
    DWORD cbData = static_cast<DWORD>(cbPlain);
    if (!::CryptEncrypt(session.get(), 0, TRUE, 0, out.cipher.data(), &cbData,
                        static_cast<DWORD>(out.cipher.size())))
        return false;
    out.cipher.resize(cbData);
    return true;
}

// Opens sealed bytes into plain, whose blocks are cleared before they are freed.
bool Open(HCRYPTPROV hProv, HCRYPTKEY exchange, const Sealed& sealed, LegacyNVDB2::Bytes& plain)
{
    nv::unique_hcryptkey session;
    if (!::CryptImportKey(hProv, sealed.keyBlob.data(), static_cast<DWORD>(sealed.keyBlob.size()), exchange,
                          CRYPT_EXPORTABLE, session.put()))
        return false;
    plain.assign(sealed.cipher.begin(), sealed.cipher.end());
    DWORD cb = static_cast<DWORD>(plain.size());
    if (!::CryptDecrypt(session.get(), 0, TRUE, 0, plain.data(), &cb))
        return false;
    plain.resize(cb);
    return true;
}

// The floor: per user, import the user's public key, unseal the record, open each
// secret and seal it under the user's key. Seconds; <0 on failure.
double TimeFloor(HCRYPTPROV hProv, const std::vector<FloorUser>& users)
{
    nv::unique_hcryptkey exchange;
    if (!::CryptGetUserKey(hProv, AT_KEYEXCHANGE, exchange.put()))
        return -1;
    LegacyNVDB2::Bytes plain;
    nvbench::Stopwatch watch;
    for (const FloorUser& u : users) {
        nv::unique_hcryptkey userKey;
        if (!::CryptImportKey(hProv, u.publicKey.data(), static_cast<DWORD>(u.publicKey.size()), 0, 0,
                              userKey.put()))
            return -1;
        if (!Open(hProv, exchange.get(), u.record, plain))
            return -1;
        for (const Sealed& s : u.secrets) {
            if (!Open(hProv, exchange.get(), s, plain))
                return -1;
            Sealed resealed;
            if (!Seal(hProv, userKey.get(), plain.data(), plain.size(), resealed))
                return -1;
        }
    }
    return watch.Seconds();
}

// What the conversion process reports, one line: "RESULT <hr> <seconds> <store ticks>
// <key-pair ticks> <frequency> <peak private bytes>".
struct ChildResult {
    HRESULT hr = E_FAIL;
    double seconds = 0;
    ULONGLONG storeTicks = 0, keyPairTicks = 0, frequency = 0, peakBytes = 0;
};

bool ParseChildResult(const std::string& out, ChildResult& c)
{
    const size_t at = out.find("RESULT ");
    if (at == std::string::npos)
        return false;
    unsigned long hr = 0;
    return std::sscanf(out.c_str() + at, "RESULT %lx %lf %llu %llu %llu %llu", &hr, &c.seconds, &c.storeTicks,
                       &c.keyPairTicks, &c.frequency, &c.peakBytes) == 6 &&
           (c.hr = static_cast<HRESULT>(hr), true);
}

// The child: load the library as an installer does, Convert, report.
int ConvertChild()
{
    if (FAILED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
        return 1;
    NVSTORE_COUNTERS before{}, after{};
    HRESULT hr = E_FAIL;
    double seconds = 0;
    nvbench::PrivatePeak peak;
    {
        nvbench::Library dll;
        if (!dll)
            return 1;
        // The store is loaded on first use; counting starts at zero then.
        if (!ReadStoreCounters(before))
            before = NVSTORE_COUNTERS{};
        nvbench::Stopwatch watch;
        hr = dll.Convert();
        seconds = watch.Seconds();
        peak.Look(); // the library and the store still loaded
        if (!ReadStoreCounters(after) && hr == S_OK) {
            std::fprintf(stderr, "NVStore.dll is not loaded or has no counters\n");
            return 1;
        }
    }
    const ULONGLONG peakBytes = peak.Stop();
    ::CoUninitialize();
    std::printf("RESULT %08lX %.9f %llu %llu %llu %llu\n", static_cast<unsigned long>(hr), seconds,
                after.ullCallTicks - before.ullCallTicks, after.ullKeyPairTicks - before.ullKeyPairTicks,
                after.ullFrequency, static_cast<unsigned long long>(peakBytes));
    return 0;
}

// The floor's input, handed to the floor process in a file: every field as a 32-bit
// length and its bytes.
void PutBytes(std::string& out, const std::vector<BYTE>& b)
{
    const DWORD n = static_cast<DWORD>(b.size());
    out.append(reinterpret_cast<const char*>(&n), sizeof(n));
    out.append(reinterpret_cast<const char*>(b.data()), b.size());
}

bool TakeBytes(const std::string& in, size_t& at, std::vector<BYTE>& b)
{
    DWORD n = 0;
    if (at + sizeof(n) > in.size())
        return false;
    std::memcpy(&n, in.data() + at, sizeof(n));
    at += sizeof(n);
    if (at + n > in.size())
        return false;
    b.assign(in.begin() + static_cast<std::ptrdiff_t>(at), in.begin() + static_cast<std::ptrdiff_t>(at + n));
    at += n;
    return true;
}

bool WriteFloorFile(const std::wstring& path, const std::vector<FloorUser>& users)
{
    std::string out;
    for (const FloorUser& u : users) {
        PutBytes(out, u.publicKey);
        PutBytes(out, u.record.keyBlob);
        PutBytes(out, u.record.cipher);
        PutBytes(out, std::vector<BYTE>(u.secrets.size()));
        for (const Sealed& s : u.secrets) {
            PutBytes(out, s.keyBlob);
            PutBytes(out, s.cipher);
        }
    }
    nv::unique_hfile file(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    DWORD written = 0;
    return file && ::WriteFile(file.get(), out.data(), static_cast<DWORD>(out.size()), &written, nullptr) &&
           written == out.size();
}

bool ReadFloorFile(const std::wstring& path, std::vector<FloorUser>& users)
{
    nv::unique_hfile file(
        ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER size{};
    if (!file || !::GetFileSizeEx(file.get(), &size))
        return false;
    std::string in(static_cast<size_t>(size.QuadPart), '\0');
    DWORD read = 0;
    if (!::ReadFile(file.get(), in.data(), static_cast<DWORD>(in.size()), &read, nullptr) || read != in.size())
        return false;
    size_t at = 0;
    while (at < in.size()) {
        FloorUser u;
        std::vector<BYTE> count;
        if (!TakeBytes(in, at, u.publicKey) || !TakeBytes(in, at, u.record.keyBlob) ||
            !TakeBytes(in, at, u.record.cipher) || !TakeBytes(in, at, count))
            return false;
        u.secrets.resize(count.size());
        for (Sealed& s : u.secrets) {
            if (!TakeBytes(in, at, s.keyBlob) || !TakeBytes(in, at, s.cipher))
                return false;
        }
        users.push_back(std::move(u));
    }
    return true;
}

// The floor process: the floor loop over the users in the file, with the machine
// container of the host identifier given. Prints "FLOOR <seconds>".
int FloorChild(const wchar_t* path, const wchar_t* hostIdText)
{
    GUID hostId{};
    std::vector<FloorUser> users;
    if (FAILED(::CLSIDFromString(hostIdText, &hostId)) || !ReadFloorFile(path, users)) {
        std::fprintf(stderr, "cannot read the floor's input\n");
        return 1;
    }
    nv::unique_hcryptprov hProv = nvwriter::OpenMachineContainer(hostId);
    const double seconds = hProv ? TimeFloor(hProv.get(), users) : -1;
    if (seconds < 0) {
        std::fprintf(stderr, "the CryptoAPI floor loop failed: %lu\n", ::GetLastError());
        return 1;
    }
    std::printf("FLOOR %.9f\n", seconds);
    return 0;
}

// Public keys of the users' key size, standing in for the users' own keys in the floor
// loop that runs before the conversion (the store makes the users' keys during it):
// sealing under any public key of one size costs the same. Empty on failure.
std::vector<std::vector<BYTE>> StandInPublicKeys(DWORD keyBits, size_t count)
{
    std::vector<std::vector<BYTE>> keys;
    nv::unique_hcryptprov prov;
    if (!::CryptAcquireContextW(prov.put(), nullptr, MS_ENH_RSA_AES_PROV_W, PROV_RSA_AES, CRYPT_VERIFYCONTEXT))
        return keys;
    for (size_t i = 0; i < count; ++i) {
        // The new pair becomes the context's key-exchange key.
        nv::unique_hcryptkey pair;
        if (!::CryptGenKey(prov.get(), AT_KEYEXCHANGE, keyBits << 16, pair.put()))
            return {};
        std::vector<BYTE> blob = nvtest::PublicKeyBlobOf(prov.get());
        if (blob.empty())
            return {};
        keys.push_back(std::move(blob));
    }
    return keys;
}

// The floor loop over these users in a fresh process: seconds, <0 on failure.
double RunFloor(const std::vector<FloorUser>& users, const GUID& hostId)
{
    wchar_t self[MAX_PATH], temp[MAX_PATH];
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    ::GetTempPathW(MAX_PATH, temp);
    const std::wstring floorFile = std::wstring(temp) + L"convert20_bench_floor.bin";
    if (!WriteFloorFile(floorFile, users)) {
        std::fprintf(stderr, "cannot write %ls\n", floorFile.c_str());
        return -1;
    }
    const nvtest::ProcessRun floorRun =
        nvtest::RunProcess(nvtest::QuoteArg(self) + L" " + nvtest::Widen(kFloorChildArg) + L" " +
                               nvtest::QuoteArg(floorFile) + L" " + nv::GuidText(hostId),
                           static_cast<DWORD>(120000 + users.size() * 1000));
    ::DeleteFileW(floorFile.c_str());
    double seconds = -1;
    const size_t at = floorRun.out.find("FLOOR ");
    if (at == std::string::npos || std::sscanf(floorRun.out.c_str() + at, "FLOOR %lf", &seconds) != 1 ||
        seconds < 0) {
        std::fprintf(stderr, "the CryptoAPI floor loop failed:\n%s%s\n", floorRun.out.c_str(), floorRun.err.c_str());
        return -1;
    }
    return seconds;
}

struct RunResult {
    double totalMs = 0;     // Convert, per user
    double storeMs = 0;     // inside the store's operations, per user
    double keyPairMs = 0;   // of which key-pair generation, per user
    double libraryMs = 0;   // total - store, per user
    double floorMs = 0;     // the CryptoAPI loop, per user: the mean of the two below
    double floorBeforeMs = 0, floorAfterMs = 0; // right before and right after Convert
    double peakMB = 0;      // the conversion process's peak private bytes
    double serverMs = -1;   // the wineserver's CPU time during the conversion, per user (<0: unknown)
    double libraryToFloor = 0; // libraryMs / floorMs of one conversion; of several, their median
    unsigned converted = 0; // users found in the store afterwards
};

bool RunOnce(const Options& options, unsigned users, bool strict, RunResult& r)
{
    WipeVendorKeys();
    nvstore::inspect::DeleteStoreKeyContainers();
    if (FAILED(nvtest::RegisterStoreServer())) {
        std::fprintf(stderr, "cannot register NVStore.dll\n");
        return false;
    }
    nvstore::inspect::SetUserKeyBits(options.keyBits);
    nvwriter::SetHostKeyBits(options.hostKeyBits);
    if (!SetPolicy(strict))
        return false;
    if (!options.traceFile.empty() && !nvbench::SetTracing(true, options.traceFile.c_str()))
        return false;

    nvwriter::Db20Options dbOptions;
    dbOptions.seed = options.seed;
    dbOptions.userCount = users;
    dbOptions.domainCount = 2;
    const nvwriter::Db20Database db = nvwriter::MakeDb20Database(dbOptions);
    HRESULT hr = nvwriter::WriteDb20Database(db);
    if (FAILED(hr)) {
        std::fprintf(stderr, "writing the 2.0 database failed: 0x%08lX\n", static_cast<unsigned long>(hr));
        return false;
    }

    // The floor's users, sealed as the old database holds them, and its first loop,
    // right before the conversion, with public keys of the users' key size standing
    // in for the users' own, which the store makes during the conversion. The second
    // loop runs right after it with the users' own keys; the floor is the mean of the
    // two, so that a machine that slows down or speeds up while a conversion runs
    // weighs on both sides alike.
    std::vector<FloorUser> floorUsers;
    {
        nv::unique_hcryptprov hProv = nvwriter::OpenMachineContainer(db.hostId);
        nv::unique_hcryptkey exchange;
        if (!hProv || !::CryptGetUserKey(hProv.get(), AT_KEYEXCHANGE, exchange.put()))
            return false;
        const std::vector<std::vector<BYTE>> standIns = StandInPublicKeys(options.keyBits, 8);
        if (standIns.empty()) {
            std::fprintf(stderr, "cannot make %lu-bit stand-in keys: %lu\n", static_cast<unsigned long>(options.keyBits),
                         ::GetLastError());
            return false;
        }
        for (const nvwriter::Db20User& user : db.users) {
            FloorUser fu;
            fu.publicKey = standIns[floorUsers.size() % standIns.size()];
            const nvwriter::DerBytes record = nvwriter::EncodeDb20UserBlob(hProv.get(), user);
            if (!Seal(hProv.get(), exchange.get(), record.data(), record.size(), fu.record))
                return false;
            for (const nvwriter::Db20Secret& s : user.secrets) {
                if (s.content.empty())
                    continue;
                fu.secrets.emplace_back();
                if (!Seal(hProv.get(), exchange.get(), s.content.data(), s.content.size(), fu.secrets.back()))
                    return false;
            }
            floorUsers.push_back(std::move(fu));
        }
    }
    const double floorBefore = RunFloor(floorUsers, db.hostId);
    if (floorBefore < 0)
        return false;

    // The conversion, in a process of its own.
    wchar_t self[MAX_PATH];
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    const double serverBefore = nvbench::WineserverCpuSeconds();
    const nvtest::ProcessRun child =
        nvtest::RunProcess(nvtest::QuoteArg(self) + L" " + nvtest::Widen(kChildArg), 120000 + users * 5000);
    const double serverAfter = nvbench::WineserverCpuSeconds();
    ChildResult c;
    if (!child.started || child.timedOut || !ParseChildResult(child.out, c)) {
        std::fprintf(stderr, "the conversion process failed (exit 0x%08lX%s):\n%s%s\n",
                     static_cast<unsigned long>(child.exitCode), child.timedOut ? ", timed out" : "",
                     child.out.c_str(), child.err.c_str());
        return false;
    }
    if (c.hr != S_OK) {
        std::fprintf(stderr, "Convert returned 0x%08lX\n", static_cast<unsigned long>(c.hr));
        return false;
    }
    r.converted = static_cast<unsigned>(nvstore::inspect::ListUsers().size());

    const double n = users ? users : 1;
    r.totalMs = c.seconds * 1e3 / n;
    r.storeMs = TicksToMs(c.storeTicks, c.frequency) / n;
    r.keyPairMs = TicksToMs(c.keyPairTicks, c.frequency) / n;
    r.libraryMs = r.totalMs - r.storeMs;
    r.peakMB = static_cast<double>(c.peakBytes) / (1024.0 * 1024.0);
    if (serverBefore >= 0 && serverAfter >= serverBefore)
        r.serverMs = (serverAfter - serverBefore) * 1e3 / n;

    // The floor again, the same users and secrets, with the keys the store made (a
    // user the store has no key for is left out; the run warns when one did not
    // reach the store).
    std::vector<FloorUser> kept;
    for (size_t i = 0; i < db.users.size() && i < floorUsers.size(); ++i) {
        if (nvstore::inspect::GetPublicKey(db.users[i].sidText, &floorUsers[i].publicKey))
            kept.push_back(std::move(floorUsers[i]));
    }
    const double floorAfter = RunFloor(kept, db.hostId);
    if (floorAfter < 0)
        return false;
    r.floorBeforeMs = floorBefore * 1e3 / static_cast<double>(std::max<size_t>(floorUsers.size(), 1));
    r.floorAfterMs = floorAfter * 1e3 / static_cast<double>(std::max<size_t>(kept.size(), 1));
    r.floorMs = (r.floorBeforeMs + r.floorAfterMs) / 2;
    r.libraryToFloor = r.floorMs > 0 ? r.libraryMs / r.floorMs : 0;

    nvwriter::DeleteDb20Container(db);
    nvstore::inspect::DeleteStoreKeyContainers();
    WipeVendorKeys();
    return true;
}

std::vector<unsigned> ParseList(const char* text)
{
    std::vector<unsigned> out;
    for (const char* p = text; *p;) {
        char* end = nullptr;
        unsigned long v = std::strtoul(p, &end, 10);
        if (end == p)
            return {};
        out.push_back(static_cast<unsigned>(v));
        p = *end == ',' ? end + 1 : end;
    }
    return out;
}

bool ParseArgs(int argc, char** argv, Options& o)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        const char* v = argv[i + 1];
        if (!std::strcmp(argv[i], "--users")) {
            o.sizes = ParseList(v);
            if (o.sizes.empty())
                return false;
        } else if (!std::strcmp(argv[i], "--policies")) {
            if (!std::strcmp(v, "default"))
                o.strict = {false};
            else if (!std::strcmp(v, "strict"))
                o.strict = {true};
            else if (!std::strcmp(v, "default,strict") || !std::strcmp(v, "both"))
                o.strict = {false, true};
            else
                return false;
        } else if (!std::strcmp(argv[i], "--repeat")) {
            o.repeat = ParseList(v);
            if (o.repeat.empty() || std::count(o.repeat.begin(), o.repeat.end(), 0u) != 0)
                return false;
        } else if (!std::strcmp(argv[i], "--host-key-bits")) {
            o.hostKeyBits = static_cast<DWORD>(std::strtoul(v, nullptr, 10));
        } else if (!std::strcmp(argv[i], "--key-bits")) {
            o.keyBits = static_cast<DWORD>(std::strtoul(v, nullptr, 10));
        } else if (!std::strcmp(argv[i], "--trace")) {
            o.traceFile.assign(v, v + std::strlen(v));
        } else if (!std::strcmp(argv[i], "--seed")) {
            o.seed = std::strtoull(v, nullptr, 10);
        } else {
            return false;
        }
    }
    return argc % 2 == 1;
}

const char* PolicyName(bool strict) { return strict ? "strict" : "default"; }

unsigned RepeatOf(const Options& o, size_t size) { return o.repeat[std::min(size, o.repeat.size() - 1)]; }

// The medians of several runs of one size and policy. The library's ratio to its floor
// is the median of each conversion's own ratio (its floor loops ran right around it),
// not the ratio of the two medians, which would set one conversion's library time
// against another one's floor.
RunResult Medians(const std::vector<RunResult>& runs)
{
    auto median = [&runs](double RunResult::*field) {
        std::vector<double> v;
        for (const RunResult& r : runs)
            v.push_back(r.*field);
        return nvbench::Median(v);
    };
    RunResult m;
    m.totalMs = median(&RunResult::totalMs);
    m.storeMs = median(&RunResult::storeMs);
    m.keyPairMs = median(&RunResult::keyPairMs);
    m.libraryMs = median(&RunResult::libraryMs);
    m.floorMs = median(&RunResult::floorMs);
    m.floorBeforeMs = median(&RunResult::floorBeforeMs);
    m.floorAfterMs = median(&RunResult::floorAfterMs);
    m.peakMB = median(&RunResult::peakMB);
    m.serverMs = median(&RunResult::serverMs);
    m.libraryToFloor = median(&RunResult::libraryToFloor);
    m.converted = runs.empty() ? 0 : runs.front().converted;
    for (const RunResult& r : runs)
        m.converted = std::min(m.converted, r.converted);
    return m;
}

bool RunAndReport(const Options& options, unsigned users, bool strict, RunResult& r)
{
    if (!RunOnce(options, users, strict, r))
        return false;
    std::printf("%u users, %s policy, %lu-bit user keys: %.2f ms per user in all; store %.2f (key pairs %.2f); "
                "library %.2f; CryptoAPI floor %.2f (before %.2f, after %.2f); %u users in the store; peak private "
                "%.1f MB",
                users, PolicyName(strict), static_cast<unsigned long>(options.keyBits), r.totalMs, r.storeMs,
                r.keyPairMs, r.libraryMs, r.floorMs, r.floorBeforeMs, r.floorAfterMs, r.converted, r.peakMB);
    if (r.serverMs >= 0)
        std::printf("; wineserver CPU %.2f ms per user", r.serverMs);
    std::printf("\n");
    if (r.converted != users)
        std::printf("warning: %u of %u users reached the store\n", r.converted, users);
    std::fflush(stdout);
    return true;
}

} // namespace

static int RunProgram(int argc, char** argv)
{
    if (argc == 2 && !std::strcmp(argv[1], kChildArg))
        return ConvertChild();
    if (argc == 4 && !std::strcmp(argv[1], kFloorChildArg))
        return FloorChild(nvtest::Widen(argv[2]).c_str(), nvtest::Widen(argv[3]).c_str());
    Options options;
    if (!ParseArgs(argc, argv, options)) {
        std::fprintf(stderr, "usage: convert20_bench [--users N[,N...]] [--policies default|strict|default,strict] "
                             "[--repeat N[,N...]] [--key-bits N] [--host-key-bits N] [--seed N] [--trace FILE]\n");
        return 2;
    }
    if (FAILED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) {
        std::fprintf(stderr, "CoInitializeEx failed\n");
        return 1;
    }

    // The first size under every policy, the policies alternating so that neither
    // always runs first; then every other size under the first policy.
    const unsigned baseUsers = options.sizes.front();
    std::vector<std::vector<RunResult>> baseRuns(options.strict.size());
    for (unsigned rep = 0; rep < RepeatOf(options, 0); ++rep) {
        for (size_t k = 0; k < options.strict.size(); ++k) {
            const size_t p = rep % 2 ? options.strict.size() - 1 - k : k;
            RunResult r;
            if (!RunAndReport(options, baseUsers, options.strict[p], r)) {
                ::CoUninitialize();
                return 1;
            }
            baseRuns[p].push_back(r);
        }
    }
    std::vector<RunResult> base;
    for (const auto& runs : baseRuns)
        base.push_back(Medians(runs));
    std::vector<RunResult> larger;
    for (size_t s = 1; s < options.sizes.size(); ++s) {
        std::vector<RunResult> runs;
        for (unsigned rep = 0; rep < RepeatOf(options, s); ++rep) {
            RunResult r;
            if (!RunAndReport(options, options.sizes[s], options.strict.front(), r)) {
                ::CoUninitialize();
                return 1;
            }
            runs.push_back(r);
        }
        larger.push_back(Medians(runs));
    }
    ::CoUninitialize();

    // The scaling curve is the first policy's: the base size's medians, then the others.
    nvbench::CurvePoint(baseUsers, base.front().totalMs, base.front().libraryMs, base.front().floorMs,
                        base.front().storeMs);
    for (size_t s = 1; s < options.sizes.size(); ++s)
        nvbench::CurvePoint(options.sizes[s], larger[s - 1].totalMs, larger[s - 1].libraryMs,
                            larger[s - 1].floorMs, larger[s - 1].storeMs);

    char figure[160];
    for (size_t p = 0; p < options.strict.size(); ++p) {
        const RunResult& r = base[p];
        const char* policy = PolicyName(options.strict[p]);
        std::snprintf(figure, sizeof(figure),
                      "2.0->3.0 %u users %s: library per user (floor CryptoAPI loop; median of %u runs' ratios)",
                      baseUsers, policy, RepeatOf(options, 0));
        nvbench::PairedRow(figure, r.libraryMs, r.floorMs, r.libraryToFloor, "<=1.15", "ms/user");
        std::snprintf(figure, sizeof(figure), "2.0->3.0 %u users %s: total per user", baseUsers, policy);
        nvbench::Row(figure, r.totalMs, 0, "-", "ms/user");
        std::snprintf(figure, sizeof(figure), "2.0->3.0 %u users %s: store's share per user", baseUsers, policy);
        nvbench::Row(figure, r.storeMs, 0, "not ours", "ms/user");
        std::snprintf(figure, sizeof(figure), "2.0->3.0 %u users %s: of which the store's key-pair generation",
                      baseUsers, policy);
        nvbench::Row(figure, r.keyPairMs, 0, "not ours", "ms/user");
    }
    if (base.front().serverMs >= 0) {
        std::snprintf(figure, sizeof(figure),
                      "2.0->3.0 %u users: wineserver CPU per user while the conversion process ran", baseUsers);
        nvbench::Row(figure, base.front().serverMs, 0, "platform", "ms/user");
    }
    if (options.strict.size() == 2) {
        std::snprintf(figure, sizeof(figure), "2.0->3.0 %u users: strict library per user (anchor default)",
                      baseUsers);
        nvbench::Row(figure, base[1].libraryMs, base[0].libraryMs, "<=1.02", "ms/user");
    }
    for (size_t s = 1; s < options.sizes.size(); ++s) {
        const RunResult& r = larger[s - 1];
        std::snprintf(figure, sizeof(figure), "2.0->3.0 %u users: library per user (anchor %u users)",
                      options.sizes[s], baseUsers);
        nvbench::Row(figure, r.libraryMs, base.front().libraryMs, "<=1.10", "ms/user");
        std::snprintf(figure, sizeof(figure),
                      "2.0->3.0 %u users: library per user (floor CryptoAPI loop; median of %u runs' ratios)",
                      options.sizes[s], RepeatOf(options, s));
        nvbench::PairedRow(figure, r.libraryMs, r.floorMs, r.libraryToFloor, "<=1.15", "ms/user");
        std::snprintf(figure, sizeof(figure), "2.0->3.0 %u users: total per user (anchor %u users)",
                      options.sizes[s], baseUsers);
        nvbench::Row(figure, r.totalMs, base.front().totalMs, "<=1.10", "ms/user");
        if (r.serverMs >= 0 && base.front().serverMs > 0) {
            std::snprintf(figure, sizeof(figure),
                          "2.0->3.0 %u users: wineserver CPU per user while the conversion process ran "
                          "(anchor %u users)",
                          options.sizes[s], baseUsers);
            nvbench::Row(figure, r.serverMs, base.front().serverMs, "platform", "ms/user");
        }
    }
    const RunResult& last = larger.empty() ? base.front() : larger.back();
    std::snprintf(figure, sizeof(figure), "2.0->3.0 %u users: peak private memory of the conversion process",
                  options.sizes.back());
    nvbench::Row(figure, last.peakMB, 0, "<=64", "MB");
    return 0;
}

// The result also written where scripts/wine-run asks for it (tests/support/exit_file).
int main(int argc, char** argv) { return nvtest::MainWithExitFile(RunProgram, argc, argv); }
