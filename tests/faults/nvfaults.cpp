// nvfaults: fault injection and kill-and-restart for NVDBConv.dll.
//
//   nvfaults sweep --conversion 1.0|2.0 [--policy default|strict] [--modes once,from,kill]
//                  [--first N] [--stride S] [--from N] [--to N] [--report FILE]
//                  [--store-errors E_OUTOFMEMORY,RPC_E_DISCONNECTED,E_FAIL] [--store-only]
//       Writes the database, counts the calls of a clean conversion, then for every
//       chosen call number and mode runs the conversion in a child process with that
//       call failed (once, or from there on) or the process killed there, runs the
//       recovery an installer would (in a fresh process, which never carries hooks),
//       and checks that nothing was lost. Call numbers: 1..first, then every stride-th call, and the last call
//       (--stride 1: every call); --from/--to limit the sweep to a range of call
//       numbers, so that a full sweep can be split. A call at the store boundary is
//       failed (once, from) once with each of the store errors; --store-only sweeps
//       only those calls. Exit 0 when nothing was lost, 1 otherwise, 2 on a
//       usage or set-up error.
//   nvfaults child --mode count|once|from|kill --n N [--store-error E] --out FILE
//       One conversion under the hooks (used by sweep); a failed store call returns E
//       (default E_FAIL).
//   nvfaults recover --conversion 1.0|2.0 --out FILE
//       The installer's recovery after a faulted run (used by sweep).
#include <windows.h>
#include <objbase.h>
#include <psapi.h>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/procaddress.h"
#include "fault_hooks.h"
#include "fault_world.h"
#include "pe_image.h"
#include "store_boundary.h"
#include "support/dll_loader.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "support/store_sandbox.h"
#include "nvdbconv/dbstate.h"

using namespace nvfaults;

namespace {

constexpr int kExitOk = 0;
constexpr int kExitLost = 1;
constexpr int kExitUsage = 2;
constexpr int kExitSetup = 3;
// A faulted conversion of the sweep's small databases ends within a second or two;
// one still running after this long is stopped and reported as hung.
constexpr DWORD kChildTimeoutMs = 30000;
constexpr wchar_t kLibraryName[] = L"NVDBConv.dll";

std::string HexCode(DWORD v)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(v));
    return text;
}

std::map<std::string, std::string> ParseOptions(int argc, wchar_t** argv, int from)
{
    std::map<std::string, std::string> o;
    for (int i = from; i < argc; ++i) {
        std::string key = nvtest::Narrow(argv[i]);
        if (key.rfind("--", 0) != 0)
            continue;
        key = key.substr(2);
        if (i + 1 < argc && std::wcsncmp(argv[i + 1], L"--", 2) != 0)
            o[key] = nvtest::Narrow(argv[++i]);
        else
            o[key] = "";
    }
    return o;
}

bool WriteText(const std::wstring& path, const std::string& text)
{
    FILE* f = _wfopen(path.c_str(), L"wb");
    if (!f)
        return false;
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
    return true;
}

std::vector<std::string> ReadLines(const std::wstring& path)
{
    std::vector<std::string> lines;
    FILE* f = _wfopen(path.c_str(), L"rb");
    if (!f)
        return lines;
    std::string text;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof(buffer), f)) > 0)
        text.append(buffer, n);
    std::fclose(f);
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

// ---- child: one conversion under the hooks ------------------------------------

