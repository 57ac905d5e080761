// Format 2.0 -> 3.0 into the reference store (NVStore.dll): the time per user, split
// into the store's share (its own counters: time inside its operations, and within
// that its key-pair generation) and the library's own, beside a floor measured in the
// same run: a loop that does only the CryptoAPI work the format asks for, for the
// same users and secrets (unseal the user record, open each secret, seal each secret
// under the user's public key, import that key).
//
//   convert20_bench [--users N[,N...]] [--policies default|strict|default,strict]
//                   [--key-bits N] [--seed N] [--trace FILE]
//
// --users: database sizes, smallest first; the first is the base of the scaling
//   ratios. --policies: the conversion policy under
//   HKLM\SOFTWARE\Norvane\Policies\Default: "default" removes "StrictConversion",
//   "strict" sets it to 1; with both, the first size is converted under each, one
//   after the other, and the strict run is shown against the default one (the other
//   sizes under the first policy given). --key-bits: the
//   size of the users' key pairs that the store generates (its UserKeyBits; 2048 is
//   the store's own default). --trace: the conversion writes a trace at verbosity 10
//   into FILE (a Windows path), for finding where the time goes; it costs time itself.
//
// It rewrites the suite's registry keys and the store, and deletes the machine and
// store key containers it made: run it in a scratch Wine prefix (scripts/bench does).
#include <windows.h>
#include <objbase.h>
#include <psapi.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_util.h"
#include "common/regkey.h"
#include "nvstore_inspect.h"
#include "storecounters.h"
#include "support/store_sandbox.h"
#include "writer/db20_writer.h"
#include "writer/host_provisioning.h"

namespace {

constexpr const wchar_t kPolicyPath[] = L"SOFTWARE\\Norvane\\Policies\\Default";
constexpr const wchar_t kStrictValue[] = L"StrictConversion";
constexpr const wchar_t kVendorPath[] = L"SOFTWARE\\Norvane";

struct Options {
    std::vector<unsigned> sizes{100, 2000};
    std::vector<bool> strict{false};
    DWORD keyBits = 2048;
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

bool Seal(HCRYPTPROV hProv, HCRYPTKEY exchange, const std::vector<BYTE>& plain, Sealed& out)
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
    out.cipher = plain;
    out.cipher.resize(plain.size() + 16);
    DWORD cbData = static_cast<DWORD>(plain.size());
    if (!::CryptEncrypt(session.get(), 0, TRUE, 0, out.cipher.data(), &cbData,
                        static_cast<DWORD>(out.cipher.size())))
        return false;
    out.cipher.resize(cbData);
    return true;
}

bool Open(HCRYPTPROV hProv, HCRYPTKEY exchange, const Sealed& sealed, std::vector<BYTE>& plain)
{
    nv::unique_hcryptkey session;
    if (!::CryptImportKey(hProv, sealed.keyBlob.data(), static_cast<DWORD>(sealed.keyBlob.size()), exchange,
                          CRYPT_EXPORTABLE, session.put()))
        return false;
    plain = sealed.cipher;
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
    std::vector<BYTE> plain;
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
            if (!Seal(hProv, userKey.get(), plain, resealed))
                return -1;
        }
        ::SecureZeroMemory(plain.data(), plain.size());
    }
    return watch.Seconds();
}

struct RunResult {
    double totalMs = 0;     // Convert, per user
    double storeMs = 0;     // inside the store's operations, per user
    double keyPairMs = 0;   // of which key-pair generation, per user
    double libraryMs = 0;   // total - store, per user
    double floorMs = 0;     // the CryptoAPI loop, per user
    double peakMB = 0;      // the process's peak private bytes after the run
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
    if (!SetPolicy(strict))
        return false;
    if (!options.traceFile.empty()) {
        nv::CNVRegKey tracing;
        const DWORD on = 1, verbosity = 10;
        if (tracing.Create(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\Tracing", KEY_ALL_ACCESS) != ERROR_SUCCESS)
            return false;
        ::RegSetValueExW(tracing, L"DoTrace", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&on), sizeof(on));
        ::RegSetValueExW(tracing, L"Verbosity", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&verbosity),
                         sizeof(verbosity));
        nv::SetStringValue(tracing, L"FileName", options.traceFile.c_str());
    }

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

