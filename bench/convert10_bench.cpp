// Format 1.0 -> 2.0: the library's Convert, its backup copy and its recursive delete,
// each beside the registry's own tree functions on the same tree, measured in the
// same run; and Convert with tracing switched off and on beside Convert with no
// Tracing key at all.
//
//   convert10_bench [--users N] [--domains N] [--seed N] [--runs N]
//
// Figures (medians over the runs; run 0 warms up and is not counted; every run
// converts twice with each tracing setting, in an order that turns and walks back;
// the two tracing ratios are the medians of each run's own ratio, the settings of a
// run having converted side by side):
//   Convert                 vs RegCopyTreeW + RegDeleteTreeW (what Convert must do
//                           at least: copy the tree to the backup, delete the backup)
//   backup copy (CopyKey)   vs RegCopyTreeW
//   cleanup delete (DeleteKey) vs RegDeleteTreeW
//   Convert, tracing off    vs Convert without a Tracing key
//   Convert, tracing on (verbosity 10, file) vs Convert, tracing off
//
// It rewrites HKLM\SOFTWARE\Norvane\DB (32-bit view) and the Tracing key and deletes
// them at the end: run it in a scratch Wine prefix (scripts/bench does). Registry
// calls cost several times more when the client and the wineserver sit on different
// CPUs, so pin both to one CPU for stable figures (scripts/bench does that too).
#include <windows.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_util.h"
#include "common/regkey.h"
#include "frame/baseconverter.h"
#include "writer/legacy_writer.h"
#include "exit_file/exit_file.h"

