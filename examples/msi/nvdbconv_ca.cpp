// nvdbconv_ca.dll: the custom actions that let a Windows Installer package upgrade
// the suite's database with NVDBConv.dll. The package installs the library first and
// passes its full path to each action as CustomActionData; the actions load that
// file, and only that file, and call its exports:
//
//   NvConvertDatabase  deferred, no impersonation: every step to the newest format,
//                      one library load per step (the library picks its converter
//                      when it is loaded): GetDBVersion, then Convert, until no step
//                      is left or one fails. A database already laid out as 3.0 (no
//                      Data and no MainDB, whatever "Version" reads) is converted:
//                      nothing is called. A failing Convert fails the install
//                      (1603). After a 2.0 -> 3.0 step it names every user who kept
//                      the old data, with what the strict policy's held-users record
//                      says of them; the install still succeeds (see README.md).
//   NvRollbackDatabase rollback: Rollback, but only when the backup key that the
//                      database's "Backup" value names exists. Rollback deletes the
//                      database key before it copies the backup back, so without the
//                      backup it would lose the database.
//   NvCommitDatabase   commit: Cleanup (removes a backup that is left over).
//
// Every step and every result code goes to the installer's log through
// MsiProcessMessage, as lines beginning with "NVDBConv: ". The actions never show a
// dialog and never read anything but the registry and the library.
#include <windows.h>
#include <msi.h>
#include <msiquery.h>
#include <objbase.h>
#include <nvdbconv/nvdbconv.h>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>

namespace {

// The registry names and views are the SDK header's (nvdbconv.h).
constexpr const wchar_t kDatabasePath[] = NVDBCONV_KEY_DATABASE;
constexpr const wchar_t kUsersPath[] = NVDBCONV_KEY_USERS;
constexpr const wchar_t kBackupValueName[] = NVDBCONV_VALUE_BACKUP;
// The strict policy's record of the users it kept in the old database, one key per
// user ({GUID}, as under Data\Users) in the database's view.
constexpr const wchar_t kHeldUsersPath[] = NVDBCONV_KEY_HELD_USERS;
// 1.0 -> 2.0 -> 3.0 takes two steps; more means a step made no progress.
constexpr int kMaxSteps = 4;
constexpr DWORD kNewestFormat = NVDBCONV_VERSION_3_0;
// The converters keep the database in the 32-bit view. A 1.0 database is backed up
// there too; a 2.0 database is backed up in the library's own (64-bit) view.
constexpr REGSAM kDatabaseView = NVDBCONV_DATABASE_VIEW;
constexpr REGSAM kBackup10View = NVDBCONV_BACKUP_10_VIEW;
constexpr REGSAM kBackup20View = NVDBCONV_BACKUP_20_VIEW;

using DbVersionFn = PFN_NVDBCONV_GETDBVERSION;
using ActionFn = PFN_NVDBCONV_CONVERT; // Convert, Rollback and Cleanup share it

// One line in the installer's log.
void Log(MSIHANDLE install, const wchar_t* format, ...)
{
    wchar_t text[1024];
    va_list args;
    va_start(args, format);
    std::vswprintf(text, sizeof(text) / sizeof(text[0]), format, args);
    va_end(args);
    const std::wstring line = std::wstring(L"NVDBConv: ") + text;
    PMSIHANDLE record = ::MsiCreateRecord(0);
    ::MsiRecordSetStringW(record, 0, line.c_str());
    ::MsiProcessMessage(install, INSTALLMESSAGE_INFO, record);
}

// What a result code means here, beside its hex form.
const wchar_t* Meaning(const char* call, HRESULT hr)
{
    if (hr == S_OK)
        return L"S_OK";
    if (hr == S_FALSE) {
        if (std::strcmp(call, "Cleanup") == 0)
            return L"S_FALSE, no backup to remove";
        if (std::strcmp(call, "Rollback") == 0)
            return L"S_FALSE, no backup to restore";
        return L"S_FALSE";
    }
    if (hr == E_FAIL)
        return L"E_FAIL";
    return SUCCEEDED(hr) ? L"success" : L"failure";
}

std::wstring CustomActionData(MSIHANDLE install)
{
    DWORD size = 0;
    wchar_t empty[1] = L"";
    if (::MsiGetPropertyW(install, L"CustomActionData", empty, &size) != ERROR_MORE_DATA)
        return std::wstring();
    std::wstring value(size + 1, L'\0');
    size = static_cast<DWORD>(value.size());
    if (::MsiGetPropertyW(install, L"CustomActionData", &value[0], &size) != ERROR_SUCCESS)
        return std::wstring();
    value.resize(size);
    return value;
}

// The library, loaded from the installed path for the length of one action, on a
// thread that is a COM apartment (a 2.0 conversion creates the storage server's
// objects on it).
class CLibrary {
public:
    CLibrary(MSIHANDLE install, const std::wstring& path) : m_install(install)
    {
        m_com = ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        if (path.empty()) {
            Log(install, L"no library path in CustomActionData");
            return;
        }
        // The full path, and the system folder for its dependencies: nothing is
        // picked up from the current or the installer's temporary folder. There is
        // no second try with the ordinary search: where the system refuses this
        // one, the action fails rather than search the folders a DLL could be
        // planted in.
        m_module = ::LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
        if (!m_module)
            Log(install, L"cannot load %ls: error %lu", path.c_str(), ::GetLastError());
        else
            Log(install, L"loaded %ls", path.c_str());
    }
    ~CLibrary()
    {
        if (m_module)
            ::FreeLibrary(m_module);
        if (SUCCEEDED(m_com))
            ::CoUninitialize();
    }
    CLibrary(const CLibrary&) = delete;
    CLibrary& operator=(const CLibrary&) = delete;

