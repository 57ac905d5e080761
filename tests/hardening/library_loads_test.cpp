// Where the library takes code from at run time. The library's import table is
// patched so that every LoadLibraryA/W and LoadLibraryExA/W it makes is recorded;
// then a traced Convert, Rollback, Cleanup and the registration run, and every load
// must name the system directory as its only search place and end up there.
//
// The trace header (the only place that loads a library) is written when the trace
// file is opened, which happens at the first traced scope. So the library is loaded
// with tracing off, the table is patched, tracing is switched on, and the library's
// tick count is moved past its settings refresh interval through the same table.
#include <windows.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <cctype>
#include <atomic>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "nv_version.h"
#include "nvstore_inspect.h"
#include "support/dll_loader.h"
#include "support/import_patch.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "support/store_sandbox.h"
#include "support/trace_capture.h"
#include "support/sample_databases.h"
#include "writer/db20_writer.h"
#include "writer/legacy_writer.h"

using namespace nvtest;

namespace {

struct LoadCall {
    std::string function;
    std::wstring name;
    DWORD flags = 0;
    std::wstring loadedFrom; // the file of the module returned, empty on failure
};

std::vector<LoadCall> g_calls;
std::atomic<DWORD> g_tickOffset{0};

std::wstring ModulePath(HMODULE module)
{
    wchar_t path[MAX_PATH] = {};
    const DWORD n = module ? ::GetModuleFileNameW(module, path, MAX_PATH) : 0;
    return std::wstring(path, n);
}

HMODULE Record(const char* function, const std::wstring& name, DWORD flags, HMODULE result)
{
    const DWORD error = ::GetLastError();
    g_calls.push_back({function, name, flags, ModulePath(result)});
    ::SetLastError(error);
    return result;
}

HMODULE WINAPI HookLoadLibraryA(LPCSTR name)
{
    return Record("LoadLibraryA", Widen(name ? name : ""), 0, ::LoadLibraryA(name));
}
HMODULE WINAPI HookLoadLibraryW(LPCWSTR name)
{
    return Record("LoadLibraryW", name ? name : L"", 0, ::LoadLibraryW(name));
}
HMODULE WINAPI HookLoadLibraryExA(LPCSTR name, HANDLE file, DWORD flags)
{
    return Record("LoadLibraryExA", Widen(name ? name : ""), flags, ::LoadLibraryExA(name, file, flags));
}
HMODULE WINAPI HookLoadLibraryExW(LPCWSTR name, HANDLE file, DWORD flags)
{
    return Record("LoadLibraryExW", name ? name : L"", flags, ::LoadLibraryExW(name, file, flags));
}
DWORD WINAPI HookGetTickCount() { return ::GetTickCount() + g_tickOffset.load(); }
ULONGLONG WINAPI HookGetTickCount64() { return ::GetTickCount64() + g_tickOffset.load(); }

std::wstring SystemDirectory()
{
    wchar_t dir[MAX_PATH] = {};
    const UINT n = ::GetSystemDirectoryW(dir, MAX_PATH);
    return std::wstring(dir, n) + L"\\";
}

bool StartsWithNoCase(const std::wstring& text, const std::wstring& prefix)
{
    return text.size() >= prefix.size() &&
           ::CompareStringOrdinal(text.c_str(), static_cast<int>(prefix.size()), prefix.c_str(),
                                  static_cast<int>(prefix.size()), TRUE) == CSTR_EQUAL;
}

// What any load must look like: explicit flags that search the system directory and
// nothing else, a bare file name, and the module found there.
void ExpectSystemDirectoryOnly(const LoadCall& call)
{
    constexpr DWORD kOtherSearches = LOAD_WITH_ALTERED_SEARCH_PATH | LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR |
                                     LOAD_LIBRARY_SEARCH_APPLICATION_DIR | LOAD_LIBRARY_SEARCH_USER_DIRS |
                                     LOAD_LIBRARY_SEARCH_DEFAULT_DIRS;
    char flags[16];
    std::snprintf(flags, sizeof(flags), "0x%lX", static_cast<unsigned long>(call.flags));
    SCOPED_TRACE(call.function + "(\"" + Narrow(call.name) + "\", flags " + flags + ")");
    EXPECT_TRUE(call.function == "LoadLibraryExW" || call.function == "LoadLibraryExA")
        << "a load without search flags takes the host's search order";
    EXPECT_NE(0u, call.flags & LOAD_LIBRARY_SEARCH_SYSTEM32);
    EXPECT_EQ(0u, call.flags & kOtherSearches);
    EXPECT_EQ(std::wstring::npos, call.name.find_first_of(L"\\/:")) << "a path is loaded from wherever it points";
    EXPECT_TRUE(StartsWithNoCase(call.loadedFrom, SystemDirectory()))
        << "loaded from '" << Narrow(call.loadedFrom) << "'";
}

class LibraryLoadsTest : public RegistrySandbox {
protected:
    void TearDown() override
    {
        g_tickOffset = 0;
        g_calls.clear();
        RegistrySandbox::TearDown();
    }
};

} // namespace

