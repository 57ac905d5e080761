// Writes a trace through the real library, for the cross-check of the decoders:
// points the trace settings at the file named on the command line, loads
// NVDBConv.dll from this program's folder, calls its exports, frees it (which
// completes the file) and removes the settings again.
#include <windows.h>
#include <cstdio>
#include <string>

#include "common/procaddress.h"

namespace {

constexpr const wchar_t kTracingKey[] = L"SOFTWARE\\Norvane\\Tracing";
constexpr const wchar_t kDatabaseKey[] = L"SOFTWARE\\Norvane\\DB";

bool SetDword(HKEY key, const wchar_t* name, DWORD value)
{
    return ::RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof(value)) ==
           ERROR_SUCCESS;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: crosscheck_producer <trace file>\n");
        return 1;
    }
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
    ::RegCloseKey(key);

    // A database whose version has no converter: the load still traces the version
    // it found (progress lines) and the factory's choice, and Convert fails (a result).
    HKEY db = nullptr;
    if (ok && ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kDatabaseKey, 0, nullptr, 0, KEY_ALL_ACCESS | KEY_WOW64_32KEY,
                                nullptr, &db, nullptr) == ERROR_SUCCESS) {
        const wchar_t version[] = L"3.0";
        ok = ::RegSetValueExW(db, L"Version", 0, REG_SZ, reinterpret_cast<const BYTE*>(version), sizeof(version)) ==
             ERROR_SUCCESS;
        ::RegCloseKey(db);
    } else {
        ok = false;
    }

    if (ok) {
        wchar_t path[MAX_PATH];
        DWORD n = ::GetModuleFileNameW(nullptr, path, MAX_PATH);
        std::wstring dll(path, n);
        dll = dll.substr(0, dll.find_last_of(L'\\') + 1) + L"NVDBConv.dll";
        HMODULE module = ::LoadLibraryW(dll.c_str());
        if (!module) {
            std::fprintf(stderr, "cannot load NVDBConv.dll (error %lu)\n", ::GetLastError());
            ok = false;
        } else {
            using GetDBVersionFn = HRESULT(__stdcall*)(DWORD*, DWORD*);
            using ActionFn = HRESULT(__stdcall*)();
            DWORD current = 0, target = 0;
            if (auto getVersion = nv::GetProcAs<GetDBVersionFn>(module, "GetDBVersion"))
                std::printf("GetDBVersion: 0x%08lX\n", static_cast<unsigned long>(getVersion(&current, &target)));
            if (auto convert = nv::GetProcAs<ActionFn>(module, "Convert"))
                std::printf("Convert: 0x%08lX\n", static_cast<unsigned long>(convert()));
            // No component list exists, so unregistering traces the open's failure.
            if (auto unregister = nv::GetProcAs<ActionFn>(module, "DllUnregisterServer"))
                std::printf("DllUnregisterServer: 0x%08lX\n", static_cast<unsigned long>(unregister()));
            ::FreeLibrary(module);
        }
    }
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kTracingKey);
    ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, kTracingKey);
    ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kDatabaseKey, KEY_WOW64_32KEY, 0);
    return ok ? 0 : 1;
}