    bool loaded() const { return m_module != nullptr; }

    HRESULT GetDBVersion(DWORD* current, DWORD* target) const
    {
        auto fn = reinterpret_cast<DbVersionFn>(reinterpret_cast<void*>(::GetProcAddress(m_module, NVDBCONV_EXPORT_GETDBVERSION)));
        const HRESULT hr = fn ? fn(current, target) : HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
        Log(m_install, L"GetDBVersion = 0x%08lX (%ls), current 0x%08lX, target 0x%08lX",
            static_cast<unsigned long>(hr), Meaning("GetDBVersion", hr), static_cast<unsigned long>(*current),
            static_cast<unsigned long>(*target));
        return hr;
    }

    HRESULT Call(const char* name) const
    {
        auto fn = reinterpret_cast<ActionFn>(reinterpret_cast<void*>(::GetProcAddress(m_module, name)));
        const HRESULT hr = fn ? fn() : HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
        Log(m_install, L"%hs = 0x%08lX (%ls)", name, static_cast<unsigned long>(hr), Meaning(name, hr));
        return hr;
    }

private:
    MSIHANDLE m_install;
    HMODULE m_module = nullptr;
    HRESULT m_com = E_FAIL;
};

bool ReadBackupValue(std::wstring* path)
{
    HKEY key = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kDatabasePath, 0, KEY_READ | kDatabaseView, &key) != ERROR_SUCCESS)
        return false;
    wchar_t buffer[261] = {};
    DWORD size = sizeof(buffer) - sizeof(wchar_t);
    DWORD type = 0;
    const LONG rc = ::RegQueryValueExW(key, kBackupValueName, nullptr, &type, reinterpret_cast<BYTE*>(buffer), &size);
    ::RegCloseKey(key);
    if (rc != ERROR_SUCCESS || (type != REG_SZ && type != REG_EXPAND_SZ))
        return false;
    *path = buffer;
    return !path->empty();
}

bool KeyExists(const wchar_t* path, REGSAM view)
{
    HKEY key = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ | view, &key) != ERROR_SUCCESS)
        return false;
    ::RegCloseKey(key);
    return true;
}