TEST_F(LibraryLoadsTest, EveryLoadDuringTracedConvertRollbackCleanupAndRegistrationIsFromTheSystemDirectory)
{
    ASSERT_EQ(S_OK, WriteDb10(4, 1));

    LoadedLibrary dll; // tracing is off: the library reads its settings and opens no file
    ASSERT_TRUE(dll.loaded());
    g_calls.clear();
    HRESULT convert = E_UNEXPECTED, rollback = E_UNEXPECTED, cleanup = E_UNEXPECTED;
    HRESULT registered = E_UNEXPECTED, unregistered = E_UNEXPECTED;
    TraceCapture trace;
    {
        const ImportPatch patch(dll.module(), {{"LoadLibraryA", reinterpret_cast<void*>(&HookLoadLibraryA)},
                                               {"LoadLibraryW", reinterpret_cast<void*>(&HookLoadLibraryW)},
                                               {"LoadLibraryExA", reinterpret_cast<void*>(&HookLoadLibraryExA)},
                                               {"LoadLibraryExW", reinterpret_cast<void*>(&HookLoadLibraryExW)},
                                               {"GetTickCount", reinterpret_cast<void*>(&HookGetTickCount)},
                                               {"GetTickCount64", reinterpret_cast<void*>(&HookGetTickCount64)}});
        ASSERT_TRUE(patch.ok());
        ASSERT_FALSE(patch.names().empty()) << "the library imports no loader function to watch";
        trace.Start();
        g_tickOffset = 10 * 60 * 1000; // past the refresh interval: the next scope reads the settings
        convert = dll.Convert();
        rollback = dll.Rollback();
        cleanup = dll.Cleanup();
        registered = dll.DllRegisterServer();
        unregistered = dll.DllUnregisterServer();
    }
    dll.Unload();

    EXPECT_EQ(S_OK, convert);
    EXPECT_EQ(S_FALSE, rollback); // Convert cleaned up: no backup is left
    EXPECT_EQ(S_FALSE, cleanup);
    EXPECT_EQ(S_OK, registered);
    EXPECT_EQ(S_OK, unregistered);
    EXPECT_TRUE(trace.Contains("> CBaseConverter::Convert")) << trace.Dump();
    EXPECT_TRUE(trace.Contains("> CNVComModule::RegisterServer"));
    EXPECT_TRUE(trace.Contains("> CNVComModule::UnRegisterServer"));
    // The header's version line needs the version library: the load happened, and worked.
    const std::vector<std::string> header = trace.HeaderLines();
    EXPECT_NE(header.end(), std::find(header.begin(), header.end(), std::string("FileVersion: ") + NV_VERSION_TEXT))
        << trace.Dump();

    ASSERT_FALSE(g_calls.empty()) << "no load was seen: the trace header was not written through the patched table";
    for (const LoadCall& call : g_calls)
        ExpectSystemDirectoryOnly(call);
}