int Child(const std::map<std::string, std::string>& o)
{
    HookSettings settings;
    if (!o.count("mode") || !ParseMode(o.at("mode"), &settings.mode) || !o.count("out"))
        return kExitUsage;
    settings.n = o.count("n") ? std::stoull(o.at("n")) : 0;
    if (o.count("store-error") && !ParseStoreError(o.at("store-error"), &settings.storeError))
        return kExitUsage;
    const std::wstring out = nvtest::Widen(o.at("out"));
    settings.killRecordPath = out;
    // The installer's thread: COM initialised, apartment threaded.
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    HMODULE module = LoadLibraryW((nvtest::ExeDirectory() + kLibraryName).c_str());
    if (!module) {
        std::fprintf(stderr, "nvfaults: cannot load %ls\n", kLibraryName);
        return kExitSetup;
    }
    std::string error;
    if (!Install(module, settings, &error)) {
        std::fprintf(stderr, "nvfaults: %s\n", error.c_str());
        return kExitSetup;
    }
    using ActionFn = HRESULT(__stdcall*)();
    auto convert = nv::GetProcAs<ActionFn>(module, "Convert");
    Arm();
    const HRESULT hr = convert();
    Disarm();
    std::string unclassified;
    for (const std::string& name : UnclassifiedRunTimeImports())
        unclassified += " " + name;
    if (!unclassified.empty()) {
        std::fprintf(stderr, "nvfaults: functions of covered families that the library looked up and the fault "
                             "catalog does not classify:%s\n", unclassified.c_str());
        return kExitSetup;
    }
    std::string text = "result " + HexCode(static_cast<DWORD>(hr)) + "\ncalls " + std::to_string(CallCount()) +
                       "\nfailed " + std::to_string(FailedCount()) + "\nstore objects left " +
                       std::to_string(LiveStoreWrappers()) + "\n";
    for (const CallRecord& r : Records())
        text += FormatRecord(r) + "\n";
    WriteText(out, text);
    FreeLibrary(module);
    CoUninitialize();
    return kExitOk;
}

// ---- recovery: what an installer does after a failed or interrupted run ------------
//
// Run in a process of its own, which never carries hooks, as an installer that is
// started again would: the faulted process is gone (or was killed) by then. (It also
// keeps the sweep going: Wine 8 does not give back the thread-local storage slot of
// a library with a TLS directory when it is unloaded, so one process can load the
// library only about a thousand times.)
//   - A 1.0 -> 2.0 step that already wrote "Version" = "2.0" is finished: Cleanup
//     when a "Backup" value is left.
//   - Otherwise Rollback when "Backup" names a backup key that exists in the view the
//     converter uses for it (the rule nvdbconv applies), then Convert again.

std::vector<std::string> Recover(Conversion conversion)
{
    std::vector<std::string> notes;
    std::wstring backup;
    const bool hasBackup = nvtest::GetString(nvdbconv::kDatabasePath, nvdbconv::kBackupValueName, nvtest::kView32,
                                             &backup) &&
                           !backup.empty();
    {
        nvtest::LoadedLibrary dll;
        DWORD current = 0, target = 0;
        dll.GetDBVersion(&current, &target);
        if (conversion == Conversion::From10 && (current >> 16) == 2) {
            if (hasBackup)
                notes.push_back("cleanup " + HexCode(static_cast<DWORD>(dll.Cleanup())));
            return notes;
        }
        if (target != 0 && hasBackup) {
            const REGSAM view = nvdbconv::BackupViewFor(current);
            if (nvtest::KeyExists(backup.c_str(), view)) {
                const nvtest::RegTree before = nvtest::Snapshot(nvdbconv::kDatabasePath, nvtest::kView32);
                const HRESULT hr = dll.Rollback();
                const nvtest::RegTree after = nvtest::Snapshot(nvdbconv::kDatabasePath, nvtest::kView32);
                const bool backupKept = nvtest::KeyExists(backup.c_str(), view);
                notes.push_back("rollback " + HexCode(static_cast<DWORD>(hr)) +
                                (before == after ? " database-unchanged" : " database-changed") +
                                (backupKept ? " backup-kept" : " backup-gone"));
            } else {
                notes.push_back("rollback refused (\"Backup\" names a missing key)");
            }
        }
    }
    // A fresh load: the version is detected again after a rollback.
    nvtest::LoadedLibrary dll;
    notes.push_back("convert " + HexCode(static_cast<DWORD>(dll.Convert())));
    return notes;
}

