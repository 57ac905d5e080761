// nvfaults: fault injection and kill-and-restart for NVDBConv.dll.
//
//   nvfaults sweep --conversion 1.0|2.0 [--policy default|strict|both]
//                  [--modes once,from,oom-from,kill] [--first N] [--stride S] [--from N] [--to N]
//                  [--sites [--seed S] [--site-share I/N]] [--list] [--report FILE]
//                  [--store-errors E_OUTOFMEMORY,RPC_E_DISCONNECTED,E_FAIL] [--store-only]
//       Writes the database, counts the calls of a clean conversion, then for every
//       chosen call number and mode runs the conversion in a child process with that
//       call failed once ("once"), every registry, crypto, COM and store call failed
//       from there on with memory working ("from"), every allocation failed from there
//       on ("oom-from"), or the process killed there ("kill"); then runs the installer's
//       recovery (in a fresh process, which never carries hooks) until it changes nothing,
//       and judges the end state: every user whole in the store, less what a failed
//       call excuses by design, no old user key, no backup, "Version" as a clean run
//       leaves it.
//       Call numbers: 1..first, then every stride-th call, and the last call (--stride 1:
//       every call); --from/--to limit the sweep to a range of call numbers, so that a
//       full sweep can be split. --sites instead runs one scenario per call site (called
//       function and calling function), the call and mode chosen by the seed (printed;
//       random when not given). --site-share I/N keeps the I-th of N shares of the sites
//       (which share a site falls in turns with the seed), so that sweeps given the same
//       seed and the shares 0/N .. N-1/N cover every site between them. A call at the store boundary is failed (once, from) once
//       with each of the store errors (with --sites: one of them, turning with the seed);
//       --store-only sweeps only those calls. --list prints the scenarios a sweep would
//       run (mode, call number, function and caller, store error) and runs none.
//       Exit 0 when every scenario passed (or passed by design); 1 when any lost data,
//       left the conversion unfinished, crashed, hung, missed its kill point or could not
//       reset the world; 2 on a usage error; 3 on a set-up error.
//   nvfaults child --mode count|once|from|oom-from|kill --n N [--store-error E] --out FILE
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
#include "frame/dblayout.h"
#include "frame/paths.h"
#include "fault_hooks.h"
#include "fault_world.h"
#include "pe_image.h"
#include "store_boundary.h"
#include "support/dll_loader.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "support/store_sandbox.h"
#include "support/text_util.h"
#include "nvdbconv/dbstate.h"
#include "exit_file/exit_file.h"

using namespace nvfaults;

namespace {

// The exit codes the usage above lists.
enum ExitCode : int { kExitOk = 0, kExitLost = 1, kExitUsage = 2, kExitSetup = 3 };
// A faulted conversion of the sweep's small databases ends within a second or two;
// one still running after this long is stopped and reported as hung.
constexpr DWORD kChildTimeoutMs = 30000;
constexpr wchar_t kLibraryName[] = L"NVDBConv.dll";

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
    // For the harness's own test: a child of this mode ends as a crashed one does,
    // with exit code 0 and no answer.
    wchar_t vanish[16] = {};
    if (GetEnvironmentVariableW(L"NVFAULTS_TEST_VANISH_IN_MODE", vanish, 16) &&
        nvtest::Narrow(vanish) == ModeName(settings.mode))
        ExitProcess(0);
    std::string unclassified;
    for (const std::string& name : UnclassifiedRunTimeImports())
        unclassified += " " + name;
    if (!unclassified.empty()) {
        std::fprintf(stderr, "nvfaults: functions of covered families that the library looked up and the fault "
                             "catalog does not classify:%s\n", unclassified.c_str());
        return kExitSetup;
    }
    std::string text = "result " + nvtest::Hex(static_cast<DWORD>(hr)) + "\ncalls " + std::to_string(CallCount()) +
                       "\nfailed " + std::to_string(FailedCount()) + "\nstore objects left " +
                       std::to_string(LiveStoreWrappers()) + "\n";
    for (const CallRecord& r : Records())
        text += FormatRecord(r) + "\n";
    // The last line: without it the sweep knows the file is not this run's whole answer.
    text += "end\n";
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
// Each round applies nvdbconv's rules once:
//   - A finished step is not run again: Cleanup when it left a "Backup" value. The
//     1.0 -> 2.0 step is finished once "Version" reads 2.0, the 2.0 -> 3.0 step once
//     the database has the 3.0 layout (no Data, no MainDB).
//   - Otherwise Rollback when "Backup" names a backup key that exists in the view the
//     converter uses for it, then Convert again in a fresh load.
// Rounds go on until one changes nothing in the suite's keys (both views), at most
// kRecoveryRounds: the end state is then judged by the sweep.
constexpr int kRecoveryRounds = 3;

nvtest::RegTree SuiteState(REGSAM view) { return nvtest::Snapshot(L"SOFTWARE\\Norvane", view); }

// True when the 2.0 database holds no user key under Data\Users (or no such key).
bool NoUserKeyLeft()
{
    HKEY users = nullptr;
    const LONG r = RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\DB\\Data\\Users", 0,
                                 KEY_READ | KEY_WOW64_32KEY, &users);
    if (r == ERROR_FILE_NOT_FOUND)
        return true;
    if (r != ERROR_SUCCESS)
        return false;
    DWORD subkeys = 1;
    const LONG q = RegQueryInfoKeyW(users, nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, nullptr, nullptr,
                                    nullptr, nullptr, nullptr);
    RegCloseKey(users);
    return q == ERROR_SUCCESS && subkeys == 0;
}