// User keys left under Data\Users; false when there is no such key.
bool CountUserKeys(DWORD* count)
{
    HKEY key = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kUsersPath, 0, KEY_READ | kDatabaseView, &key) != ERROR_SUCCESS)
        return false;
    *count = 0;
    const LONG rc = ::RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, count, nullptr, nullptr, nullptr, nullptr,
                                       nullptr, nullptr, nullptr);
    ::RegCloseKey(key);
    return rc == ERROR_SUCCESS;
}

// The 3.0 layout: the database key is there and holds neither Data nor MainDB. A
// key that exists but cannot be opened, or any other failure, answers false.
bool IsLayout30() { return NVDBConvIsDatabaseLayout30() != FALSE; }

// "2.0" of 0x00020000.
std::wstring VersionText(DWORD version)
{
    return std::to_wstring(version >> 16) + L"." + std::to_wstring(version & 0xFFFF);
}

const wchar_t* Users(DWORD n) { return n == 1 ? L"user" : L"users"; }

std::wstring ReadString(HKEY key, const wchar_t* name)
{
    wchar_t buffer[1024] = {};
    DWORD size = sizeof(buffer) - sizeof(wchar_t);
    DWORD type = 0;
    if (::RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(buffer), &size) != ERROR_SUCCESS ||
        type != REG_SZ)
        return std::wstring();
    return buffer;
}

// Names every user key left under Data\Users, with the held-users record's SID,
// result and reason when the strict policy kept it; returns how many there are.
DWORD LogUsersLeft(MSIHANDLE install)
{
    HKEY users = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kUsersPath, 0, KEY_READ | kDatabaseView, &users) != ERROR_SUCCESS)
        return 0;
    DWORD count = 0;
    for (DWORD i = 0;; ++i) {
        wchar_t name[256];
        DWORD cch = 256;
        if (::RegEnumKeyExW(users, i, name, &cch, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        ++count;
        HKEY held = nullptr;
        const std::wstring path = std::wstring(kHeldUsersPath) + L"\\" + name;
        if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ | kDatabaseView, &held) != ERROR_SUCCESS) {
            Log(install, L"kept old data: %ls (no held-users record; its status is in the library's trace)", name);
            continue;
        }
        DWORD result = 0, size = sizeof(result), type = 0;
        if (::RegQueryValueExW(held, NVDBCONV_VALUE_HELD_RESULT, nullptr, &type, reinterpret_cast<BYTE*>(&result), &size) !=
                ERROR_SUCCESS ||
            type != REG_DWORD)
            result = 0;
        Log(install, L"held user: %ls %ls 0x%08lX: %ls", name, ReadString(held, NVDBCONV_VALUE_HELD_SID).c_str(),
            static_cast<unsigned long>(result), ReadString(held, NVDBCONV_VALUE_HELD_REASON).c_str());
        ::RegCloseKey(held);
    }
    ::RegCloseKey(users);
    return count;
}

enum class StepResult { Converted, LastStep, NothingToDo, Failed };

// One step with a library loaded for it alone: GetDBVersion, then Convert. Appends
// the format it reached to the chain.
StepResult ConvertOneStep(MSIHANDLE install, const std::wstring& path, int step, std::wstring* chain)
{
    Log(install, L"step %d", step);
    const CLibrary library(install, path);
    if (!library.loaded())
        return StepResult::Failed;
    DWORD current = 0, target = 0;
    if (FAILED(library.GetDBVersion(&current, &target)))
        return StepResult::Failed;
    if (target == 0)
        return StepResult::NothingToDo;
    const std::wstring label = VersionText(current) + L" -> " + VersionText(target);
    DWORD before = 0;
    const bool movesUsers = (current >> 16) == 2 && CountUserKeys(&before);
    if (FAILED(library.Call("Convert"))) {
        Log(install, L"step %d: %ls failed; Convert rolled this step back", step, label.c_str());
        return StepResult::Failed;
    }
    if (chain->empty())
        *chain = VersionText(current);
    *chain += L" -> " + VersionText(target);
    if (!movesUsers) {
        Log(install, L"step %d: converted %ls", step, label.c_str());
    } else {
        const DWORD left = LogUsersLeft(install);
        Log(install, L"step %d: converted %ls, %lu of %lu %ls in the store", step, label.c_str(),
            static_cast<unsigned long>(before - (left < before ? left : before)), static_cast<unsigned long>(before),
            Users(before));
        // The install still succeeds: this step cannot be undone (Convert removed
        // its backup), and a held user keeps all its old data for the next install.
        if (left > 0)
            Log(install, L"%lu of %lu %ls kept their old data; the next install tries them again",
                static_cast<unsigned long>(left), static_cast<unsigned long>(before), Users(before));
    }
    return target >= kNewestFormat ? StepResult::LastStep : StepResult::Converted;
}

} // namespace