int RecoverCommand(const std::map<std::string, std::string>& o)
{
    Conversion conversion;
    if (!o.count("conversion") || !ParseConversion(o.at("conversion"), &conversion) || !o.count("out"))
        return kExitUsage;
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    std::string text;
    for (const std::string& line : Recover(conversion))
        text += line + "\n";
    WriteText(nvtest::Widen(o.at("out")), text);
    CoUninitialize();
    return kExitOk;
}

// ---- sweep -----------------------------------------------------------------------

struct ChildOutcome {
    bool started = false;
    bool timedOut = false;
    bool killed = false;
    DWORD exitCode = 0;
    std::string result;             // "0x........" of Convert
    std::uint64_t calls = 0;
    std::vector<CallRecord> records;
};

// Starts this program again with the arguments (a launch that Wine fails before the
// program runs is made again by the process runner).
nvtest::ProcessRun RunSelf(const std::wstring& args)
{
    return nvtest::RunProcess(nvtest::QuoteArg(nvtest::ExeDirectory() + L"nvfaults.exe") + L" " + args,
                              kChildTimeoutMs);
}

ChildOutcome RunChild(const std::wstring& args, const std::wstring& out)
{
    DeleteFileW(out.c_str());
    const nvtest::ProcessRun run = RunSelf(args + L" --out " + nvtest::QuoteArg(out));
    ChildOutcome c;
    c.started = run.started;
    c.timedOut = run.timedOut;
    c.exitCode = run.exitCode;
    c.killed = run.exitCode == kKilledExitCode;
    for (const std::string& line : ReadLines(out)) {
        CallRecord r;
        if (line.rfind("result ", 0) == 0)
            c.result = line.substr(7);
        else if (line.rfind("calls ", 0) == 0)
            c.calls = std::stoull(line.substr(6));
        else if (ParseRecord(line, &r))
            c.records.push_back(r);
    }
    if (!run.err.empty())
        c.result += " stderr: " + run.err;
    return c;
}

// The tally's name of a mode: "once", or "once/RPC_E_DISCONNECTED" for a store call
// failed with that error.
std::string ModeLabel(Mode mode, const std::string& storeError)
{
    return storeError.empty() ? std::string(ModeName(mode)) : std::string(ModeName(mode)) + "/" + storeError;
}

struct Totals {
    unsigned scenarios = 0, passed = 0, byDesign = 0, lost = 0, crashed = 0, notReached = 0, twoPlaces = 0;
    std::map<std::string, unsigned> designCounts;
};

struct Sweep {
    World* world;
    Conversion conversion;
    Policy policy;
    SymbolTable symbols;
    std::wstring tempDir;
    FILE* report = nullptr;
    std::map<std::string, Totals> totals; // by mode
    std::vector<std::string> lossLines;
    // A conversion process that died at an injected failure (no kill asked for): the
    // recovery still has to lose nothing, so these count apart from losses.
    std::vector<std::string> crashLines;
    // A process of the sweep could not be started: the sweep stops.
    bool harnessFailed = false;

    std::string Frames(const CallRecord& r) const
    {
        std::string s;
        for (size_t i = 0; i < r.frames.size() && i < 6; ++i)
            s += (i ? " < " : "") + symbols.Describe(r.frames[i]);
        return s;
    }
    bool InFrames(const CallRecord& r, const char* name) const
    {
        for (std::uint32_t f : r.frames)
            if (symbols.FunctionAt(f).find(name) != std::string::npos)
                return true;
        return false;
    }