    NVSTORE_COUNTERS before{}, after{};
    double seconds = 0;
    {
        nvbench::Library dll;
        if (!dll)
            return false;
        if (!ReadStoreCounters(before)) {
            // The store is loaded on first use; counting starts at zero then.
            before = NVSTORE_COUNTERS{};
        }
        nvbench::Stopwatch watch;
        hr = dll.Convert();
        seconds = watch.Seconds();
        if (!ReadStoreCounters(after)) {
            std::fprintf(stderr, "NVStore.dll is not loaded or has no counters\n");
            return false;
        }
    }
    if (hr != S_OK) {
        std::fprintf(stderr, "Convert returned 0x%08lX\n", static_cast<unsigned long>(hr));
        return false;
    }
    r.converted = static_cast<unsigned>(nvstore::inspect::ListUsers().size());

    const double n = users ? users : 1;
    r.totalMs = seconds * 1e3 / n;
    r.storeMs = TicksToMs(after.ullCallTicks - before.ullCallTicks, after.ullFrequency) / n;
    r.keyPairMs = TicksToMs(after.ullKeyPairTicks - before.ullKeyPairTicks, after.ullFrequency) / n;
    r.libraryMs = r.totalMs - r.storeMs;

    // The floor, for the same users and secrets, with the keys the store made.
    nv::unique_hcryptprov hProv = nvwriter::OpenMachineContainer(db.hostId);
    nv::unique_hcryptkey exchange;
    if (!hProv || !::CryptGetUserKey(hProv.get(), AT_KEYEXCHANGE, exchange.put()))
        return false;
    std::vector<FloorUser> floorUsers;
    for (const nvwriter::Db20User& user : db.users) {
        FloorUser fu;
        if (!nvstore::inspect::GetPublicKey(user.sidText, &fu.publicKey))
            continue;
        const nvwriter::DerBytes record = nvwriter::EncodeDb20UserBlob(hProv.get(), user);
        if (!Seal(hProv.get(), exchange.get(), std::vector<BYTE>(record.begin(), record.end()), fu.record))
            return false;
        for (const nvwriter::Db20Secret& s : user.secrets) {
            if (s.content.empty())
                continue;
            fu.secrets.emplace_back();
            if (!Seal(hProv.get(), exchange.get(), s.content, fu.secrets.back()))
                return false;
        }
        floorUsers.push_back(std::move(fu));
    }
    exchange.reset();
    const double floorSeconds = TimeFloor(hProv.get(), floorUsers);
    if (floorSeconds < 0) {
        std::fprintf(stderr, "the CryptoAPI floor loop failed: %lu\n", ::GetLastError());
        return false;
    }
    r.floorMs = floorSeconds * 1e3 / (floorUsers.empty() ? 1 : floorUsers.size());