extern "C" __declspec(dllexport) UINT WINAPI NvConvertDatabase(MSIHANDLE install)
{
    Log(install, L"converting the database");
    const std::wstring path = CustomActionData(install);
    std::wstring chain;
    for (int step = 1; step <= kMaxSteps; ++step) {
        // A repair or a second install finds the conversion done: "Version" still
        // reads 2.x after the last step, and Convert would back the database up and
        // fail on the missing Data\Users.
        if (IsLayout30()) {
            if (chain.empty()) {
                Log(install, L"outcome: already converted: format 3.0 (no Data and no MainDB under "
                             L"HKLM\\%ls); Convert not called",
                    kDatabasePath);
            } else {
                Log(install, L"outcome: converted %ls", chain.c_str());
            }
            return ERROR_SUCCESS;
        }
        switch (ConvertOneStep(install, path, step, &chain)) {
        case StepResult::Failed:
            Log(install, L"outcome: %ls; the install fails",
                chain.empty() ? L"Convert failed" : (L"converted " + chain + L", then a step failed").c_str());
            return ERROR_INSTALL_FAILURE;
        case StepResult::NothingToDo:
            Log(install, chain.empty() ? L"outcome: nothing to convert" : L"outcome: converted %ls", chain.c_str());
            return ERROR_SUCCESS;
        case StepResult::LastStep:
            Log(install, L"outcome: converted %ls", chain.c_str());
            return ERROR_SUCCESS;
        case StepResult::Converted:
            break;
        }
    }
    Log(install, L"outcome: converted %ls, but the database is still not at the newest format; the install fails",
        chain.c_str());
    return ERROR_INSTALL_FAILURE;
}

extern "C" __declspec(dllexport) UINT WINAPI NvRollbackDatabase(MSIHANDLE install)
{
    Log(install, L"rolling the database back");
    std::wstring backup;
    if (!ReadBackupValue(&backup)) {
        // Convert removes its backup when it succeeds; with no "Backup" there is
        // nothing to roll back from.
        Log(install, L"no \"Backup\" value: nothing to roll back");
        return ERROR_SUCCESS;
    }
    const CLibrary library(install, CustomActionData(install));
    if (!library.loaded())
        return ERROR_SUCCESS; // a rollback action's result is not looked at
    DWORD current = 0, target = 0;
    library.GetDBVersion(&current, &target);
    const REGSAM view = (current >> 16) == 1 ? kBackup10View : kBackup20View;
    if (!KeyExists(backup.c_str(), view)) {
        Log(install, L"\"Backup\" names HKLM\\%ls, which is missing (%ls view): not rolling back, "
                     L"since Rollback would delete the database without restoring it",
            backup.c_str(), view == KEY_WOW64_32KEY ? L"32-bit" : L"64-bit");
        return ERROR_SUCCESS;
    }
    library.Call("Rollback");
    return ERROR_SUCCESS;
}

extern "C" __declspec(dllexport) UINT WINAPI NvCommitDatabase(MSIHANDLE install)
{
    Log(install, L"committing the database");
    const CLibrary library(install, CustomActionData(install));
    if (library.loaded())
        library.Call("Cleanup");
    return ERROR_SUCCESS;
}