    // The loss a numbered step of the conversion asks for under the default policy,
    // or "" when the failure does not explain it.
    std::string Attribute(const UserFinding& u, const CallRecord* first, Mode mode) const
    {
        if (policy != Policy::Default || !first || mode == Mode::Kill || u.missing.empty())
            return "";
        bool secretsOnly = true, passwordOnly = true;
        for (const Piece& p : u.missing) {
            secretsOnly &= p.kind == Piece::Secret || p.kind == Piece::Password;
            passwordOnly &= p.kind == Piece::Password;
        }
        if (secretsOnly && InFrames(*first, "EncryptEx"))
            return "secret-left-out-when-sealing-fails";
        if (secretsOnly && first->function == "advapi32.dll!RegEnumValueW" && InFrames(*first, "EnumFields"))
            return "field-enumeration-unchecked";
        if (passwordOnly && InFrames(*first, "UnpackPasswordAndPin"))
            return "password-left-empty-when-unpacking-fails";
        return "";
    }

    static std::string Missing(const UserFinding& u)
    {
        std::string s;
        for (const Piece& p : u.missing)
            s += std::string(s.empty() ? "" : "; ") +
                 (p.kind == Piece::Secret ? "secret " : p.kind == Piece::Password ? "password secret "
                                                        : p.kind == Piece::Template ? "template " : "") +
                 p.name + (p.name.empty() ? "" : ": ") + p.what;
        return s;
    }

