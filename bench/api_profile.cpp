// Where a conversion's time goes: one Convert of a freshly written database, with
// every import of NVDBConv.dll from the registry, CryptoAPI, COM, OLE automation,
// network and trace-file families pointed at a timing wrapper (its import table is
// patched after the load). It prints, per imported function, the calls and the time
// spent inside them, sorted by time; then the split of Convert into the store's
// operations (the store's own counters), the library's imported calls, and the rest:
// the library's own code.
//
//   api_profile [--conversion 1.0|2.0] [--users N] [--key-bits N] [--host-key-bits N] [--seed N]
//               [--policy default|strict] [--top N] [--opens on|off] [--calls on|off]
//               [--trace FILE]
//
// --conversion: 1.0 (a legacy 1.0 database, converted to 2.0) or 2.0 (default; a 2.0
// database converted into the reference store). --key-bits: the size of the user key
// pairs the store makes (default 1024; 2048 is the store's own default).
// --host-key-bits: the size of the machine's key-exchange key (default: the legacy
// writer's, 2048); a small one leaves the registry and COM work in view. --top: how
// many functions (and opened keys) to list (default 25). --opens on: also count the
// keys the library opens, by root, access and path. --calls on: print every registry,
// security and CryptoAPI call as it is made ("call <name>", an open with its root,
// access, path and result); with a few users it shows what one user costs. --trace:
// the conversion traces at verbosity 10 into FILE (a Windows path), so that the
// trace file's share shows.
//
// Timing wrappers cost about a microsecond a call, which the figures include; the
// counts are exact. Time inside CoCreateInstance and CoGetClassObject includes what
// the store counts as its own (its class factory); the split counts it once, as the
// store's.
//
// It rewrites the suite's registry keys and the store, and deletes the key containers
// it made: run it in a scratch Wine prefix (scripts/bench prefix, for example).
#include <windows.h>
#include <objbase.h>
#include <oleauto.h>
#include <sddl.h>
#include <wincrypt.h>
#include <lm.h>
#include <aclapi.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "bench_util.h"
#include "nvstore_inspect.h"
#include "storecounters.h"
#include "support/import_patch.h"
#include "support/store_sandbox.h"
#include "writer/db20_writer.h"
#include "writer/host_provisioning.h"
#include "writer/legacy_writer.h"
#include "exit_file/exit_file.h"