// A version.dll planted beside nvdbconv.exe and the library (an installer started
// from a downloads folder) and in the current directory is never loaded.
TEST_F(LibraryLoadsTest, PlantedVersionLibraryBesideTheHostIsNotLoaded)
{
    wchar_t temp[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, temp);
    const std::wstring dir = std::wstring(temp) + L"nvdbconv-planted-" + std::to_wstring(::GetCurrentProcessId()) + L"\\";
    ASSERT_TRUE(::CreateDirectoryW(dir.c_str(), nullptr) || ::GetLastError() == ERROR_ALREADY_EXISTS);
    for (const wchar_t* file : {L"nvdbconv.exe", L"NVDBConv.dll"})
        ASSERT_TRUE(::CopyFileW((ExeDirectory() + file).c_str(), (dir + file).c_str(), FALSE));
    // The probe exports none of the version functions: if it were taken, the file
    // version could not be read.
    ASSERT_TRUE(::CopyFileW((ExeDirectory() + L"planted_probe.dll").c_str(), (dir + L"version.dll").c_str(), FALSE));

    // Control: a host that searches its own folder first does take the planted file.
    ASSERT_TRUE(::CopyFileW((ExeDirectory() + L"unsafe_loader.exe").c_str(), (dir + L"unsafe_loader.exe").c_str(), FALSE));
    wchar_t previous[MAX_PATH] = {};
    ::GetCurrentDirectoryW(MAX_PATH, previous);
    ASSERT_TRUE(::SetCurrentDirectoryW(dir.c_str()));
    const ProcessRun control = RunProcess(QuoteArg(dir + L"unsafe_loader.exe"), 60000);
    ::SetCurrentDirectoryW(previous);
    EXPECT_EQ(0u, control.exitCode);
    EXPECT_TRUE(StartsWithNoCase(Widen(control.out), dir)) << "the control host took '" << control.out << "'";

    TraceCapture trace;
    trace.Start();
    ASSERT_TRUE(::SetCurrentDirectoryW(dir.c_str()));
    const ProcessRun run = RunProcess(QuoteArg(dir + L"nvdbconv.exe") + L" version", 60000);
    ::SetCurrentDirectoryW(previous);

    EXPECT_TRUE(run.started);
    EXPECT_EQ(0u, run.exitCode) << run.out << run.err;
    EXPECT_NE(std::string::npos, run.out.find("file version")) << run.out;
    EXPECT_NE(std::string::npos, run.out.find(NV_VERSION_TEXT)) << run.out;
    EXPECT_EQ(std::string::npos, run.out.find("none (no version resource)")) << run.out;
    const std::vector<std::string> header = trace.HeaderLines();
    EXPECT_NE(header.end(), std::find(header.begin(), header.end(), std::string("FileVersion: ") + NV_VERSION_TEXT))
        << trace.Dump();

    for (const wchar_t* file : {L"nvdbconv.exe", L"NVDBConv.dll", L"version.dll", L"unsafe_loader.exe"})
        ::DeleteFileW((dir + file).c_str());
    ::RemoveDirectoryW(dir.c_str());
}

namespace {

// A folder that holds a host, the library and planted copies of crypt32.dll and
// netapi32.dll, with Wine told to prefer a crypt32.dll or netapi32.dll found on the
// search path over its own in that host (as Windows takes any DLL that is not a
// KnownDLL from the application's folder first). Wine reads WINEDLLOVERRIDES only
// from the environment it was started with, not from what a Windows parent hands
// its child, so the override is the host's entry under AppDefaults in the
// registry. The hosts run with that folder as their current directory too, as an
// installer started from a downloads folder does.
constexpr wchar_t kHostOverrides[] = L"Software\\Wine\\AppDefaults\\plain_loader.exe\\DllOverrides";
constexpr wchar_t kHostDefaults[] = L"Software\\Wine\\AppDefaults\\plain_loader.exe";

class PlantedSystemLibraryTest : public StoreSandbox {
protected:
    void SetUp() override
    {
        StoreSandbox::SetUp();
        wchar_t temp[MAX_PATH] = {};
        ::GetTempPathW(MAX_PATH, temp);
        m_dir = std::wstring(temp) + L"nvdbconv-planted-sys-" + std::to_wstring(::GetCurrentProcessId()) + L"\\";
        ASSERT_TRUE(::CreateDirectoryW(m_dir.c_str(), nullptr) || ::GetLastError() == ERROR_ALREADY_EXISTS);
        for (const auto& copy : Copies())
            ASSERT_TRUE(::CopyFileW((ExeDirectory() + copy.first).c_str(), (m_dir + copy.second).c_str(), FALSE))
                << Narrow(copy.first);
        HKEY key = nullptr;
        ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExW(HKEY_CURRENT_USER, kHostOverrides, 0, nullptr, 0, KEY_SET_VALUE,
                                                   nullptr, &key, nullptr));
        static const wchar_t kNativeFirst[] = L"native,builtin";
        for (const wchar_t* dll : {L"crypt32", L"netapi32"})
            EXPECT_EQ(ERROR_SUCCESS, ::RegSetValueExW(key, dll, 0, REG_SZ, reinterpret_cast<const BYTE*>(kNativeFirst),
                                                      sizeof(kNativeFirst)));
        ::RegCloseKey(key);
    }
    void TearDown() override
    {
        ::RegDeleteTreeW(HKEY_CURRENT_USER, kHostDefaults);
        for (const auto& copy : Copies())
            ::DeleteFileW((m_dir + copy.second).c_str());
        ::RemoveDirectoryW(m_dir.c_str());
        if (m_wroteDatabase)
            nvwriter::DeleteDb20Container(m_db);
        StoreSandbox::TearDown();
    }