    // storeError: the error a failed store call returns ("" for a call that is not
    // one); it is tallied with the mode and ends the report line.
    void Scenario(Mode mode, std::uint64_t n, const CallRecord& planned, const std::string& storeError)
    {
        std::string error;
        Totals& t = totals[ModeLabel(mode, storeError)];
        ++t.scenarios;
        if (!world->Reset(policy, &error)) {
            std::fprintf(stderr, "nvfaults: %s\n", error.c_str());
            ++t.crashed;
            return;
        }
        const ChildOutcome run = RunChild(L"child --mode " + nvtest::Widen(ModeName(mode)) + L" --n " +
                                              std::to_wstring(n) +
                                              (storeError.empty() ? L"" : L" --store-error " + nvtest::Widen(storeError)),
                                          tempDir + L"run.txt");
        const Inspection afterRun = world->Inspect();
        const std::wstring recoveryOut = tempDir + L"recovery.txt";
        DeleteFileW(recoveryOut.c_str());
        const nvtest::ProcessRun recovery = RunSelf(L"recover --conversion " +
                                                    nvtest::Widen(ConversionName(conversion)) + L" --out " +
                                                    nvtest::QuoteArg(recoveryOut));
        std::vector<std::string> recoveryLines = ReadLines(recoveryOut);
        if (!run.started || !recovery.started) {
            // Not a finding about the library: the sweep cannot go on.
            std::fprintf(stderr, "nvfaults: the %s process of scenario %s %llu could not be started\n",
                         run.started ? "recovery" : "conversion", ModeName(mode), static_cast<unsigned long long>(n));
            harnessFailed = true;
            return;
        }
        const Inspection after = world->Inspect();

        const CallRecord* first = run.records.empty() ? nullptr : &run.records.front();
        std::set<std::string> design;
        std::vector<std::string> problems;
        std::string notes;
        bool crashed = false;
        // A hung process writes no record: the planned call (from the clean run) says
        // where the failures began.
        if (run.timedOut && mode == Mode::From && planned.function == "advapi32.dll!RegEnumKeyExW" &&
            InFrames(planned, "CollectNameIndex")) {
            // The 1.0 step lists the domains under Cache by index and skips every index
            // whose enumeration fails, until "no more items": when every call fails
            // from here on, that end never comes.
            design.insert("cache-listing-retries-failing-indexes");
            notes += " conversion process hung in the Cache listing and was stopped;";
        } else if (!run.started || run.timedOut || (!run.killed && run.exitCode != 0)) {
            crashed = true;
            problems.push_back("conversion process " + std::string(run.timedOut ? "hung" : "died") + " (exit " +
                               HexCode(run.exitCode) + ")");
        }
        if (mode == Mode::Kill && !run.killed && !crashed) {
            ++t.notReached;
            notes += " kill point not reached;";
        }
        if (recovery.exitCode != 0 || recovery.timedOut)
            problems.push_back("recovery process failed (exit " + HexCode(recovery.exitCode) +
                               (recovery.timedOut ? ", hung" : "") + ")" + recovery.err);
        for (const std::string& line : recoveryLines) {
            notes += " " + line + ";";
            if (line.rfind("rollback ", 0) == 0 && line.find("database-unchanged") != std::string::npos &&
                line.find("backup-kept") != std::string::npos)
                design.insert("rollback-in-own-view");
        }
        if (after.keptAfterFailedDelete > 0) {
            design.insert("value-kept-when-its-delete-fails");
            notes += " " + std::to_string(after.keptAfterFailedDelete) + " values the step deletes are still there;";
        }
        if (afterRun.hostIdChanged || after.hostIdChanged)
            problems.push_back("HostId replaced");
        // A user whose old key survived beside a complete store copy: by design when the
        // key's delete failed (the conversion counts the user as converted anyway).
        for (const UserFinding& u : afterRun.users)
            if (u.inDatabase && u.inStore && mode != Mode::Kill && first && InFrames(*first, "DeleteKey"))
                design.insert("old-key-kept-beside-store-copy");
        for (const UserFinding& u : after.users)
            if (u.TwoPlaces()) {
                ++t.twoPlaces;
                notes += " in two places at the end: " + u.user + ";";
            }
        for (const UserFinding& u : after.users) {
            if (!u.Lost())
                continue;
            const std::string why = Attribute(u, first, mode);
            const std::string text = u.user + (u.missing.empty() ? std::string() : " (" + Missing(u) + ")");
            if (!why.empty()) {
                design.insert(why);
                notes += " by design " + why + ": " + text + ";";
            } else {
                problems.push_back("lost " + text);
            }
        }

        std::string outcome;
        if (!problems.empty()) {
            outcome = crashed && problems.size() == 1 ? "crashed" : "lost";
            if (outcome == "crashed")
                ++t.crashed;
            else
                ++t.lost;
        } else if (!design.empty()) {
            outcome = "by-design";
            ++t.byDesign;
        } else {
            outcome = "passed";
            ++t.passed;
        }
        for (const std::string& d : design)
            ++t.designCounts[d];
        std::string designText;
        for (const std::string& d : design)
            designText += (designText.empty() ? "" : ",") + d;
        std::string problemText;
        for (const std::string& p : problems)
            problemText += (problemText.empty() ? "" : "; ") + p;
        const std::string where = first ? Frames(*first) : Frames(planned);
        const std::string line = std::string(ConversionName(conversion)) + "\t" + PolicyName(policy) + "\t" +
                                 ModeName(mode) + "\t" + std::to_string(n) + "\t" + planned.function + "\t" + where +
                                 "\t" + outcome + "\t" + designText + "\t" + problemText + "\t" + "run " +
                                 run.result + "; after run: " + afterRun.Summary() + ";" + notes +
                                 " final: " + after.Summary() + "\t" + (storeError.empty() ? "-" : storeError);
        if (report) {
            std::fprintf(report, "%s\n", line.c_str());
            std::fflush(report);
        }
        if (outcome == "lost")
            lossLines.push_back(line);
        else if (outcome == "crashed")
            crashLines.push_back(line);
    }
};

std::vector<std::uint64_t> CallNumbers(std::uint64_t calls, std::uint64_t first, std::uint64_t stride)
{
    std::vector<std::uint64_t> out;
    for (std::uint64_t n = 1; n <= calls; ++n)
        if (n <= first || (n - first) % stride == 0 || n == calls)
            out.push_back(n);
    return out;
}