namespace {

struct Stat {
    const char* name;
    void* hook;
    void* original = nullptr;
    ULONGLONG calls = 0;
    ULONGLONG ticks = 0;
};

Stat* g_stats = nullptr;
// Store time spent inside CoCreateInstance (its class factory): counted once.
ULONGLONG g_storeTicksInActivation = 0;

bool ReadStoreCounters(NVSTORE_COUNTERS& c)
{
    auto fn = nv::GetProcAs<PFN_NVSTOREGETCOUNTERS>(::GetModuleHandleW(L"NVStore.dll"), kNVStoreGetCountersExport);
    return fn && fn(&c) == S_OK;
}

// What the store counted while the call ran: activation runs its class factory.
class StoreTicksDuring {
public:
    explicit StoreTicksDuring(bool watch) noexcept : m_watch(watch) { Read(m_before); }
    ~StoreTicksDuring()
    {
        NVSTORE_COUNTERS after{};
        Read(after);
        g_storeTicksInActivation += after.ullCallTicks - m_before.ullCallTicks;
    }

private:
    void Read(NVSTORE_COUNTERS& c) const noexcept
    {
        c = NVSTORE_COUNTERS{};
        const DWORD error = ::GetLastError();
        if (m_watch)
            ReadStoreCounters(c);
        ::SetLastError(error);
    }
    bool m_watch;
    NVSTORE_COUNTERS m_before{};
};

// --calls on: every registry, security and CryptoAPI call in order, one line each.
bool g_sequence = false;

bool InSequence(const char* name) noexcept
{
    return g_sequence && (!std::strncmp(name, "Reg", 3) || !std::strncmp(name, "Crypt", 5) ||
                          !std::strcmp(name, "SetSecurityInfo"));
}

// One wrapper per imported function, made from its declared type: it times the call
// and hands every argument and the result through unchanged (QueryPerformanceCounter
// leaves the last error alone).
template <int I, class F>
struct Timed;
template <int I, class R, class... A>
struct Timed<I, R(WINAPI*)(A...)> {
    static R WINAPI Call(A... args)
    {
        using Fn = R(WINAPI*)(A...);
        Stat& s = g_stats[I];
        if (InSequence(s.name))
            std::printf("call %s\n", s.name);
        const StoreTicksDuring store(std::strcmp(s.name, "CoCreateInstance") == 0 ||
                                     std::strcmp(s.name, "CoGetClassObject") == 0);
        LARGE_INTEGER t0, t1;
        ::QueryPerformanceCounter(&t0);
        if constexpr (std::is_void_v<R>) {
            reinterpret_cast<Fn>(s.original)(args...);
            ::QueryPerformanceCounter(&t1);
            ++s.calls;
            s.ticks += static_cast<ULONGLONG>(t1.QuadPart - t0.QuadPart);
        } else {
            R r = reinterpret_cast<Fn>(s.original)(args...);
            ::QueryPerformanceCounter(&t1);
            ++s.calls;
            s.ticks += static_cast<ULONGLONG>(t1.QuadPart - t0.QuadPart);
            return r;
        }
    }
};

// The keys opened, by path and access: where RegOpenKeyExW's time goes.
struct OpenStat {
    ULONGLONG calls = 0;
    ULONGLONG ticks = 0;
};
std::map<std::wstring, OpenStat>* g_opens = nullptr;

LSTATUS WINAPI CountedRegOpenKeyExW(HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY out);

// The C run-time's allocation functions carry attributes that a template argument
// drops; the wrapper's type is what matters here.
#pragma GCC diagnostic ignored "-Wignored-attributes"

// Entry 0 is RegOpenKeyExW's own wrapper; the macro numbers the others from 1.
constexpr int kFirstCounter = __COUNTER__;
#define NV_TIMED(fn) Stat{#fn, reinterpret_cast<void*>(&Timed<__COUNTER__ - kFirstCounter, decltype(&::fn)>::Call)}

Stat g_table[] = {
    // Registry.
    Stat{"RegOpenKeyExW", reinterpret_cast<void*>(&CountedRegOpenKeyExW)}, NV_TIMED(RegOpenKeyExA),
    NV_TIMED(RegCreateKeyExW), NV_TIMED(RegCloseKey), NV_TIMED(RegQueryValueExW), NV_TIMED(RegQueryValueExA), NV_TIMED(RegSetValueExW), NV_TIMED(RegEnumValueW),
    NV_TIMED(RegEnumKeyExW), NV_TIMED(RegEnumKeyExA), NV_TIMED(RegQueryInfoKeyW), NV_TIMED(RegDeleteKeyExW),
    NV_TIMED(RegDeleteKeyW), NV_TIMED(RegDeleteValueW),
    // Security.
    NV_TIMED(SetSecurityInfo), NV_TIMED(OpenProcessToken), NV_TIMED(OpenThreadToken), NV_TIMED(GetTokenInformation),
    NV_TIMED(CreateWellKnownSid), NV_TIMED(ConvertSidToStringSidW), NV_TIMED(ConvertStringSidToSidW),
    // CryptoAPI.
    NV_TIMED(CryptAcquireContextW), NV_TIMED(CryptReleaseContext), NV_TIMED(CryptContextAddRef),
    NV_TIMED(CryptGetUserKey), NV_TIMED(CryptImportKey), NV_TIMED(CryptExportKey), NV_TIMED(CryptGenKey),
    NV_TIMED(CryptDuplicateKey), NV_TIMED(CryptDestroyKey), NV_TIMED(CryptEncrypt), NV_TIMED(CryptDecrypt),
    NV_TIMED(CryptGenRandom), NV_TIMED(CryptDecodeObject), NV_TIMED(CryptEncodeObject),
    NV_TIMED(CryptExportPublicKeyInfo), NV_TIMED(CryptImportPublicKeyInfo), NV_TIMED(CryptSignCertificate),
    NV_TIMED(CryptVerifyCertificateSignature),
    // COM and OLE automation.
    NV_TIMED(CoCreateInstance), NV_TIMED(CoGetClassObject), NV_TIMED(CoCreateGuid), NV_TIMED(StringFromGUID2),
    NV_TIMED(CoTaskMemAlloc), NV_TIMED(CoTaskMemFree), NV_TIMED(SysAllocString), NV_TIMED(SysAllocStringLen), NV_TIMED(SysFreeString),
    // Network management.
    NV_TIMED(NetServerGetInfo), NV_TIMED(NetWkstaGetInfo), NV_TIMED(NetApiBufferFree),
    // The trace file and its timestamps.
    NV_TIMED(CreateFileW), NV_TIMED(WriteFile), NV_TIMED(SetFilePointer), NV_TIMED(GetLocalTime),
    NV_TIMED(GetTickCount),
    // Memory, locks, names and the exception machinery of the C++ run-time.
    NV_TIMED(HeapAlloc), NV_TIMED(HeapFree), NV_TIMED(LocalAlloc), NV_TIMED(LocalFree), NV_TIMED(malloc),
    NV_TIMED(calloc), NV_TIMED(realloc), NV_TIMED(free), NV_TIMED(EnterCriticalSection),
    NV_TIMED(LeaveCriticalSection), NV_TIMED(TlsGetValue), NV_TIMED(TlsSetValue), NV_TIMED(CompareStringOrdinal),
    NV_TIMED(MultiByteToWideChar), NV_TIMED(WideCharToMultiByte), NV_TIMED(GetComputerNameExW),
    NV_TIMED(GetComputerNameW), NV_TIMED(GetProcAddress), NV_TIMED(RaiseException), NV_TIMED(RtlUnwindEx),
    NV_TIMED(RtlVirtualUnwind), NV_TIMED(RtlLookupFunctionEntry), NV_TIMED(RtlCaptureContext),
};
#undef NV_TIMED
constexpr int kTimedCount = sizeof(g_table) / sizeof(g_table[0]);
static_assert(kTimedCount == __COUNTER__ - kFirstCounter, "one wrapper per table entry");

LSTATUS WINAPI CountedRegOpenKeyExW(HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY out)
{
    Stat& s = g_stats[0];
    LARGE_INTEGER t0, t1;
    ::QueryPerformanceCounter(&t0);
    const LSTATUS r = reinterpret_cast<decltype(&::RegOpenKeyExW)>(s.original)(root, path, options, access, out);
    ::QueryPerformanceCounter(&t1);
    ++s.calls;
    s.ticks += static_cast<ULONGLONG>(t1.QuadPart - t0.QuadPart);
    if (g_sequence) {
        const DWORD error = ::GetLastError();
        std::printf("call RegOpenKeyExW %ls 0x%05lX %ls -> %ld\n", root == HKEY_LOCAL_MACHINE ? L"HKLM" : L"key",
                    static_cast<unsigned long>(access), path ? path : L"(null)", static_cast<long>(r));
        ::SetLastError(error);
    }
    if (g_opens) {
        const DWORD error = ::GetLastError();
        wchar_t prefix[48];
        std::swprintf(prefix, 48, L"%ls 0x%05lX ", root == HKEY_LOCAL_MACHINE ? L"HKLM" : L"key",
                      static_cast<unsigned long>(access));
        OpenStat& o = (*g_opens)[prefix + std::wstring(path ? path : L"(null)")];
        ++o.calls;
        o.ticks += static_cast<ULONGLONG>(t1.QuadPart - t0.QuadPart);
        ::SetLastError(error);
    }
    return r;
}

struct Options {
    bool conversion10 = false;
    unsigned users = 100;
    DWORD keyBits = 1024;
    DWORD hostKeyBits = 0; // the product's size
    unsigned long long seed = 1;
    bool strict = false;
    unsigned top = 25;
    bool opens = false;
    bool calls = false;
    std::wstring traceFile;
};

bool ParseArgs(int argc, char** argv, Options& o)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        const char* v = argv[i + 1];
        if (!std::strcmp(argv[i], "--conversion") && (!std::strcmp(v, "1.0") || !std::strcmp(v, "2.0")))
            o.conversion10 = !std::strcmp(v, "1.0");
        else if (!std::strcmp(argv[i], "--users"))
            o.users = static_cast<unsigned>(std::strtoul(v, nullptr, 10));
        else if (!std::strcmp(argv[i], "--key-bits"))
            o.keyBits = static_cast<DWORD>(std::strtoul(v, nullptr, 10));
        else if (!std::strcmp(argv[i], "--host-key-bits"))
            o.hostKeyBits = static_cast<DWORD>(std::strtoul(v, nullptr, 10));
        else if (!std::strcmp(argv[i], "--seed"))
            o.seed = std::strtoull(v, nullptr, 10);
        else if (!std::strcmp(argv[i], "--policy") && (!std::strcmp(v, "default") || !std::strcmp(v, "strict")))
            o.strict = !std::strcmp(v, "strict");
        else if (!std::strcmp(argv[i], "--opens") && (!std::strcmp(v, "on") || !std::strcmp(v, "off")))
            o.opens = !std::strcmp(v, "on");
        else if (!std::strcmp(argv[i], "--calls") && (!std::strcmp(v, "on") || !std::strcmp(v, "off")))
            o.calls = !std::strcmp(v, "on");
        else if (!std::strcmp(argv[i], "--trace") && *v)
            o.traceFile.assign(v, v + std::strlen(v));
        else if (!std::strcmp(argv[i], "--top"))
            o.top = static_cast<unsigned>(std::strtoul(v, nullptr, 10));
        else
            return false;
    }
    return argc % 2 == 1 && o.users > 0;
}

