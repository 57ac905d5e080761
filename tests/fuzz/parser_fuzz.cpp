// parser_fuzz: mutation fuzzing of the library's parsers, in-process under Wine.
//
//   parser_fuzz [--parser NAME|all] [--inputs N] [--seconds S] [--seed N] [--out DIR]
//   parser_fuzz --replay FILE|DIR...
//
// Every input is placed at the very end of a page followed by a PAGE_NOACCESS page,
// handed to the parser, and checked: no crash, no hang, no input slower than one
// second, no read of the guard page (even one that a system DLL catches itself), an
// intact heap afterwards, and only the result codes and outputs the format allows.
// A failing input is saved as DIR/<parser>-<what>-<n>.bin; --replay runs saved
// inputs again (the parser is the file name's first part). Exit codes: 0 nothing
// found, 1 findings, 2 usage or setup error, 3 a crash or a damaged heap (the input
// is saved first), 4 a hang.
#include <windows.h>
#include <psapi.h>
#include <comdef.h>
#include <atomic>
#include <cstring>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "guarded_input.h"
#include "parser_targets.h"
#include "exit_file/exit_file.h"

using namespace nvfuzz;

namespace {

constexpr double kSlowInputSeconds = 1.0;
constexpr double kHangSeconds = 10.0;
constexpr std::size_t kMaxInput = 256 * 1024;

// What the crash handler and the watchdog need to save the input at fault.
struct Current {
    std::atomic<const BYTE*> data{nullptr};
    std::atomic<DWORD> size{0};
    std::atomic<long long> startedAt{0}; // QPC ticks, 0 between inputs
    const char* parser = "";
    std::string outDir = "fuzz-findings";
};
Current g_current;
GuardedInput* g_guard = nullptr;
std::atomic<long> g_guardHits{0};
// The modules of the faulting call chain of the last guard touch, innermost first,
// and whether the innermost frame was this program's own code (the library is
// linked in) rather than a system DLL that handles its own faults.
char g_guardChain[512];
bool g_guardInOwnCode = false;
LARGE_INTEGER g_frequency;
HANDLE g_mainThread = nullptr;

double Seconds(long long ticks) { return static_cast<double>(ticks) / static_cast<double>(g_frequency.QuadPart); }

long long Now()
{
    LARGE_INTEGER t;
    ::QueryPerformanceCounter(&t);
    return t.QuadPart;
}

// The loaded modules, noted once the fixture has loaded everything: the crash filter,
// the watchdog and the guard watch name addresses from this table, because they may
// run while the faulting or stuck thread holds the heap or loader lock.
struct ModuleRange {
    ULONG_PTR base;
    ULONG_PTR end;
    char name[64];
};
ModuleRange g_modules[512];
int g_moduleCount = 0;
ULONG_PTR g_selfBase = 0;

void NoteModules()
{
    HMODULE handles[512];
    DWORD needed = 0;
    if (!::K32EnumProcessModules(::GetCurrentProcess(), handles, sizeof(handles), &needed))
        return;
    g_selfBase = reinterpret_cast<ULONG_PTR>(::GetModuleHandleW(nullptr));
    const int n = static_cast<int>(needed / sizeof(HMODULE));
    for (int i = 0; i < n && i < 512; ++i) {
        MODULEINFO info{};
        char path[MAX_PATH] = "?";
        if (!::K32GetModuleInformation(::GetCurrentProcess(), handles[i], &info, sizeof(info)))
            continue;
        ::GetModuleFileNameA(handles[i], path, MAX_PATH);
        const char* slash = std::strrchr(path, '\\');
        ModuleRange& m = g_modules[g_moduleCount++];
        m.base = reinterpret_cast<ULONG_PTR>(info.lpBaseOfDll);
        m.end = m.base + info.SizeOfImage;
        std::snprintf(m.name, sizeof(m.name), "%s", slash ? slash + 1 : path);
    }
}

const ModuleRange* ModuleAt(ULONG_PTR address)
{
    for (int i = 0; i < g_moduleCount; ++i) {
        if (address >= g_modules[i].base && address < g_modules[i].end)
            return &g_modules[i];
    }
    return nullptr;
}

// Writes straight to the standard error handle (no CRT stream lock).
void Say(const char* text)
{
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), text, static_cast<DWORD>(std::strlen(text)), &written, nullptr);
}