// One line on standard error every hundred scenarios: how far, how long, and what
// memory this process holds, so that a long sweep shows its progress and any leak.
void Progress(size_t done, size_t total, Mode mode, std::uint64_t n,
              std::chrono::steady_clock::time_point started)
{
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    PROCESS_MEMORY_COUNTERS_EX mem{};
    mem.cb = sizeof(mem);
    GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&mem), sizeof(mem));
    // The lowest free thread-local storage index: a slot that leaks shows as a rise.
    const DWORD tls = TlsAlloc();
    TlsFree(tls);
    std::fprintf(stderr, "nvfaults: %zu of %zu scenarios (now %s %llu), %.0f s, %.2f s each; %.1f MB private, "
                         "next TLS index %lu\n",
                 done, total, ModeName(mode), static_cast<unsigned long long>(n), seconds,
                 seconds / static_cast<double>(done), static_cast<double>(mem.PagefileUsage) / (1024.0 * 1024.0),
                 static_cast<unsigned long>(tls));
    std::fflush(stderr);
}

int SweepCommand(const std::map<std::string, std::string>& o)
{
    Conversion conversion;
    if (!o.count("conversion") || !ParseConversion(o.at("conversion"), &conversion)) {
        std::fprintf(stderr, "nvfaults: --conversion 1.0|2.0 is required\n");
        return kExitUsage;
    }
    std::vector<Policy> policies;
    for (const std::string& p : {std::string("default"), std::string("strict")}) {
        const std::string wanted = o.count("policy") ? o.at("policy") : "default";
        if (wanted == p || wanted == "both") {
            Policy policy;
            ParsePolicy(p, &policy);
            policies.push_back(policy);
        }
    }
    if (policies.empty()) {
        std::fprintf(stderr, "nvfaults: --policy default|strict|both\n");
        return kExitUsage;
    }
    std::vector<Mode> modes;
    {
        std::istringstream list(o.count("modes") ? o.at("modes") : "once,from,kill");
        std::string item;
        while (std::getline(list, item, ',')) {
            Mode m;
            if (!ParseMode(item, &m) || m == Mode::Count) {
                std::fprintf(stderr, "nvfaults: unknown mode %s\n", item.c_str());
                return kExitUsage;
            }
            modes.push_back(m);
        }
    }
    const std::uint64_t first = o.count("first") ? std::stoull(o.at("first")) : 0;
    const std::uint64_t stride = std::max<std::uint64_t>(1, o.count("stride") ? std::stoull(o.at("stride")) : 1);
    const std::uint64_t rangeFrom = o.count("from") ? std::stoull(o.at("from")) : 1;
    const std::uint64_t rangeTo = o.count("to") ? std::stoull(o.at("to")) : UINT64_MAX;
    const bool storeOnly = o.count("store-only") != 0;
    std::vector<std::string> storeErrors;
    {
        std::istringstream list(o.count("store-errors") ? o.at("store-errors") : "E_OUTOFMEMORY,RPC_E_DISCONNECTED,E_FAIL");
        std::string item;
        HRESULT hr;
        while (std::getline(list, item, ',')) {
            if (!ParseStoreError(item, &hr)) {
                std::fprintf(stderr, "nvfaults: unknown store error %s\n", item.c_str());
                return kExitUsage;
            }
            storeErrors.push_back(item);
        }
        if (storeErrors.empty()) {
            std::fprintf(stderr, "nvfaults: --store-errors names no error\n");
            return kExitUsage;
        }
    }

    wchar_t tempPath[MAX_PATH];
    GetTempPathW(MAX_PATH, tempPath);
    const std::wstring tempDir = std::wstring(tempPath) + L"nvfaults-" + std::to_wstring(GetCurrentProcessId()) + L"\\";
    CreateDirectoryW(tempDir.c_str(), nullptr);

    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    const HRESULT registered = nvtest::RegisterStoreServer();
    if (FAILED(registered)) {
        std::fprintf(stderr, "nvfaults: registering the reference store failed: %s\n", HexCode(registered).c_str());
        return kExitSetup;
    }
    World world(conversion);
    std::string error;
    if (!world.Prepare(&error)) {
        std::fprintf(stderr, "nvfaults: %s\n", error.c_str());
        world.Dispose();
        return kExitSetup;
    }
    FILE* report = nullptr;
    if (o.count("report")) {
        report = _wfopen(nvtest::Widen(o.at("report")).c_str(), L"ab");
        if (!report) {
            std::fprintf(stderr, "nvfaults: cannot open the report file\n");
            return kExitUsage;
        }
    }

    int rc = kExitOk;
    const auto started = std::chrono::steady_clock::now();
    for (Policy policy : policies) {
        Sweep sweep;
        sweep.world = &world;
        sweep.conversion = conversion;
        sweep.policy = policy;
        sweep.tempDir = tempDir;
        sweep.report = report;
        if (!sweep.symbols.Load(nvtest::ExeDirectory() + kLibraryName))
            std::printf("note: %ls has no symbol table; failing calls are shown by address\n", kLibraryName);

        // The clean run: it must convert everything, and it numbers the calls.
        if (!world.Reset(policy, &error)) {
            std::fprintf(stderr, "nvfaults: %s\n", error.c_str());
            rc = kExitSetup;
            break;
        }
        const ChildOutcome clean = RunChild(L"child --mode count", tempDir + L"clean.txt");
        if (clean.exitCode != 0 || clean.result != "0x00000000" || clean.calls == 0) {
            std::fprintf(stderr, "nvfaults: the clean conversion failed: exit %s, Convert %s, %llu calls\n",
                         HexCode(clean.exitCode).c_str(), clean.result.c_str(),
                         static_cast<unsigned long long>(clean.calls));
            rc = kExitSetup;
            break;
        }
        if (conversion == Conversion::From10)
            world.RecordConverted10();
        const Inspection cleanState = world.Inspect();
        bool cleanComplete = conversion == Conversion::From10 ? cleanState.converted10 : true;
        for (const UserFinding& u : cleanState.users)
            cleanComplete &= u.inStore && !u.inDatabase;
        if (!cleanComplete) {
            std::fprintf(stderr, "nvfaults: the clean conversion did not move everything: %s\n",
                         cleanState.Summary().c_str());
            rc = kExitSetup;
            break;
        }
        std::map<std::string, unsigned> byFunction;
        for (const CallRecord& r : clean.records)
            ++byFunction[r.function];
        std::printf("%s -> %s, %s policy: a clean run makes %llu calls through the hooks (",
                    ConversionName(conversion), conversion == Conversion::From10 ? "2.0" : "3.0", PolicyName(policy),
                    static_cast<unsigned long long>(clean.calls));
        bool firstItem = true;
        for (const auto& [f, count] : byFunction) {
            std::printf("%s%s %u", firstItem ? "" : ", ", f.c_str() + f.find('!') + 1, count);
            firstItem = false;
        }
        std::printf(")\n");
        std::fflush(stdout);

        const std::vector<std::uint64_t> numbers = CallNumbers(clean.calls, first, stride);
        struct Planned {
            Mode mode;
            std::uint64_t n;
            std::string storeError;
        };
        std::vector<Planned> planned;
        for (Mode mode : modes)
            for (std::uint64_t n : numbers) {
                if (n < rangeFrom || n > rangeTo || n > clean.records.size() ||
                    (storeOnly && !IsStoreCall(clean.records[n - 1].function)))
                    continue;
                // A store call fails with each store error; "oom-from" fails allocations,
                // and a kill returns nothing, so those run once.
                if (IsStoreCall(clean.records[n - 1].function) && (mode == Mode::Once || mode == Mode::From))
                    for (const std::string& e : storeErrors)
                        planned.push_back({mode, n, e});
                else
                    planned.push_back({mode, n, ""});
            }
        const auto sweepStarted = std::chrono::steady_clock::now();
        for (size_t i = 0; i < planned.size() && !sweep.harnessFailed; ++i) {
            sweep.Scenario(planned[i].mode, planned[i].n, clean.records[planned[i].n - 1], planned[i].storeError);
            if ((i + 1) % 100 == 0 || i + 1 == planned.size())
                Progress(i + 1, planned.size(), planned[i].mode, planned[i].n, sweepStarted);
        }

        for (Mode mode : modes) {
            std::vector<std::string> labels;
            for (const std::string& e : storeErrors)
                if (sweep.totals.count(ModeLabel(mode, e)))
                    labels.push_back(ModeLabel(mode, e));
            if (labels.empty() || sweep.totals.count(ModeName(mode)))
                labels.insert(labels.begin(), ModeName(mode));
            for (const std::string& label : labels) {
                const Totals& t = sweep.totals[label];
                std::printf("  %-5s %u scenarios: %u passed, %u by design, %u lost, %u crashed", label.c_str(),
                            t.scenarios, t.passed, t.byDesign, t.lost, t.crashed);
                if (mode == Mode::Kill)
                    std::printf(", %u kill points not reached", t.notReached);
                std::printf("; users in two places at the end: %u\n", t.twoPlaces);
                for (const auto& [name, count] : t.designCounts)
                    std::printf("        by design %-40s %u\n", name.c_str(), count);
            }
        }
        for (const std::string& line : sweep.crashLines)
            std::printf("  CRASHED %s\n", line.c_str());
        for (const std::string& line : sweep.lossLines)
            std::printf("  LOST %s\n", line.c_str());
        if (!sweep.lossLines.empty())
            rc = kExitLost;
        if (sweep.harnessFailed) {
            rc = kExitSetup;
            break;
        }
        std::fflush(stdout);
    }
    std::printf("  %.0f s\n",
                std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    if (report)
        std::fclose(report);
    world.Dispose();
    for (const wchar_t* f : {L"run.txt", L"clean.txt", L"recovery.txt"})
        DeleteFileW((tempDir + f).c_str());
    RemoveDirectoryW(tempDir.c_str());
    CoUninitialize();
    return rc;
}

void Usage()
{
    std::fprintf(stderr,
                 "usage: nvfaults sweep --conversion 1.0|2.0 [--policy default|strict|both]\n"
                 "                      [--modes once,from,kill] [--first N] [--stride S] [--from N] [--to N]\n"
                 "                      [--report FILE] [--store-errors E_OUTOFMEMORY,RPC_E_DISCONNECTED,E_FAIL]\n"
                 "                      [--store-only]\n"
                 "       nvfaults child --mode count|once|from|kill --n N [--store-error E] --out FILE\n"
                 "       nvfaults recover --conversion 1.0|2.0 --out FILE\n"
                 );
}

} // namespace