std::vector<std::string> RecoverRound(Conversion conversion)
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
        // A finished step is not converted again: 1.0 once "Version" reads 2.0; 2.0
        // once the 3.0 layout is there, whatever "Version" reads, or once every user is
        // moved (no user key under Data\Users) and only the old keys are left. Cleanup
        // removes what it left: a backup, and the old keys of a 2.0 database.
        const bool layout30 = conversion == Conversion::From20 && nvframe::IsDatabaseLayout30();
        const bool finished = conversion == Conversion::From10 ? (current >> 16) == 2
                                                               : layout30 || NoUserKeyLeft();
        if (finished) {
            // A "Backup" naming a backup key of the library that is in neither view: the
            // run stopped between deleting the key and deleting the value. Nothing can be
            // restored from it and Cleanup fails on the missing key, so the installer
            // removes the value itself.
            if (hasBackup && nvframe::IsLibraryBackupPath(backup.c_str()) &&
                !nvtest::KeyExists(backup.c_str(), nvtest::kView32) &&
                !nvtest::KeyExists(backup.c_str(), nvtest::kView64)) {
                HKEY db = nullptr;
                LSTATUS r = RegOpenKeyExW(HKEY_LOCAL_MACHINE, nvdbconv::kDatabasePath, 0,
                                          KEY_SET_VALUE | KEY_WOW64_32KEY, &db);
                if (r == ERROR_SUCCESS) {
                    r = RegDeleteValueW(db, nvdbconv::kBackupValueName);
                    RegCloseKey(db);
                }
                notes.push_back("dangling \"Backup\" removed " + nvtest::Hex(static_cast<DWORD>(r)));
                if (conversion == Conversion::From20 && !layout30)
                    notes.push_back("cleanup " + nvtest::Hex(static_cast<DWORD>(dll.Cleanup())));
                return notes;
            }
            if (hasBackup || (conversion == Conversion::From20 && !layout30))
                notes.push_back("cleanup " + nvtest::Hex(static_cast<DWORD>(dll.Cleanup())));
            return notes;
        }
        if (target != 0 && hasBackup) {
            const REGSAM view = nvdbconv::BackupViewFor(current);
            if (nvtest::KeyExists(backup.c_str(), view)) {
                const nvtest::RegTree before = nvtest::Snapshot(nvdbconv::kDatabasePath, nvtest::kView32);
                const HRESULT hr = dll.Rollback();
                const nvtest::RegTree after = nvtest::Snapshot(nvdbconv::kDatabasePath, nvtest::kView32);
                const bool backupKept = nvtest::KeyExists(backup.c_str(), view);
                notes.push_back("rollback " + nvtest::Hex(static_cast<DWORD>(hr)) +
                                (before == after ? " database-unchanged" : " database-changed") +
                                (backupKept ? " backup-kept" : " backup-gone"));
            } else {
                notes.push_back("rollback refused (\"Backup\" names a missing key)");
            }
        }
    }
    // A fresh load: the version is detected again after a rollback.
    nvtest::LoadedLibrary dll;
    notes.push_back("convert " + nvtest::Hex(static_cast<DWORD>(dll.Convert())));
    return notes;
}

std::vector<std::string> Recover(Conversion conversion)
{
    std::vector<std::string> notes;
    for (int round = 1; round <= kRecoveryRounds; ++round) {
        const nvtest::RegTree before32 = SuiteState(nvtest::kView32), before64 = SuiteState(nvtest::kView64);
        for (const std::string& line : RecoverRound(conversion))
            notes.push_back("round " + std::to_string(round) + " " + line);
        if (SuiteState(nvtest::kView32) == before32 && SuiteState(nvtest::kView64) == before64) {
            notes.push_back("round " + std::to_string(round) + " changed nothing");
            break;
        }
    }
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
    text += "end\n";
    WriteText(nvtest::Widen(o.at("out")), text);
    CoUninitialize();
    return kExitOk;
}

// ---- sweep -----------------------------------------------------------------------