namespace {

constexpr REGSAM kDbView = KEY_WOW64_32KEY;
constexpr const wchar_t kCopyName[] = L"BenchCopy";
constexpr const wchar_t kCopyPath[] = L"SOFTWARE\\Norvane\\BenchCopy";
constexpr const wchar_t kTraceFile[] = L"C:\\windows\\temp\\convert10_bench.trc3";

enum class Tracing { NoKey, Off, OnVerbose };

bool WriteDb(const nvwriter::DbOptions& options, nvwriter::DbRecord* record)
{
    HRESULT hr = nvwriter::WriteDatabase(options, record);
    if (FAILED(hr))
        std::fprintf(stderr, "writing the database failed: 0x%08lX\n", static_cast<unsigned long>(hr));
    return SUCCEEDED(hr);
}

void SetTracing(Tracing tracing)
{
    ::DeleteFileW(kTraceFile);
    nvbench::SetTracing(tracing == Tracing::OnVerbose, tracing == Tracing::NoKey ? nullptr : kTraceFile);
}

// Times Convert of a freshly loaded library; <0 on failure.
double TimeConvert(Tracing tracing)
{
    SetTracing(tracing);
    nvbench::Library dll;
    if (!dll)
        return -1;
    nvbench::Stopwatch watch;
    HRESULT hr = dll.Convert();
    const double seconds = watch.Seconds();
    SetTracing(Tracing::NoKey);
    if (hr != S_OK) {
        std::fprintf(stderr, "Convert returned 0x%08lX\n", static_cast<unsigned long>(hr));
        return -1;
    }
    nv::CNVRegKey db;
    std::wstring version;
    if (db.Open(HKEY_LOCAL_MACHINE, nv::kDatabaseKeyPath, KEY_READ | kDbView) != ERROR_SUCCESS ||
        nv::QueryStringValue(db, L"Version", version) != ERROR_SUCCESS || version != L"2.0") {
        std::fprintf(stderr, "the database does not read \"2.0\" after Convert\n");
        return -1;
    }
    return seconds;
}

struct TreeTimes {
    double copyKey = -1, copyTree = -1, deleteKey = -1, deleteTree = -1;
};

// The library's CopyKey (as Backup calls it: from the open database key into a new
// key of the 32-bit view) and DeleteKey of that copy, then RegCopyTreeW and
// RegDeleteTreeW of the same tree.
bool TimeTrees(TreeTimes& t)
{
    nvwriter::WipeDatabase(kCopyPath, kDbView);
    nv::CNVRegKey db, vendor;
    if (db.Open(HKEY_LOCAL_MACHINE, nv::kDatabaseKeyPath, KEY_READ | KEY_WRITE | kDbView) != ERROR_SUCCESS ||
        vendor.Open(HKEY_LOCAL_MACHINE, nv::kVendorKeyPath, KEY_ALL_ACCESS | kDbView) != ERROR_SUCCESS)
        return false;

    nvbench::Stopwatch copyWatch;
    HRESULT hr = CBaseConverter::CopyKey(HKEY_LOCAL_MACHINE, kCopyPath, kDbView, db, L"", 0);
    t.copyKey = copyWatch.Seconds();
    if (hr != S_OK) {
        std::fprintf(stderr, "CopyKey failed: 0x%08lX\n", static_cast<unsigned long>(hr));
        return false;
    }
    nvbench::Stopwatch deleteWatch;
    hr = CBaseConverter::DeleteKey(HKEY_LOCAL_MACHINE, kCopyPath, kDbView);
    t.deleteKey = deleteWatch.Seconds();
    if (hr != S_OK) {
        std::fprintf(stderr, "DeleteKey failed: 0x%08lX\n", static_cast<unsigned long>(hr));
        return false;
    }

    nv::CNVRegKey dst;
    if (dst.Create(HKEY_LOCAL_MACHINE, kCopyPath, KEY_ALL_ACCESS | kDbView) != ERROR_SUCCESS)
        return false;
    nvbench::Stopwatch treeWatch;
    LONG r = ::RegCopyTreeW(db, nullptr, dst);
    t.copyTree = treeWatch.Seconds();
    dst.Close();
    if (r != ERROR_SUCCESS) {
        std::fprintf(stderr, "RegCopyTreeW failed: %ld\n", r);
        return false;
    }
    nvbench::Stopwatch deleteTreeWatch;
    r = ::RegDeleteTreeW(vendor, kCopyName);
    t.deleteTree = deleteTreeWatch.Seconds();
    if (r != ERROR_SUCCESS) {
        std::fprintf(stderr, "RegDeleteTreeW failed: %ld\n", r);
        return false;
    }
    return true;
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

static int RunProgram(int argc, char** argv)
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

    std::vector<double> convert, convertOff, convertOn, copyKey, copyTree, deleteKey, deleteTree;
    std::vector<double> offRatio, onRatio; // per run: off / no key, on / off
    nvwriter::DbRecord record;
    for (unsigned run = 0; run <= runs; ++run) {
        // c[0] no Tracing key, c[1] tracing off, c[2] tracing on, each the mean of two
        // conversions. The order turns with every run and is then walked back (A B C
        // C B A), so that no setting always runs first, and a slow drift of the
        // machine over the run weighs on every setting alike.
        double c[3] = {0, 0, 0};
        const Tracing settings[3] = {Tracing::NoKey, Tracing::Off, Tracing::OnVerbose};
        for (int k = 0; k < 6; ++k) {
            const int which = static_cast<int>(((k < 3 ? k : 5 - k) + run) % 3);
            if (!WriteDb(options, &record))
                return 1;
            const double seconds = TimeConvert(settings[which]);
            if (seconds < 0)
                return 1;
            c[which] += seconds / 2;
        }
        if (!WriteDb(options, &record))
            return 1;
        TreeTimes t;
        if (!TimeTrees(t))
            return 1;
        if (run == 0)
            continue;
        convert.push_back(c[0]);
        convertOff.push_back(c[1]);
        convertOn.push_back(c[2]);
        offRatio.push_back(c[1] / c[0]);
        onRatio.push_back(c[2] / c[1]);
        copyKey.push_back(t.copyKey);
        copyTree.push_back(t.copyTree);
        deleteKey.push_back(t.deleteKey);
        deleteTree.push_back(t.deleteTree);
        std::printf("run %u: Convert %.1f ms (trace off %.1f, on %.1f; off/no key %.3f, on/off %.3f); CopyKey %.1f, "
                    "RegCopyTreeW %.1f; DeleteKey %.1f, RegDeleteTreeW %.1f ms\n",
                    run, c[0] * 1e3, c[1] * 1e3, c[2] * 1e3, c[1] / c[0], c[2] / c[1], t.copyKey * 1e3,
                    t.copyTree * 1e3, t.deleteKey * 1e3, t.deleteTree * 1e3);
    }
    nvwriter::WipeDatabase(options.dbPath, options.view);
    SetTracing(Tracing::NoKey);

    std::printf("format 1.0 database: %zu users in %u domains, %zu keys, %zu values; medians of %u runs\n",
                record.users.size(), static_cast<unsigned>(record.stores.size() - 1), record.keys.size(),
                record.ValueCount(), runs);
    const double mConvert = nvbench::Median(convert) * 1e3;
    const double mCopyTree = nvbench::Median(copyTree) * 1e3;
    const double mDeleteTree = nvbench::Median(deleteTree) * 1e3;
    char figure[128];
    std::snprintf(figure, sizeof(figure), "1.0->2.0 Convert %zu users (floor RegCopyTreeW+RegDeleteTreeW)",
                  record.users.size());
    nvbench::Row(figure, mConvert, mCopyTree + mDeleteTree, "<=1.35", "ms");
    nvbench::Row("backup copy CopyKey (anchor RegCopyTreeW)", nvbench::Median(copyKey) * 1e3, mCopyTree, "<=1.35",
                 "ms");
    nvbench::Row("cleanup delete DeleteKey (anchor RegDeleteTreeW)", nvbench::Median(deleteKey) * 1e3, mDeleteTree,
                 "<=1.15", "ms");
    nvbench::PairedRow("1.0->2.0 Convert tracing off (anchor no Tracing key; median of run ratios)",
                       nvbench::Median(convertOff) * 1e3, mConvert, nvbench::Median(offRatio), "<1.01", "ms");
    nvbench::PairedRow("1.0->2.0 Convert tracing on v10 file (anchor tracing off; median of run ratios)",
                       nvbench::Median(convertOn) * 1e3, nvbench::Median(convertOff) * 1e3, nvbench::Median(onRatio),
                       "<1.10", "ms");
    return 0;
}

// The result also written where scripts/wine-run asks for it (tests/support/exit_file).
int main(int argc, char** argv) { return nvtest::MainWithExitFile(RunProgram, argc, argv); }