// Saves an input under the findings folder with Win32 calls only; the file's name
// goes to name.
void SaveInput(const char* parser, const char* what, const BYTE* data, DWORD size, char* name, std::size_t nameSize)
{
    ::CreateDirectoryA(g_current.outDir.c_str(), nullptr);
    static std::atomic<int> counter{0};
    std::snprintf(name, nameSize, "%s\\%s-%s-%lu-%d.bin", g_current.outDir.c_str(), parser, what,
                  static_cast<unsigned long>(::GetCurrentProcessId()), counter++);
    HANDLE file = ::CreateFileA(name, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file != INVALID_HANDLE_VALUE) {
        DWORD written = 0;
        if (size)
            ::WriteFile(file, data, size, &written, nullptr);
        ::CloseHandle(file);
    }
}

std::string SaveInput(const char* parser, const char* what, const BYTE* data, DWORD size)
{
    char name[MAX_PATH];
    SaveInput(parser, what, data, size, name, sizeof(name));
    return name;
}

// The modules of a call chain, innermost first ("crypt32.dll < parser_fuzz.exe+0x..."),
// into chain; true when the innermost frame is this program's own code. With
// stopAtOwn the walk ends at the first frame of our own code. Uses no heap.
bool WalkChain(CONTEXT context, char* chain, std::size_t size, bool stopAtOwn)
{
    bool innermostOwn = false;
    chain[0] = 0;
    const ModuleRange* last = nullptr;
    for (int frame = 0; frame < 32 && context.Rip; ++frame) {
        const ULONG_PTR pc = context.Rip;
        const ModuleRange* module = ModuleAt(pc);
        const bool own = module && module->base == g_selfBase;
        if (frame == 0)
            innermostOwn = own;
        char name[96];
        if (own)
            std::snprintf(name, sizeof(name), "%s+0x%llx", module->name,
                          static_cast<unsigned long long>(pc - module->base));
        else
            std::snprintf(name, sizeof(name), "%s", module ? module->name : "?");
        if ((own || module != last) && std::strlen(chain) + std::strlen(name) + 4 < size) {
            if (chain[0])
                std::strcat(chain, " < ");
            std::strcat(chain, name);
        }
        last = module;
        if (own && stopAtOwn)
            break;
        DWORD64 imageBase = 0;
        PRUNTIME_FUNCTION entry = ::RtlLookupFunctionEntry(pc, &imageBase, nullptr);
        if (!entry) {
            context.Rip = *reinterpret_cast<DWORD64*>(context.Rsp);
            context.Rsp += 8;
        } else {
            void* handlerData = nullptr;
            DWORD64 establisher = 0;
            ::RtlVirtualUnwind(UNW_FLAG_NHANDLER, imageBase, pc, entry, &context, &handlerData, &establisher, nullptr);
        }
    }
    return innermostOwn;
}