bool SetStrictPolicy(bool strict)
{
    HKEY key = nullptr;
    if (::RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\Policies\\Default", 0, nullptr, 0, KEY_ALL_ACCESS,
                          nullptr, &key, nullptr) != ERROR_SUCCESS)
        return false;
    const DWORD one = 1;
    const LONG r = strict ? ::RegSetValueExW(key, L"StrictConversion", 0, REG_DWORD,
                                             reinterpret_cast<const BYTE*>(&one), sizeof(one))
                          : (::RegDeleteValueW(key, L"StrictConversion"), ERROR_SUCCESS);
    ::RegCloseKey(key);
    return r == ERROR_SUCCESS;
}

} // namespace

static int RunProgram(int argc, char** argv)
{
    Options options;
    if (!ParseArgs(argc, argv, options)) {
        std::fprintf(stderr, "usage: api_profile [--conversion 1.0|2.0] [--users N] [--key-bits N] [--host-key-bits N] [--seed N] "
                             "[--policy default|strict] [--top N] [--opens on|off] [--calls on|off] [--trace FILE]\n");
        return 2;
    }
    g_stats = g_table;
    std::map<std::wstring, OpenStat> opens;
    if (options.opens)
        g_opens = &opens;
    g_sequence = options.calls;
    if (FAILED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
        return 1;

    nvwriter::Db20Database db20;
    if (options.conversion10) {
        nvwriter::DbOptions o;
        o.users = options.users;
        o.domains = 20;
        o.seed = options.seed;
        o.wipe = true;
        nvwriter::DbRecord record;
        if (FAILED(nvwriter::WriteDatabase(o, &record))) {
            std::fprintf(stderr, "writing the 1.0 database failed\n");
            return 1;
        }
    } else {
        nvstore::inspect::DeleteStoreKeyContainers();
        if (FAILED(nvtest::RegisterStoreServer()) || !SetStrictPolicy(options.strict)) {
            std::fprintf(stderr, "cannot register NVStore.dll or set the policy\n");
            return 1;
        }
        nvstore::inspect::SetUserKeyBits(options.keyBits);
        nvwriter::SetHostKeyBits(options.hostKeyBits);
        nvwriter::Db20Options o;
        o.seed = options.seed;
        o.userCount = options.users;
        o.domainCount = 2;
        db20 = nvwriter::MakeDb20Database(o);
        if (FAILED(nvwriter::WriteDb20Database(db20))) {
            std::fprintf(stderr, "writing the 2.0 database failed\n");
            return 1;
        }
    }

    if (!nvbench::SetTracing(true, options.traceFile.empty() ? nullptr : options.traceFile.c_str())) {
        std::fprintf(stderr, "cannot write the trace settings\n");
        return 1;
    }
    HRESULT hr = E_FAIL;
    double seconds = 0;
    NVSTORE_COUNTERS before{}, after{};
    {
        nvbench::Library dll;
        if (!dll)
            return 1;
        std::map<std::string, void*> hooks;
        for (const Stat& s : g_table)
            hooks.emplace(s.name, s.hook);
        nvtest::ImportPatch patch(dll.module(), hooks);
        if (!patch.ok()) {
            std::fprintf(stderr, "cannot patch the library's import table\n");
            return 1;
        }
        for (Stat& s : g_table)
            s.original = patch.Original(s.name);
        ReadStoreCounters(before);
        std::printf("NVDBConv.dll at %p\n", static_cast<void*>(dll.module()));
        nvbench::Stopwatch watch;
        hr = dll.Convert();
        seconds = watch.Seconds();
        if (!options.conversion10 && !ReadStoreCounters(after)) {
            std::fprintf(stderr, "NVStore.dll is not loaded or has no counters\n");
            return 1;
        }
    }
    nvbench::SetTracing(false, nullptr);
    if (!options.conversion10) {
        nvwriter::DeleteDb20Container(db20);
        nvstore::inspect::DeleteStoreKeyContainers();
    }
    ::CoUninitialize();
    if (hr != S_OK) {
        std::fprintf(stderr, "Convert returned 0x%08lX\n", static_cast<unsigned long>(hr));
        return 1;
    }

    LARGE_INTEGER freq;
    ::QueryPerformanceFrequency(&freq);
    const double tickMs = 1e3 / static_cast<double>(freq.QuadPart);
    const double totalMs = seconds * 1e3;
    const double users = options.users;
    std::vector<const Stat*> order;
    double importsMs = 0;
    for (const Stat& s : g_table) {
        if (!s.calls)
            continue;
        order.push_back(&s);
        importsMs += static_cast<double>(s.ticks) * tickMs;
    }
    std::sort(order.begin(), order.end(), [](const Stat* a, const Stat* b) { return a->ticks > b->ticks; });

    std::printf("%s: %u users, Convert %.1f ms (%.3f ms per user)\n",
                options.conversion10 ? "1.0 -> 2.0" : "2.0 -> 3.0", options.users, totalMs, totalMs / users);
    std::printf("%-34s %10s %12s %14s %8s\n", "imported function", "calls", "ms", "ms per user", "share");
    for (size_t i = 0; i < order.size() && i < options.top; ++i) {
        const double ms = static_cast<double>(order[i]->ticks) * tickMs;
        std::printf("%-34s %10llu %12.2f %14.4f %7.1f%%\n", order[i]->name, order[i]->calls, ms, ms / users,
                    100.0 * ms / totalMs);
    }

    const double storeMs = static_cast<double>(after.ullCallTicks - before.ullCallTicks) * tickMs;
    const double keyPairMs = static_cast<double>(after.ullKeyPairTicks - before.ullKeyPairTicks) * tickMs;
    // The store's class factory runs inside CoCreateInstance: counted once, as the store's.
    const double libraryImportsMs = importsMs - static_cast<double>(g_storeTicksInActivation) * tickMs;
    const double ownMs = totalMs - storeMs - libraryImportsMs;
    if (options.opens) {
        // Keys of one kind differ only in a GUID or SID at the end: grouped by what
        // comes before it.
        std::map<std::wstring, OpenStat> groups;
        for (const auto& [path, o] : opens) {
            const size_t brace = path.find_first_of(L"{");
            const size_t sid = path.find(L"S-1-");
            const std::wstring group = path.substr(0, std::min(brace, sid)) +
                                       (std::min(brace, sid) == std::wstring::npos ? L"" : L"...");
            groups[group].calls += o.calls;
            groups[group].ticks += o.ticks;
        }
        std::vector<std::pair<ULONGLONG, std::wstring>> byTime;
        for (const auto& [group, o] : groups)
            byTime.emplace_back(o.ticks, group);
        std::sort(byTime.rbegin(), byTime.rend());
        std::printf("\nkeys opened (root, access, path), most time first\n");
        for (size_t i = 0; i < byTime.size() && i < options.top; ++i) {
            const OpenStat& o = groups[byTime[i].second];
            const double ms = static_cast<double>(o.ticks) * tickMs;
            std::printf("%10llu %10.2f ms %8.1f us each  %ls\n", o.calls, ms, 1e3 * ms / static_cast<double>(o.calls),
                        byTime[i].second.c_str());
        }
    }
    std::printf("\nsplit of Convert, ms per user\n");
    if (!options.conversion10) {
        std::printf("  inside the store's operations      %10.3f  (%5.1f%%; its key pairs %.3f)\n", storeMs / users,
                    100.0 * storeMs / totalMs, keyPairMs / users);
    }
    std::printf("  in the library's imported calls    %10.3f  (%5.1f%%)\n", libraryImportsMs / users,
                100.0 * libraryImportsMs / totalMs);
    std::printf("  the library's own code             %10.3f  (%5.1f%%)\n", ownMs / users, 100.0 * ownMs / totalMs);
    return 0;
}

// The result also written where scripts/wine-run asks for it (tests/support/exit_file).
int main(int argc, char** argv) { return nvtest::MainWithExitFile(RunProgram, argc, argv); }