// A sweep that the run-time ends with abort() names the call chain that asked for it.
void OnAbort(int)
{
    void* frames[32];
    const USHORT n = RtlCaptureStackBackTrace(1, 32, frames, nullptr);
    std::fprintf(stderr, "nvfaults: abort() called:\n");
    for (USHORT i = 0; i < n; ++i) {
        HMODULE module = nullptr;
        wchar_t name[MAX_PATH] = L"?";
        if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                               static_cast<LPCWSTR>(frames[i]), &module))
            GetModuleFileNameW(module, name, MAX_PATH);
        std::fprintf(stderr, "  %p %ls+0x%llx\n", frames[i], name,
                     static_cast<unsigned long long>(static_cast<BYTE*>(frames[i]) - reinterpret_cast<BYTE*>(module)));
    }
    std::fflush(stderr);
}

int wmain(int argc, wchar_t** argv)
{
    std::signal(SIGABRT, OnAbort);
    if (argc < 2) {
        Usage();
        return kExitUsage;
    }
    const std::wstring command = argv[1];
    const auto options = ParseOptions(argc, argv, 2);
    if (command == L"child")
        return Child(options);
    if (command == L"sweep")
        return SweepCommand(options);
    if (command == L"recover")
        return RecoverCommand(options);
    Usage();
    return kExitUsage;
}