    PROCESS_MEMORY_COUNTERS_EX mem{};
    mem.cb = sizeof(mem);
    if (::GetProcessMemoryInfo(::GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&mem), sizeof(mem)))
        r.peakMB = static_cast<double>(mem.PeakPagefileUsage) / (1024.0 * 1024.0);

    hProv.reset();
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

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!ParseArgs(argc, argv, options)) {
        std::fprintf(stderr, "usage: convert20_bench [--users N[,N...]] [--policies default|strict|default,strict] "
                             "[--key-bits N] [--seed N] [--trace FILE]\n");
        return 2;
    }
    if (FAILED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) {
        std::fprintf(stderr, "CoInitializeEx failed\n");
        return 1;
    }

    // results[size][policy]
    std::vector<std::vector<RunResult>> results(options.sizes.size(),
                                                std::vector<RunResult>(options.strict.size()));
    for (size_t s = 0; s < options.sizes.size(); ++s) {
        for (size_t p = 0; p < options.strict.size(); ++p) {
            // The strict policy is compared at the first size only; the scaling
            // curve is the default policy's.
            if (s > 0 && p > 0)
                continue;
            RunResult& r = results[s][p];
            if (!RunOnce(options, options.sizes[s], options.strict[p], r)) {
                ::CoUninitialize();
                return 1;
            }
            std::printf("%u users, %s policy, %lu-bit user keys: %.2f ms per user in all; store %.2f (key pairs "
                        "%.2f); library %.2f; CryptoAPI floor %.2f; %u users in the store; peak private %.1f MB\n",
                        options.sizes[s], PolicyName(options.strict[p]), static_cast<unsigned long>(options.keyBits),
                        r.totalMs, r.storeMs, r.keyPairMs, r.libraryMs, r.floorMs, r.converted, r.peakMB);
            if (r.converted != options.sizes[s])
                std::printf("warning: %u of %u users reached the store\n", r.converted, options.sizes[s]);
            if (!options.strict[p])
                nvbench::CurvePoint(options.sizes[s], r.totalMs, r.libraryMs, r.floorMs, r.storeMs);
        }
    }
    ::CoUninitialize();

    char figure[160];
    const RunResult& base = results.front().front();
    const unsigned baseUsers = options.sizes.front();
    for (size_t p = 0; p < options.strict.size(); ++p) {
        const RunResult& r = results.front()[p];
        const char* policy = PolicyName(options.strict[p]);
        std::snprintf(figure, sizeof(figure), "2.0->3.0 %u users %s: library per user (floor CryptoAPI loop)",
                      baseUsers, policy);
        nvbench::Row(figure, r.libraryMs, r.floorMs, "<=1.15", "ms/user");
        std::snprintf(figure, sizeof(figure), "2.0->3.0 %u users %s: total per user", baseUsers, policy);
        nvbench::Row(figure, r.totalMs, 0, "-", "ms/user");
        std::snprintf(figure, sizeof(figure), "2.0->3.0 %u users %s: store's share per user (its key pairs %.2f)",
                      baseUsers, policy, r.keyPairMs);
        nvbench::Row(figure, r.storeMs, 0, "not ours", "ms/user");
    }
    if (options.strict.size() == 2) {
        std::snprintf(figure, sizeof(figure), "2.0->3.0 %u users: strict library per user (anchor default)",
                      baseUsers);
        nvbench::Row(figure, results.front()[1].libraryMs, results.front()[0].libraryMs, "<=1.02", "ms/user");
    }
    for (size_t s = 1; s < options.sizes.size(); ++s) {
        const RunResult& r = results[s].front();
        std::snprintf(figure, sizeof(figure), "2.0->3.0 %u users: library per user (anchor %u users)",
                      options.sizes[s], baseUsers);
        nvbench::Row(figure, r.libraryMs, base.libraryMs, "<=1.10", "ms/user");
        std::snprintf(figure, sizeof(figure), "2.0->3.0 %u users: library per user (floor CryptoAPI loop)",
                      options.sizes[s]);
        nvbench::Row(figure, r.libraryMs, r.floorMs, "<=1.15", "ms/user");
        std::snprintf(figure, sizeof(figure), "2.0->3.0 %u users: total per user (anchor %u users)",
                      options.sizes[s], baseUsers);
        nvbench::Row(figure, r.totalMs, base.totalMs, "<=1.10", "ms/user");
    }
    const RunResult& last = results.back().front();
    std::snprintf(figure, sizeof(figure), "2.0->3.0 %u users: peak private memory of the process",
                  options.sizes.back());
    nvbench::Row(figure, last.peakMB, 0, "<=64", "MB");
    return 0;
}