    static std::vector<std::pair<std::wstring, std::wstring>> Copies()
    {
        return {{L"plain_loader.exe", L"plain_loader.exe"},
                {L"NVDBConv.dll", L"NVDBConv.dll"},
                {L"static_import_probe.dll", L"static_import_probe.dll"},
                {L"planted_crypt32.dll", L"crypt32.dll"},
                {L"planted_netapi32.dll", L"netapi32.dll"}};
    }

    // plain_loader on a file of the folder, run from the folder; its output lines in
    // lower case (the loader names a module as the importer spelled it).
    std::vector<std::string> PlainLoad(const std::wstring& file, const std::wstring& extra)
    {
        wchar_t previous[MAX_PATH] = {};
        ::GetCurrentDirectoryW(MAX_PATH, previous);
        EXPECT_TRUE(::SetCurrentDirectoryW(m_dir.c_str()));
        const ProcessRun run =
            RunProcess(QuoteArg(m_dir + L"plain_loader.exe") + L" " + QuoteArg(m_dir + file) + extra);
        ::SetCurrentDirectoryW(previous);
        EXPECT_TRUE(run.started);
        EXPECT_EQ(0u, run.exitCode) << run.out << run.err;
        std::vector<std::string> lines;
        std::string line;
        for (char c : WithoutCarriageReturns(run.out)) {
            if (c == '\n') {
                lines.push_back(line);
                line.clear();
            } else {
                line += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            }
        }
        return lines;
    }

    static std::string Line(const std::string& dll, const std::wstring& path, const char* kind)
    {
        std::string line = dll + " " + Narrow(path) + " " + kind;
        for (char& c : line)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return line;
    }

    std::wstring m_dir;
    nvwriter::Db20Database m_db;
    bool m_wroteDatabase = false;
};

} // namespace

// The control: a DLL that imports crypt32 and netapi32, loaded with a plain
// LoadLibrary, takes the planted copies. This is what the library did while it
// imported them.
TEST_F(PlantedSystemLibraryTest, ADllThatImportsCrypt32AndNetapi32TakesThePlantedCopies)
{
    const std::vector<std::string> lines = PlainLoad(L"static_import_probe.dll", L"");
    EXPECT_EQ((std::vector<std::string>{Line("crypt32.dll", m_dir + L"crypt32.dll", "planted"),
                                        Line("netapi32.dll", m_dir + L"netapi32.dll", "planted")}),
              lines);
}

// The library loaded with a plain LoadLibrary beside planted copies takes neither:
// it imports neither library.
TEST_F(PlantedSystemLibraryTest, LibraryLoadedPlainlyBesidePlantedCopiesLoadsNeither)
{
    const std::vector<std::string> loaded = PlainLoad(L"NVDBConv.dll", L"");
    EXPECT_EQ((std::vector<std::string>{"crypt32.dll - none", "netapi32.dll - none"}), loaded);
}

// A 2.0 -> 3.0 Convert in that host asks netapi32 for the server's type and finds
// it in the system directory, not the planted copy. (crypt32 is not planted for the
// conversion: Wine's crypto provider imports crypt32 itself and, in a host that
// loads plainly, takes a planted copy through its own import; the library has no
// say in that.)
TEST_F(PlantedSystemLibraryTest, ConvertInAPlainHostFindsNetapi32InTheSystemDirectory)
{
    ASSERT_TRUE(::DeleteFileW((m_dir + L"crypt32.dll").c_str()));
    nvwriter::Db20Options options;
    options.seed = 2718;
    options.userCount = 2;
    options.domainCount = 1;
    m_db = nvwriter::MakeDb20Database(options);
    ASSERT_EQ(S_OK, nvwriter::WriteDb20Database(m_db));
    m_wroteDatabase = true;
    nvstore::inspect::SetUserKeyBits(512);

    const std::vector<std::string> converted = PlainLoad(L"NVDBConv.dll", L" convert");
    EXPECT_EQ((std::vector<std::string>{"convert 0x00000000",
                                        Line("crypt32.dll", SystemDirectory() + L"crypt32.dll", "system"),
                                        Line("netapi32.dll", SystemDirectory() + L"netapi32.dll", "system")}),
              converted);
    EXPECT_EQ(m_db.users.size(), nvstore::inspect::ListUsers().size());
}
