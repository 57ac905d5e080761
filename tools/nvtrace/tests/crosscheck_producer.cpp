// Writes a trace through the real library, for the cross-check of the decoders:
// points the trace settings at the file named on the command line and loads
// NVDBConv.dll from this program's folder twice, freeing it each time (which
// completes the file): once without a database (a failing result is traced), then,
// appending, with a database version that has no converter (progress lines are
// traced). Removes the settings and the database key again; like the tests, it
// owns HKLM\SOFTWARE\Norvane while it runs.
#include <windows.h>
#include <cstdio>
#include <string>

#include "common/procaddress.h"
#include "exit_file/exit_file.h"

namespace {

constexpr const wchar_t kTracingKey[] = L"SOFTWARE\\Norvane\\Tracing";
constexpr const wchar_t kDatabaseKey[] = L"SOFTWARE\\Norvane\\DB";

bool SetDword(HKEY key, const wchar_t* name, DWORD value)
{
    return ::RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof(value)) ==
           ERROR_SUCCESS;
}

std::wstring LibraryPath()
{
    wchar_t path[MAX_PATH];
    DWORD n = ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring dll(path, n);
    return dll.substr(0, dll.find_last_of(L'\\') + 1) + L"NVDBConv.dll";
}

bool LoadCallAndFree()
{
    HMODULE module = ::LoadLibraryW(LibraryPath().c_str());
    if (!module) {
        std::fprintf(stderr, "cannot load NVDBConv.dll (error %lu)\n", ::GetLastError());
        return false;
    }
    using GetDBVersionFn = HRESULT(__stdcall*)(DWORD*, DWORD*);
    using ActionFn = HRESULT(__stdcall*)();
    DWORD current = 0, target = 0;
    if (auto getVersion = nv::GetProcAs<GetDBVersionFn>(module, "GetDBVersion"))
        std::printf("GetDBVersion: 0x%08lX current 0x%lX\n", static_cast<unsigned long>(getVersion(&current, &target)),
                    static_cast<unsigned long>(current));
    if (auto convert = nv::GetProcAs<ActionFn>(module, "Convert"))
        std::printf("Convert: 0x%08lX\n", static_cast<unsigned long>(convert()));
    ::FreeLibrary(module);
    return true;
}

void DeleteDatabase()
{
    for (REGSAM view : {KEY_WOW64_64KEY, KEY_WOW64_32KEY}) {
        HKEY key = nullptr;
        if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kDatabaseKey, 0, KEY_ALL_ACCESS | view, &key) == ERROR_SUCCESS) {
            ::RegDeleteTreeW(key, nullptr);
            ::RegCloseKey(key);
            ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kDatabaseKey, view, 0);
        }
    }
}

} // namespace

static int RunProgram(int argc, wchar_t** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: crosscheck_producer <trace file>\n");
        return 1;
    }
    DeleteDatabase();
    HKEY key = nullptr;
    if (::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kTracingKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr) !=
        ERROR_SUCCESS) {
        std::fprintf(stderr, "cannot create the Tracing key\n");
        return 1;
    }
    const std::wstring file = argv[1];
    bool ok = SetDword(key, L"DoTrace", 1) && SetDword(key, L"TraceToFile", 1) && SetDword(key, L"NewFileAlways", 1) &&
              SetDword(key, L"Verbosity", 10) &&
              ::RegSetValueExW(key, L"FileName", 0, REG_SZ, reinterpret_cast<const BYTE*>(file.c_str()),
                               static_cast<DWORD>((file.size() + 1) * sizeof(wchar_t))) == ERROR_SUCCESS;
    ok = ok && LoadCallAndFree();

    // Second run appends, with a database of a version no converter handles.
    HKEY db = nullptr;
    ok = ok && SetDword(key, L"NewFileAlways", 0) &&
         ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kDatabaseKey, 0, nullptr, 0, KEY_ALL_ACCESS | KEY_WOW64_32KEY, nullptr,
                           &db, nullptr) == ERROR_SUCCESS;
    if (db) {
        const wchar_t version[] = L"3.0";
        ok = ok && ::RegSetValueExW(db, L"Version", 0, REG_SZ, reinterpret_cast<const BYTE*>(version),
                                    sizeof(version)) == ERROR_SUCCESS;
        ::RegCloseKey(db);
    }
    ok = ok && LoadCallAndFree();
    ::RegCloseKey(key);

    DeleteDatabase();
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kTracingKey);
    ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, kTracingKey);
    return ok ? 0 : 1;
}

// The result also written where scripts/wine-run asks for it (tests/support/exit_file).
int wmain(int argc, wchar_t** argv) { return nvtest::MainWithExitFile(RunProgram, argc, argv); }