struct ChildOutcome {
    bool started = false;
    bool timedOut = false;
    bool killed = false;
    bool complete = false;          // the child wrote its whole answer ("end")
    bool killRecord = false;        // the kill hook wrote its record before ending the process
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
    for (const std::string& line : nvtest::ReadFileLines(out)) {
        CallRecord r;
        if (line == "end")
            c.complete = true;
        else if (line.rfind("killed ", 0) == 0)
            c.killRecord = true;
        else if (line.rfind("result ", 0) == 0)
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

// A scenario's verdict. Only "passed" and "by-design" let a sweep succeed.
enum class Verdict { Passed, ByDesign, Lost, Unfinished, Crashed, Hung, NotReached, ResetFailed };

const char* VerdictName(Verdict v)
{
    switch (v) {
    case Verdict::Passed: return "passed";
    case Verdict::ByDesign: return "by-design";
    case Verdict::Lost: return "lost";
    case Verdict::Unfinished: return "unfinished";
    case Verdict::Crashed: return "crashed";
    case Verdict::Hung: return "hung";
    case Verdict::NotReached: return "kill-not-reached";
    case Verdict::ResetFailed: return "reset-failed";
    }
    return "?";
}

struct Totals {
    unsigned scenarios = 0, twoPlaces = 0;
    std::map<Verdict, unsigned> verdicts;
    std::map<std::string, unsigned> designCounts; // by-design name -> scenarios
    std::map<std::string, unsigned> designPieces; // by-design name -> pieces it excused
};

// What the library leaves out by design under the default policy, each with the step
// of the conversion that does it. A failed call excuses at most what that one call
// could cost: each rule counts the failed calls it applies to, and each of those
// covers one piece of the kinds the rule names (a password and its authentication
// are one piece), or, for a rule about a whole part of the store, what one user lacks.
struct Excuse {
    const char* name;
    const char* step;
    bool secrets;          // a secret or the password
    bool passwordOnly;     // the password only
    const char* record;    // a part of the user record ("payload", "registration"), or null
    bool wholeUser;        // every missing piece of one user
};

const Excuse kSealing{"secret-left-out-when-sealing-fails",
                      "secrets part: a secret whose sealing with the user's public key fails is left out",
                      true, false, nullptr, false};
const Excuse kStoring{"secret-left-out-when-put-fails",
                      "secrets part: PutSecret's result is not looked at; a secret the store refuses is left out",
                      true, false, nullptr, false};
const Excuse kFieldEnumeration{"field-enumeration-unchecked",
                               "secret loading: a field whose enumeration fails is skipped, its secret not loaded",
                               true, false, nullptr, false};
const Excuse kPasswordUnpacking{"password-left-empty-when-unpacking-fails",
                                "password: a password secret that does not unpack (a verdict on its data) leaves the "
                                "password empty",
                                true, true, nullptr, false};
const Excuse kEnrolment{"password-not-enrolled-when-the-service-fails",
                        "password: the authentication service's answers are not looked at; a password it does not "
                        "take does not authenticate",
                        true, true, nullptr, false};
const Excuse kPayload{"payload-left-out-when-put-fails",
                      "payload part: PutPayload's result is not looked at", false, false, "payload", false};
const Excuse kRegistration{"registration-left-out-when-the-registry-fails",
                           "registration: CheckUser's and AddUser's results are not looked at", false, false,
                           "registration", false};
const Excuse kStoreInterface{"part-left-out-when-a-store-interface-is-missing",
                             "store parts: a user object that does not give one of its interfaces (secrets, "
                             "templates, payload) is converted without that part",
                             false, false, nullptr, true};
// What a scenario may leave behind by design besides lost pieces.
const Excuse kBackupUnnamed{"backup-key-unnamed-when-its-name-is-not-stored",
                            "Backup: the \"Backup\" value is written after the copy and its result is not looked "
                            "at; the conversion goes on and its Cleanup finds no name, so the copy stays",
                            false, false, nullptr, false};
const Excuse kBackup10OutOfView{"finished-1.0-backup-outside-cleanup-view",
                                "Cleanup after the 1.0 step: once \"Version\" reads 2.0 the library looks for "
                                "DB-v1.0 in the 64-bit view, and the 1.0 backup in the 32-bit view stays",
                                false, false, nullptr, false};
const Excuse kOldDatabaseLeft{"old-database-left-when-its-delete-fails",
                              "Cleanup of the 3.0 step: the old database is deleted only while Data\\Users "
                              "opens empty, and no failure is reported; a delete that failed after Data\\Users "
                              "went leaves the rest of Data and MainDB, without any user key",
                              false, false, nullptr, false};
const Excuse* const kExcuses[] = {&kOldDatabaseLeft, &kSealing,     &kStoring,       &kFieldEnumeration, &kPasswordUnpacking,
                                  &kEnrolment,   &kPayload,       &kRegistration,     &kStoreInterface,
                                  &kBackupUnnamed, &kBackup10OutOfView};

bool Covers(const Excuse& e, const Piece& p)
{
    if (e.wholeUser)
        return !(p.kind == Piece::Record && p.name.empty()); // not the user record itself
    if (p.kind == Piece::Password)
        return e.secrets;
    if (p.kind == Piece::Secret)
        return e.secrets && !e.passwordOnly;
    if (p.kind == Piece::Record)
        return e.record && p.name == e.record;
    return false;
}

struct Sweep {
    World* world;
    Conversion conversion;
    Policy policy;
    SymbolTable symbols;
    std::wstring tempDir;
    FILE* report = nullptr;
    std::map<std::string, Totals> totals; // by mode
    // "Version" as the clean run leaves it (2.0 -> 3.0).
    std::wstring cleanVersion;
    // Every scenario that did not pass (or pass by design): each fails the sweep.
    std::vector<std::string> failLines;
    // The store error of the scenario being judged ("" when its call is not a store call).
    std::string m_storeError;
    // A process of the sweep could not be started: the sweep stops.
    bool harnessFailed = false;
    // Seconds spent so far in each phase of a scenario: resetting the world, the
    // conversion process, the recovery process, and inspecting the end states.
    double phaseSeconds[4] = {};

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

    // The rule that excuses losses caused by this failed call, or null.
    const Excuse* ExcuseFor(const CallRecord& r) const
    {
        if (InFrames(r, "EncryptEx"))
            return &kSealing;
        if (IsStoreCall(r.function)) {
            const std::string& f = r.function;
            auto has = [&](const char* part) { return f.find(part) != std::string::npos; };
            if (has("::PutSecret"))
                return &kStoring;
            if (has("IAuthService::"))
                return &kEnrolment;
            if (has("::PutPayload"))
                return &kPayload;
            if (has("IUserRegistry::CheckUser") || has("IUserRegistry::AddUser"))
                return &kRegistration;
            if (has("::QueryInterface") || has("::CreateInstance"))
                return &kStoreInterface;
            return nullptr;
        }
        if (r.function == "advapi32.dll!RegEnumValueW" && InFrames(r, "EnumFields"))
            return &kFieldEnumeration;
        // The password rule covers verdicts on the data only: a memory shortage in
        // the unpacking fails the user instead.
        if (!r.allocation && InFrames(r, "UnpackPasswordAndPin"))
            return &kPasswordUnpacking;
        return nullptr;
    }

    // Charges each missing piece of the final state to a failed call whose rule covers
    // it (under the default policy only); returns what no failed call covers.
    std::vector<Piece> ChargeToFailedCalls(const UserFinding& u, std::map<const Excuse*, unsigned>* budget,
                                           std::set<std::string>* design, Totals* t) const
    {
        if (policy != Policy::Default)
            return u.missing;
        std::vector<Piece> left;
        const Excuse* passwordRule = nullptr;
        for (const Piece& p : u.missing) {
            // The password secret and its authentication are one password.
            if (p.kind == Piece::Password && passwordRule)
                continue;
            const Excuse* used = nullptr;
            // The narrowest rule first, so that the broader ones stay for other pieces.
            for (int pass = 0; pass < 2 && !used; ++pass)
                for (auto& [rule, count] : *budget)
                    if (!used && count > 0 && !rule->wholeUser && rule->passwordOnly == (pass == 0) &&
                        Covers(*rule, p)) {
                        used = rule;
                        --count;
                    }
            if (!used) {
                left.push_back(p);
                continue;
            }
            design->insert(used->name);
            ++t->designPieces[used->name];
            if (p.kind == Piece::Password)
                passwordRule = used;
        }
        // What is left of one user may be one missing store interface's part.
        if (!left.empty())
            for (auto& [rule, count] : *budget)
                if (rule->wholeUser && count > 0 &&
                    std::all_of(left.begin(), left.end(), [&](const Piece& p) { return Covers(*rule, p); })) {
                    --count;
                    design->insert(rule->name);
                    t->designPieces[rule->name] += static_cast<unsigned>(left.size());
                    left.clear();
                    break;
                }
        return left;
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
        m_storeError = storeError;
        Totals& t = totals[ModeLabel(mode, storeError)];
        ++t.scenarios;
        auto mark = std::chrono::steady_clock::now();
        auto lap = [this, &mark](int phase) {
            const auto now = std::chrono::steady_clock::now();
            phaseSeconds[phase] += std::chrono::duration<double>(now - mark).count();
            mark = now;
        };
        const bool reset = world->Reset(policy, &error);
        lap(0);
        if (!reset) {
            ++t.verdicts[Verdict::ResetFailed];
            Record(mode, n, planned, planned, Verdict::ResetFailed, {}, {"reset failed: " + error}, "");
            return;
        }
        const ChildOutcome run =
            RunChild(L"child --mode " + nvtest::Widen(ModeName(mode)) + L" --n " + std::to_wstring(n) +
                         (storeError.empty() ? L"" : L" --store-error " + nvtest::Widen(storeError)),
                     tempDir + L"run.txt");
        lap(1);
        const Inspection afterRun = world->Inspect();
        lap(3);
        const std::wstring recoveryOut = tempDir + L"recovery.txt";
        DeleteFileW(recoveryOut.c_str());
        const nvtest::ProcessRun recovery = RunSelf(L"recover --conversion " +
                                                    nvtest::Widen(ConversionName(conversion)) + L" --out " +
                                                    nvtest::QuoteArg(recoveryOut));
        std::vector<std::string> recoveryLines = nvtest::ReadFileLines(recoveryOut);
        lap(2);
        if (!run.started || !recovery.started) {
            // Not a finding about the library: the sweep cannot go on.
            std::fprintf(stderr, "nvfaults: the %s process of scenario %s %llu could not be started\n",
                         run.started ? "recovery" : "conversion", ModeName(mode), static_cast<unsigned long long>(n));
            harnessFailed = true;
            return;
        }
        const Inspection after = world->Inspect();
        lap(3);

        std::set<std::string> design;
        std::vector<std::string> problems;
        std::string notes;
        // The conversion process. Only two ends are honest: the requested kill, with
        // the hook's record; or Convert returning, with the whole answer written and
        // exit code 0. Anything else (a stack overflow, an abort, an exit without the
        // answer) is a crash, whatever the exit code says.
        Verdict processVerdict = Verdict::Passed;
        if (run.timedOut) {
            processVerdict = Verdict::Hung;
            problems.push_back("conversion process hung and was stopped");
        } else if (mode == Mode::Kill && run.killed && run.killRecord) {
            // the kill point was reached
        } else if (run.exitCode == 0 && run.complete && !run.result.empty()) {
            if (mode == Mode::Kill) {
                processVerdict = Verdict::NotReached;
                problems.push_back("kill point not reached (the run made fewer calls)");
            }
        } else {
            processVerdict = Verdict::Crashed;
            problems.push_back("conversion process ended without its answer (exit " + nvtest::Hex(run.exitCode) +
                               (run.complete ? "" : ", no result") + ")");
        }
        const bool recoveryComplete = !recoveryLines.empty() && recoveryLines.back() == "end";
        if (recovery.timedOut || recovery.exitCode != 0 || !recoveryComplete) {
            processVerdict = recovery.timedOut ? Verdict::Hung : Verdict::Crashed;
            problems.push_back("recovery process " + std::string(recovery.timedOut ? "hung" : "ended without its answer") +
                               " (exit " + nvtest::Hex(recovery.exitCode) + ")" + recovery.err);
        }
        for (const std::string& line : recoveryLines) {
            if (line == "end")
                continue;
            notes += " " + line + ";";
            if (line.find("rollback ") != std::string::npos && line.find("database-unchanged") != std::string::npos &&
                line.find("backup-kept") != std::string::npos)
                design.insert("rollback-in-own-view");
        }
        if (after.keptAfterFailedDelete > 0) {
            design.insert("value-kept-when-its-delete-fails");
            notes += " " + std::to_string(after.keptAfterFailedDelete) + " values the step deletes are still there;";
        }
        if (afterRun.hostIdChanged || after.hostIdChanged)
            problems.push_back("HostId replaced");
        for (const UserFinding& u : after.users)
            if (u.TwoPlaces()) {
                ++t.twoPlaces;
                notes += " in two places at the end: " + u.user + ";";
            }

        // The end state the recovery must reach.
        bool lost = false, unfinished = false;
        std::map<const Excuse*, unsigned> budget;
        if (mode != Mode::Kill)
            for (const CallRecord& r : run.records)
                if (const Excuse* e = ExcuseFor(r))
                    ++budget[e];
        if (conversion == Conversion::From10) {
            for (const UserFinding& u : after.users)
                if (u.Lost()) {
                    lost = true;
                    problems.push_back("lost " + u.user);
                }
            if (!after.converted10 && !after.converted10KeepingValues) {
                unfinished = true;
                problems.push_back("the database is not the converted 2.0 database at the end: " + after.Summary());
            }
        } else {
            for (const UserFinding& u : after.users) {
                const std::vector<Piece> left = ChargeToFailedCalls(u, &budget, &design, &t);
                if (left.empty())
                    continue;
                UserFinding rest = u;
                rest.missing = left;
                // Only in a backup key, or nowhere whole: the next Convert's cleanup
                // deletes the backup, and Rollback in the library's view never brings
                // it back.
                lost = true;
                problems.push_back("lost " + u.user + " (" + Missing(rest) + ")" +
                                   (u.inBackup ? ", whole only in the backup key" : "") +
                                   (u.inDatabase ? ", whole only in the old database" : ""));
            }
            for (const UserFinding& u : after.users)
                if (u.oldKey) {
                    unfinished = true;
                    problems.push_back("old user key left: " + u.user);
                }
            if (!after.layout30) {
                // The conversion's Cleanup deletes the old database only while Data\Users
                // opens empty, and reports none of its failures: once a failed delete
                // took Data\Users with it, no later Cleanup deletes the rest.
                bool inOldDatabaseDelete = false;
                for (const CallRecord& r : run.records)
                    inOldDatabaseDelete |= InFrames(r, "CConverter3::do_Cleanup");
                bool userKeyLeft = false;
                for (const UserFinding& u : after.users)
                    userKeyLeft |= u.oldKey;
                if (inOldDatabaseDelete && !userKeyLeft) {
                    design.insert(kOldDatabaseLeft.name);
                } else {
                    unfinished = true;
                    problems.push_back("the old database is still there at the end (Data or MainDB)");
                }
            }
            if (after.version != cleanVersion) {
                unfinished = true;
                problems.push_back("\"Version\" reads " + nvtest::Narrow(after.version) + ", the clean run leaves " +
                                   nvtest::Narrow(cleanVersion));
            }
        }
        if (after.backupValue || after.backupKeyLeft) {
            bool unnamedByDesign = false;
            for (const CallRecord& r : run.records)
                unnamedByDesign |= mode != Mode::Kill && r.function == "advapi32.dll!RegSetValueExW" &&
                                   InFrames(r, "CBaseConverter::Backup");
            if (!after.backupValue && unnamedByDesign) {
                design.insert(kBackupUnnamed.name);
            } else if (conversion == Conversion::From10 && after.converted10KeepingValues &&
                       (!after.backupValue || _wcsicmp(after.backupPath.c_str(), nvframe::kBackup10KeyPath) == 0)) {
                design.insert(kBackup10OutOfView.name);
            } else {
                unfinished = true;
                problems.push_back("backup left at the end: " + after.Summary());
            }
        }

        Verdict verdict;
        if (processVerdict != Verdict::Passed)
            verdict = processVerdict;
        else if (lost || (!problems.empty() && !unfinished))
            verdict = Verdict::Lost;
        else if (unfinished)
            verdict = Verdict::Unfinished;
        else if (!design.empty())
            verdict = Verdict::ByDesign;
        else
            verdict = Verdict::Passed;
        ++t.verdicts[verdict];
        for (const std::string& d : design)
            ++t.designCounts[d];
        const CallRecord& where = run.records.empty() ? planned : run.records.front();
        Record(mode, n, planned, where, verdict, design, problems,
               "run " + run.result + "; after run: " + afterRun.Summary() + ";" + notes + " final: " + after.Summary());
    }

    void Record(Mode mode, std::uint64_t n, const CallRecord& planned, const CallRecord& where, Verdict verdict,
                const std::set<std::string>& design, const std::vector<std::string>& problems,
                const std::string& notes)
    {
        std::string designText;
        for (const std::string& d : design)
            designText += (designText.empty() ? "" : ",") + d;
        std::string problemText;
        for (const std::string& p : problems)
            problemText += (problemText.empty() ? "" : "; ") + p;
        const std::string line = std::string(ConversionName(conversion)) + "\t" + PolicyName(policy) + "\t" +
                                 ModeName(mode) + "\t" + std::to_string(n) + "\t" + planned.function + "\t" +
                                 Frames(where) + "\t" + VerdictName(verdict) + "\t" + designText + "\t" +
                                 problemText + "\t" + notes + "\t" + (m_storeError.empty() ? "-" : m_storeError);
        if (report) {
            std::fprintf(report, "%s\n", line.c_str());
            std::fflush(report);
        }
        if (verdict != Verdict::Passed && verdict != Verdict::ByDesign)
            failLines.push_back(line);
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

// A persistent failure starts at a call of its own kind.
bool Applies(Mode mode, const CallRecord& r)
{
    return !(mode == Mode::From && r.allocation) && !(mode == Mode::OomFrom && !r.allocation);
}

// Scenarios for each distinct call site (the function called and the library function
// calling it), one per mode that applies to its kind of call: which of the site's
// calls each mode takes turns with the seed, so that runs with different seeds cover
// different calls and a failing seed can be run again.
struct SiteShare {
    std::uint64_t index = 0;
    std::uint64_t count = 1;
};

std::vector<std::pair<Mode, std::uint64_t>> SampleSites(const std::vector<CallRecord>& calls,
                                                        const SymbolTable& symbols, const std::vector<Mode>& modes,
                                                        std::uint64_t seed, SiteShare share)
{
    std::vector<std::string> order;
    std::map<std::string, std::vector<std::uint64_t>> sites;
    for (const CallRecord& r : calls) {
        const std::string key = r.function + " @ " + (r.frames.empty() ? "?" : symbols.FunctionAt(r.frames[0]));
        if (!sites.count(key))
            order.push_back(key);
        sites[key].push_back(r.number);
    }
    // Every mode that applies to the site's kind of call, each at a call of its own.
    std::vector<std::pair<Mode, std::uint64_t>> out;
    for (size_t m = 0; m < modes.size(); ++m)
        for (size_t i = 0; i < order.size(); ++i) {
            if ((seed + i) % share.count != share.index)
                continue;
            const std::vector<std::uint64_t>& numbers = sites[order[i]];
            const std::uint64_t n = numbers[(seed + i * 7919 + m * 104729) % numbers.size()];
            if (Applies(modes[m], calls[n - 1]))
                out.emplace_back(modes[m], n);
        }
    return out;
}

// One line on standard error every hundred scenarios: how far, how long, and what
// memory this process holds, so that a long sweep shows its progress and any leak.
void Progress(size_t done, size_t total, Mode mode, std::uint64_t n,
              std::chrono::steady_clock::time_point started, const double (&phases)[4])
{
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    PROCESS_MEMORY_COUNTERS_EX mem{};
    mem.cb = sizeof(mem);
    GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&mem), sizeof(mem));
    // The lowest free thread-local storage index: a slot that leaks shows as a rise.
    const DWORD tls = TlsAlloc();
    TlsFree(tls);
    std::fprintf(stderr, "nvfaults: %zu of %zu scenarios (now %s %llu), %.0f s, %.2f s each; %.1f MB private, "
                         "next TLS index %lu; each: reset %.2f s, conversion %.2f s, recovery %.2f s, "
                         "inspection %.2f s\n",
                 done, total, ModeName(mode), static_cast<unsigned long long>(n), seconds,
                 seconds / static_cast<double>(done), static_cast<double>(mem.PagefileUsage) / (1024.0 * 1024.0),
                 static_cast<unsigned long>(tls), phases[0] / done, phases[1] / done, phases[2] / done,
                 phases[3] / done);
    std::fflush(stderr);
}

int SweepCommand(const std::map<std::string, std::string>& o)
{
    static const char* const kKnown[] = {"conversion", "policy", "modes", "first", "stride", "from", "to",
                                         "sites", "seed", "site-share", "list", "report", "store-errors",
                                         "store-only"};
    for (const auto& [key, value] : o)
        if (std::find(std::begin(kKnown), std::end(kKnown), key) == std::end(kKnown)) {
            std::fprintf(stderr, "nvfaults: unknown option --%s\n", key.c_str());
            return kExitUsage;
        }
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
        std::istringstream list(o.count("modes") ? o.at("modes") : "once,from,oom-from,kill");
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
    const bool sampleSites = o.count("sites") != 0;
    SiteShare share;
    if (o.count("site-share")) {
        unsigned long long index = 0, count = 0;
        char end = 0;
        if (!sampleSites || std::sscanf(o.at("site-share").c_str(), "%llu/%llu%c", &index, &count, &end) != 2 ||
            count == 0 || index >= count) {
            std::fprintf(stderr, "nvfaults: --site-share I/N (0 <= I < N) goes with --sites\n");
            return kExitUsage;
        }
        share = {index, count};
    }
    const bool storeOnly = o.count("store-only") != 0;
    const bool listOnly = o.count("list") != 0;
    std::vector<std::string> storeErrors;
    {
        std::istringstream list(o.count("store-errors") ? o.at("store-errors")
                                                        : "E_OUTOFMEMORY,RPC_E_DISCONNECTED,E_FAIL");
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
    const std::uint64_t seed = o.count("seed") ? std::stoull(o.at("seed"))
                                               : (GetTickCount64() ^ (static_cast<std::uint64_t>(GetCurrentProcessId()) << 20)) % 1000000;

    wchar_t tempPath[MAX_PATH];
    GetTempPathW(MAX_PATH, tempPath);
    const std::wstring tempDir = std::wstring(tempPath) + L"nvfaults-" + std::to_wstring(GetCurrentProcessId()) + L"\\";
    CreateDirectoryW(tempDir.c_str(), nullptr);

    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    const HRESULT registered = nvtest::RegisterStoreServer();
    if (FAILED(registered)) {
        std::fprintf(stderr, "nvfaults: registering the reference store failed: %s\n", nvtest::Hex(registered).c_str());
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
                         nvtest::Hex(clean.exitCode).c_str(), clean.result.c_str(),
                         static_cast<unsigned long long>(clean.calls));
            rc = kExitSetup;
            break;
        }
        if (conversion == Conversion::From10)
            world.RecordConverted10();
        const Inspection cleanState = world.Inspect();
        bool cleanComplete = clean.complete && !cleanState.backupValue && !cleanState.backupKeyLeft &&
                             (conversion == Conversion::From10 ? cleanState.converted10 : true);
        for (const UserFinding& u : cleanState.users)
            cleanComplete &= u.inStore && !u.inDatabase && !u.oldKey;
        if (conversion == Conversion::From20)
            cleanComplete &= cleanState.layout30;
        sweep.cleanVersion = cleanState.version;
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

        struct Planned {
            Mode mode;
            std::uint64_t n;
            std::string storeError;
        };
        std::vector<Planned> planned;
        // A store call fails (once, from) with each store error; "oom-from" fails
        // allocations and a kill returns nothing, so those run once. Sampling takes one
        // of the errors, turning with the seed.
        auto plan = [&](Mode mode, std::uint64_t n, bool oneError) {
            if (storeOnly && !IsStoreCall(clean.records[n - 1].function))
                return;
            if (!IsStoreCall(clean.records[n - 1].function) || (mode != Mode::Once && mode != Mode::From))
                planned.push_back({mode, n, ""});
            else if (oneError)
                planned.push_back({mode, n, storeErrors[(seed + n) % storeErrors.size()]});
            else
                for (const std::string& e : storeErrors)
                    planned.push_back({mode, n, e});
        };
        if (sampleSites) {
            for (const auto& [mode, n] : SampleSites(clean.records, sweep.symbols, modes, seed, share))
                plan(mode, n, true);
            if (share.count == 1)
                std::printf("  every call site in every mode that applies: %zu scenarios, seed %llu (the same "
                            "scenarios again: --sites --seed %llu)\n",
                            planned.size(), static_cast<unsigned long long>(seed),
                            static_cast<unsigned long long>(seed));
            else
                std::printf("  the call sites of share %llu/%llu, each in every mode that applies: %zu "
                            "scenarios, seed %llu (the same scenarios again: --sites --seed %llu --site-share "
                            "%llu/%llu)\n",
                            static_cast<unsigned long long>(share.index),
                            static_cast<unsigned long long>(share.count), planned.size(),
                            static_cast<unsigned long long>(seed), static_cast<unsigned long long>(seed),
                            static_cast<unsigned long long>(share.index),
                            static_cast<unsigned long long>(share.count));
        } else {
            const std::vector<std::uint64_t> numbers = CallNumbers(clean.calls, first, stride);
            for (Mode mode : modes)
                for (std::uint64_t n : numbers)
                    if (n >= rangeFrom && n <= rangeTo && n <= clean.records.size() &&
                        Applies(mode, clean.records[n - 1]))
                        plan(mode, n, false);
        }
        if (listOnly) {
            for (const Planned& p : planned) {
                const CallRecord& r = clean.records[p.n - 1];
                std::printf("  scenario %s %llu %s @ %s%s%s\n", ModeName(p.mode), static_cast<unsigned long long>(p.n),
                            r.function.c_str(),
                            r.frames.empty() ? "?" : sweep.symbols.FunctionAt(r.frames[0]).c_str(),
                            p.storeError.empty() ? "" : " ", p.storeError.c_str());
            }
            std::fflush(stdout);
            continue;
        }
        std::fflush(stdout);
        const auto sweepStarted = std::chrono::steady_clock::now();
        for (size_t i = 0; i < planned.size() && !sweep.harnessFailed; ++i) {
            sweep.Scenario(planned[i].mode, planned[i].n, clean.records[planned[i].n - 1], planned[i].storeError);
            if ((i + 1) % 100 == 0 || i + 1 == planned.size())
                Progress(i + 1, planned.size(), planned[i].mode, planned[i].n, sweepStarted, sweep.phaseSeconds);
        }

        std::vector<std::string> labels;
        for (Mode mode : modes) {
            // A tally line for each mode that ran: plain, and per store error.
            if (sweep.totals.count(ModeName(mode)) || !storeOnly)
                labels.push_back(ModeName(mode));
            for (const std::string& e : storeErrors)
                if (sweep.totals.count(ModeLabel(mode, e)))
                    labels.push_back(ModeLabel(mode, e));
        }
        for (const std::string& label : labels) {
            const Totals& t = sweep.totals[label];
            std::printf("  %-8s %u scenarios:", label.c_str(), t.scenarios);
            bool firstVerdict = true;
            for (Verdict v : {Verdict::Passed, Verdict::ByDesign, Verdict::Lost, Verdict::Unfinished,
                              Verdict::Crashed, Verdict::Hung, Verdict::NotReached, Verdict::ResetFailed}) {
                const auto it = t.verdicts.find(v);
                const unsigned count = it == t.verdicts.end() ? 0 : it->second;
                // The first four always, the rarer ones when they happened.
                if (count || v == Verdict::Passed || v == Verdict::ByDesign || v == Verdict::Lost ||
                    v == Verdict::Crashed)
                    std::printf("%s %u %s", firstVerdict ? "" : ",", count, VerdictName(v));
                firstVerdict = false;
            }
            std::printf("; users in two places at the end: %u\n", t.twoPlaces);
            for (const auto& [name, count] : t.designCounts) {
                const auto pieces = t.designPieces.find(name);
                std::printf("        by design %-40s %u scenarios", name.c_str(), count);
                if (pieces != t.designPieces.end())
                    std::printf(", %u pieces", pieces->second);
                for (const Excuse* e : kExcuses)
                    if (name == e->name)
                        std::printf(" (%s)", e->step);
                std::printf("\n");
            }
        }
        for (const std::string& line : sweep.failLines)
            std::printf("  FAILED %s\n", line.c_str());
        if (!sweep.failLines.empty())
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
                 "                      [--modes once,from,oom-from,kill] [--first N] [--stride S] [--from N]\n"
                 "                      [--to N] [--sites [--seed S] [--site-share I/N]] [--list]\n"
                 "                      [--report FILE]\n"
                 "                      [--store-errors E_OUTOFMEMORY,RPC_E_DISCONNECTED,E_FAIL] [--store-only]\n"
                 "       nvfaults child --mode count|once|from|oom-from|kill --n N [--store-error E] --out FILE\n"
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

static int RunProgram(int argc, wchar_t** argv)
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

// The result also written where scripts/wine-run asks for it (tests/support/exit_file).
int wmain(int argc, wchar_t** argv) { return nvtest::MainWithExitFile(RunProgram, argc, argv); }
