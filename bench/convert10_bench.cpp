// Converting a format 1.0 database through the library's Convert, next to a plain
// RegCopyTreeW of the same tree, measured in the same run.
//
// Convert backs the whole database up (a recursive copy), strips the name indexes,
// deletes the policy keys and finally deletes the backup, so its time is best read
// as a multiple of one copy of the tree.
//
//   convert10_bench [--users N] [--domains N] [--seed N] [--runs N]
//
// It rewrites HKLM\SOFTWARE\Norvane\DB (32-bit view) and deletes it at the end:
// run it in a scratch Wine prefix. Registry calls cost several times more when the
// client and the wineserver sit on different CPUs, so pin both to one CPU for
// stable figures:
//   WINEPREFIX=... taskset -c 0 /usr/lib/wine/wineserver -p
//   WINEPREFIX=... taskset -c 0 /usr/lib/wine/wine64 build/win/bin/convert10_bench.exe
#include <windows.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/handles.h"
#include "common/procaddress.h"
#include "common/regkey.h"
#include "writer/legacy_writer.h"

namespace {

constexpr const wchar_t kCopyPath[] = L"SOFTWARE\\Norvane\\BenchCopy";

double Seconds(LARGE_INTEGER a, LARGE_INTEGER b)
{
    LARGE_INTEGER f;
    ::QueryPerformanceFrequency(&f);
    return static_cast<double>(b.QuadPart - a.QuadPart) / static_cast<double>(f.QuadPart);
}

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v[v.size() / 2];
}

std::wstring ExeDirectory()
{
    wchar_t buf[MAX_PATH];
    DWORD n = ::GetModuleFileNameW(nullptr, buf, MAX_PATH);
    std::wstring p(buf, n);
    size_t slash = p.find_last_of(L"\\/");
    return slash == std::wstring::npos ? std::wstring() : p.substr(0, slash + 1);
}

bool WriteDb(const nvwriter::DbOptions& options, nvwriter::DbRecord* record)
{
    HRESULT hr = nvwriter::WriteDatabase(options, record);
    if (FAILED(hr))
        std::fprintf(stderr, "writing the database failed: 0x%08lX\n", static_cast<unsigned long>(hr));
    return SUCCEEDED(hr);
}

// Times Convert of a freshly loaded library; <0 on failure.
double TimeConvert()
{
    nv::unique_hmodule dll(::LoadLibraryW((ExeDirectory() + L"NVDBConv.dll").c_str()));
    if (!dll) {
        std::fprintf(stderr, "cannot load NVDBConv.dll: %lu\n", ::GetLastError());
        return -1;
    }
    using ConvertFn = HRESULT(__stdcall*)();
    auto convert = nv::GetProcAs<ConvertFn>(dll.get(), "Convert");
    if (!convert)
        return -1;
    LARGE_INTEGER a, b;
    ::QueryPerformanceCounter(&a);
    HRESULT hr = convert();
    ::QueryPerformanceCounter(&b);
    if (hr != S_OK) {
        std::fprintf(stderr, "Convert returned 0x%08lX\n", static_cast<unsigned long>(hr));
        return -1;
    }
    nv::CNVRegKey db;
    std::wstring version;
    if (db.Open(HKEY_LOCAL_MACHINE, nv::kDatabaseKeyPath, KEY_READ | KEY_WOW64_32KEY) != ERROR_SUCCESS ||
        nv::QueryStringValue(db, L"Version", version) != ERROR_SUCCESS || version != L"2.0") {
        std::fprintf(stderr, "the database does not read \"2.0\" after Convert\n");
        return -1;
    }
    return Seconds(a, b);
}

// Times RegCopyTreeW of the database into a scratch key of the same view; <0 on failure.
double TimeCopyTree()
{
    nvwriter::WipeDatabase(kCopyPath, KEY_WOW64_32KEY);
    nv::unique_hkey src, dst;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, nv::kDatabaseKeyPath, 0, KEY_READ | KEY_WOW64_32KEY, src.put()) ||
        ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kCopyPath, 0, nullptr, 0, KEY_ALL_ACCESS | KEY_WOW64_32KEY, nullptr,
                          dst.put(), nullptr))
        return -1;
    LARGE_INTEGER a, b;
    ::QueryPerformanceCounter(&a);
    LONG r = ::RegCopyTreeW(src.get(), nullptr, dst.get());
    ::QueryPerformanceCounter(&b);
    dst.reset();
    nvwriter::WipeDatabase(kCopyPath, KEY_WOW64_32KEY);
    if (r != ERROR_SUCCESS) {
        std::fprintf(stderr, "RegCopyTreeW failed: %ld\n", r);
        return -1;
    }
    return Seconds(a, b);
}

bool ParseArgs(int argc, char** argv, nvwriter::DbOptions& options, unsigned& runs)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        unsigned long long v = std::strtoull(argv[i + 1], nullptr, 10);
        if (!std::strcmp(argv[i], "--users"))
            options.users = static_cast<unsigned>(v);
        else if (!std::strcmp(argv[i], "--domains"))
            options.domains = static_cast<unsigned>(v);
        else if (!std::strcmp(argv[i], "--seed"))
            options.seed = v;
        else if (!std::strcmp(argv[i], "--runs"))
            runs = static_cast<unsigned>(v ? v : 1);
        else
            return false;
    }
    return argc % 2 == 1;
}

} // namespace

int main(int argc, char** argv)
{
    nvwriter::DbOptions options;
    options.users = 5000;
    options.domains = 20;
    options.seed = 1;
    options.wipe = true;
    unsigned runs = 3;
    if (!ParseArgs(argc, argv, options, runs)) {
        std::fprintf(stderr, "usage: convert10_bench [--users N] [--domains N] [--seed N] [--runs N]\n");
        return 2;
    }

    std::vector<double> convert, copy;
    nvwriter::DbRecord record;
    // Run 0 warms the registry and the loader up and is not counted.
    for (unsigned run = 0; run <= runs; ++run) {
        if (!WriteDb(options, &record))
            return 1;
        double c = TimeConvert();
        if (!WriteDb(options, &record))
            return 1;
        double t = TimeCopyTree();
        if (c < 0 || t < 0)
            return 1;
        if (run == 0)
            continue;
        convert.push_back(c);
        copy.push_back(t);
        std::printf("run %u: Convert %.1f ms, RegCopyTreeW %.1f ms, ratio %.2f\n", run, c * 1e3, t * 1e3, c / t);
    }
    nvwriter::WipeDatabase(options.dbPath, options.view);

    const double mc = Median(convert), mt = Median(copy);
    std::printf("format 1.0 database: %zu users in %u domains, %zu keys, %zu values\n", record.users.size(),
                static_cast<unsigned>(record.stores.size() - 1), record.keys.size(), record.ValueCount());
    std::printf("median of %u runs: Convert %.1f ms, RegCopyTreeW %.1f ms, Convert / RegCopyTreeW = %.2f\n", runs,
                mc * 1e3, mt * 1e3, mc / mt);
    return 0;
}