// First chance: a touch of the guard page is counted even when the code that touched
// it handles the fault itself.
LONG CALLBACK GuardWatch(EXCEPTION_POINTERS* info)
{
    const EXCEPTION_RECORD* r = info->ExceptionRecord;
    if (r->ExceptionCode == EXCEPTION_ACCESS_VIOLATION && r->NumberParameters >= 2 && g_guard &&
        g_guard->IsGuard(r->ExceptionInformation[1])) {
        g_guardInOwnCode = WalkChain(*info->ContextRecord, g_guardChain, sizeof(g_guardChain), true);
        ++g_guardHits;
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

LONG WINAPI CrashFilter(EXCEPTION_POINTERS* info)
{
    const EXCEPTION_RECORD* r = info->ExceptionRecord;
    char saved[MAX_PATH], chain[1024], text[1600];
    SaveInput(g_current.parser, "crash", g_current.data, g_current.size, saved, sizeof(saved));
    WalkChain(*info->ContextRecord, chain, sizeof(chain), false);
    std::snprintf(text, sizeof(text), "CRASH in parser %s: exception 0x%08lX in %s; input saved as %s\n",
                  g_current.parser, static_cast<unsigned long>(r->ExceptionCode), chain, saved);
    Say(text);
    ::TerminateProcess(::GetCurrentProcess(), 3);
    return EXCEPTION_EXECUTE_HANDLER;
}

DWORD WINAPI Watchdog(void*)
{
    for (;;) {
        ::Sleep(250);
        const long long started = g_current.startedAt;
        if (started && Seconds(Now() - started) > kHangSeconds) {
            char chain[1024] = "?", saved[MAX_PATH], text[1600];
            if (::SuspendThread(g_mainThread) != static_cast<DWORD>(-1)) {
                CONTEXT context{};
                context.ContextFlags = CONTEXT_FULL;
                if (::GetThreadContext(g_mainThread, &context))
                    WalkChain(context, chain, sizeof(chain), false);
            }
            SaveInput(g_current.parser, "hang", g_current.data, g_current.size, saved, sizeof(saved));
            std::snprintf(text, sizeof(text),
                          "HANG in parser %s: one input ran for more than %.0f s (in %s); input saved as %s\n",
                          g_current.parser, kHangSeconds, chain, saved);
            Say(text);
            ::TerminateProcess(::GetCurrentProcess(), 4);
        }
    }
}

struct Stats {
    unsigned long long inputs = 0;
    double seconds = 0;
    double slowest = 0;
    unsigned long long violations = 0, guardReads = 0, slow = 0;
    // Reads of the guard page inside a system DLL that caught its own fault (the
    // platform's DER decoder probing a length that runs past the input): no crash,
    // and not the library's read; counted and shown, not failed.
    unsigned long long platformReads = 0;
    std::string platformExample;
    std::map<HRESULT, unsigned long long> results;
    std::map<std::string, unsigned long long> mutations;
};

// Whether every heap of the process is still intact. A decoder that writes past the
// buffer it was handed damages the heap without any fault of its own; the damage
// shows much later as a crash or a hang with another input, so it is looked for
// after every input.
bool HeapsIntact()
{
    HANDLE heaps[64];
    const DWORD n = ::GetProcessHeaps(64, heaps);
    for (DWORD i = 0; i < n && i < 64; ++i) {
        if (!::HeapValidate(heaps[i], 0, nullptr))
            return false;
    }
    return true;
}

// Runs one input with every check; false when it is a finding (saved and reported).
bool RunOne(Target& target, const Bytes& input, Stats& stats, const std::string& how)
{
    DWORD cb = 0;
    const BYTE* pb = g_guard->Place(input.data(), input.size(), &cb);
    g_current.parser = target.Name();
    g_current.data = pb;
    g_current.size = cb;
    const long hitsBefore = g_guardHits;
    long long started = Now();
    g_current.startedAt = started;
    Outcome outcome = target.Run(pb, cb);
    double took = Seconds(Now() - started);
    if (took > kSlowInputSeconds) {
        // The machine may simply have been busy: a slow input counts when it is slow twice.
        started = Now();
        g_current.startedAt = started;
        outcome = target.Run(pb, cb);
        took = Seconds(Now() - started);
    }
    g_current.startedAt = 0;
    if (!HeapsIntact()) {
        // Nothing that runs after this can be trusted: stop as for a crash.
        char saved[MAX_PATH], text[1024];
        SaveInput(target.Name(), "heap", pb, cb, saved, sizeof(saved));
        std::snprintf(text, sizeof(text), "HEAP DAMAGE in parser %s after an input (%s); input saved as %s\n",
                      target.Name(), how.c_str(), saved);
        Say(text);
        ::TerminateProcess(::GetCurrentProcess(), 3);
    }

    ++stats.inputs;
    ++stats.results[outcome.hr];
    if (took > stats.slowest)
        stats.slowest = took;
    bool ok = true;
    auto report = [&](const char* what, const std::string& detail) {
        const std::string saved = SaveInput(target.Name(), what, pb, cb);
        std::fprintf(stderr, "FINDING in parser %s (%s, %lu bytes, %s): %s; input saved as %s\n", target.Name(), what,
                     static_cast<unsigned long>(cb), how.c_str(), detail.c_str(), saved.c_str());
        ok = false;
    };
    if (g_guardHits != hitsBefore) {
        if (g_guardInOwnCode) {
            ++stats.guardReads;
            report("overread", std::string("read past the end of the input in ") + g_guardChain);
        } else {
            if (!stats.platformReads++)
                stats.platformExample = g_guardChain;
        }
    }
    if (!outcome.violation.empty()) {
        ++stats.violations;
        report("result", outcome.violation);
    }
    if (took > kSlowInputSeconds) {
        ++stats.slow;
        report("slow", "the input took " + std::to_string(took) + " s");
    }
    return ok;
}

void PrintStats(const char* name, const Stats& s)
{
    std::printf("parser %-8s %llu inputs in %.1f s (%.0f/s), slowest %.3f s; findings: %llu result, %llu overread, "
                "%llu slow\n",
                name, s.inputs, s.seconds, s.seconds > 0 ? static_cast<double>(s.inputs) / s.seconds : 0.0, s.slowest,
                s.violations, s.guardReads, s.slow);
    std::printf("    results:");
    for (const auto& [hr, n] : s.results)
        std::printf(" 0x%08lX=%llu", static_cast<unsigned long>(hr), n);
    std::printf("\n");
    if (s.platformReads)
        std::printf("    guard page touched inside system DLLs that handled it themselves: %llu (e.g. %s)\n",
                    s.platformReads, s.platformExample.c_str());
    if (!s.mutations.empty()) {
        std::printf("    mutations:");
        for (const auto& [m, n] : s.mutations)
            std::printf(" %s=%llu", m.c_str(), n);
        std::printf("\n");
    }
    std::fflush(stdout);
}

std::vector<std::string> FilesOf(const std::string& path)
{
    const DWORD attrs = ::GetFileAttributesA(path.c_str());
    if (attrs == INVALID_FILE_ATTRIBUTES || !(attrs & FILE_ATTRIBUTE_DIRECTORY))
        return {path};
    std::vector<std::string> files;
    WIN32_FIND_DATAA found;
    HANDLE h = ::FindFirstFileA((path + "\\*.bin").c_str(), &found);
    if (h == INVALID_HANDLE_VALUE)
        return files;
    do {
        files.push_back(path + "\\" + found.cFileName);
    } while (::FindNextFileA(h, &found));
    ::FindClose(h);
    return files;
}

int Usage()
{
    std::fprintf(stderr,
                 "usage: parser_fuzz [--parser NAME|all] [--inputs N] [--seconds S] [--seed N] [--out DIR]\n"
                 "       parser_fuzz [--out DIR] --replay FILE|DIR...\n"
                 "  parsers: %s\n"
                 "  --inputs N   inputs per parser (default 1000)\n"
                 "  --seconds S  stop a parser after S seconds even if fewer inputs ran\n",
                 TargetNames());
    return 2;
}

int Run(int argc, char** argv)
{
    std::string parser = "all";
    unsigned long long inputs = 1000;
    double seconds = 0;
    unsigned long long seed = 1;
    std::vector<std::string> replay;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto next = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        const char* v = nullptr;
        if (a == "--parser" && (v = next()))
            parser = v;
        else if (a == "--inputs" && (v = next()))
            inputs = std::strtoull(v, nullptr, 10);
        else if (a == "--seconds" && (v = next()))
            seconds = std::strtod(v, nullptr);
        else if (a == "--seed" && (v = next()))
            seed = std::strtoull(v, nullptr, 10);
        else if (a == "--out" && (v = next()))
            g_current.outDir = v;
        else if (a == "--replay") {
            while (i + 1 < argc)
                replay.push_back(argv[++i]);
        } else
            return Usage();
    }

    ::QueryPerformanceFrequency(&g_frequency);
    ::DuplicateHandle(::GetCurrentProcess(), ::GetCurrentThread(), ::GetCurrentProcess(), &g_mainThread, 0, FALSE,
                      DUPLICATE_SAME_ACCESS);
    ::SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    ::AddVectoredExceptionHandler(1, GuardWatch);
    ::SetUnhandledExceptionFilter(CrashFilter);
    ::CloseHandle(::CreateThread(nullptr, 0, Watchdog, nullptr, 0, nullptr));
    ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);

    int rc = 0;
    try {
        GuardedInput guard(kMaxInput);
        g_guard = &guard;
        Fixture fixture;
        NoteModules();

        if (!replay.empty()) {
            unsigned long long count = 0, failed = 0;
            for (const std::string& path : replay) {
                for (const std::string& file : FilesOf(path)) {
                    const std::size_t slash = file.find_last_of("\\/");
                    const std::string base = file.substr(slash == std::string::npos ? 0 : slash + 1);
                    Target* target = fixture.Find(base.substr(0, base.find('-')));
                    if (!target) {
                        std::fprintf(stderr, "%s: the file name does not start with a parser name (%s)\n",
                                     file.c_str(), TargetNames());
                        return 2;
                    }
                    std::ifstream in(file, std::ios::binary);
                    const Bytes bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
                    Stats stats;
                    ++count;
                    if (!RunOne(*target, bytes, stats, "replay of " + base))
                        ++failed;
                }
            }
            std::printf("replayed %llu inputs, %llu failing\n", count, failed);
            rc = failed ? 1 : 0;
        } else {
            const std::vector<Target*> targets = fixture.Select(parser);
            if (targets.empty())
                return Usage();
            DerMutator mutator(seed);
            for (Target* target : targets) {
                Stats stats;
                // The seeds themselves first: valid input must pass.
                for (const Bytes& s : target->Seeds()) {
                    if (!RunOne(*target, s, stats, "seed"))
                        rc = 1;
                }
                const long long started = Now();
                while (stats.inputs < inputs) {
                    if (seconds > 0 && (stats.inputs & 63) == 0 && Seconds(Now() - started) > seconds)
                        break;
                    std::string how;
                    const Bytes input = target->Generate(mutator, how);
                    ++stats.mutations[how.substr(0, how.find('+'))];
                    if (!RunOne(*target, input, stats, how))
                        rc = 1;
                }
                stats.seconds = Seconds(Now() - started);
                PrintStats(target->Name(), stats);
            }
        }
        g_guard = nullptr;
    } catch (const _com_error& e) {
        std::fprintf(stderr, "parser_fuzz: setup failed: 0x%08lX\n", static_cast<unsigned long>(e.Error()));
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "parser_fuzz: setup failed: %s\n", e.what());
        return 2;
    }
    return rc;
}

} // namespace

int main(int argc, char** argv)
{
    nvtest::TakeExitFile();
    const int rc = Run(argc, argv);
    std::fflush(stdout);
    std::fflush(stderr);
    // Leave at once: the watchdog thread must not keep the process alive (Wine waits
    // for it at exit). The result is written first where scripts/wine-run asks for it
    // (tests/support/exit_file), as it would be at a normal exit.
    nvtest::WriteExitFileNow(rc);
    ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(rc));
    return rc;
}
