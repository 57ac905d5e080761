// What the host reads from (and, for the trace settings, writes to) the registry:
// where the database lives and what it holds, the backup the last conversion left,
// the storage server's registration and the trace settings in force. Readers never
// change anything and answer "absent" for whatever cannot be read.
#pragma once
#include <windows.h>
#include <nvdbconv/nvdbconv.h>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "frame/paths.h"

namespace nvdbconv {

// Paths relative to HKEY_LOCAL_MACHINE, and their views: the SDK header's.
inline constexpr const wchar_t kDatabasePath[] = NVDBCONV_KEY_DATABASE;
inline constexpr const wchar_t kMainDbPath[] = NVDBCONV_KEY_MAINDB;
inline constexpr const wchar_t kUsersPath[] = NVDBCONV_KEY_USERS;
inline constexpr const wchar_t* kBackup10Path = nvframe::kBackup10KeyPath;
inline constexpr const wchar_t* kBackup20Path = nvframe::kBackup20KeyPath;
inline constexpr const wchar_t kTracingPath[] = NVDBCONV_KEY_TRACING;
inline constexpr const wchar_t kBackupValueName[] = NVDBCONV_VALUE_BACKUP;
inline constexpr const wchar_t kVersionValueName[] = NVDBCONV_VALUE_VERSION;

// The converters open the database in the 32-bit view; a 1.0 database keeps its
// backup there too, a 2.0 database keeps it in the library's own (64-bit) view.
inline constexpr REGSAM kDatabaseView = NVDBCONV_DATABASE_VIEW;
inline constexpr REGSAM kBackup10View = NVDBCONV_BACKUP_10_VIEW;
inline constexpr REGSAM kBackup20View = NVDBCONV_BACKUP_20_VIEW;

const char* ViewName(REGSAM view);
bool KeyExists(const wchar_t* path, REGSAM view);

// Subkeys under Data\Users (32-bit view); false when the key is missing.
bool CountUserKeys(DWORD* count);

struct DatabaseState {
    bool in32 = false;                // HKLM\SOFTWARE\Norvane\DB in the 32-bit view
    bool in64 = false;                // ... and in the 64-bit view
    std::optional<std::wstring> version; // "Version" where the library looks first (64, then 32)
    REGSAM versionView = 0;
    bool mainDb = false;              // DB\MainDB (32-bit view)
    bool usersKey = false;            // DB\Data\Users (32-bit view)
    DWORD userKeys = 0;
    std::optional<std::wstring> backupValue; // "Backup" in the database key (32-bit view)
    // "Backup" holds text that names no backup key of the library: the library
    // refuses to roll back or clean up from it, and so do rollback and cleanup here.
    bool backupForeign = false;
    bool backup10 = false;            // DB-v1.0 in its view
    bool backup20 = false;            // DB-v2.0 in its view
    // No Data and no MainDB under the database key (nvframe::IsDatabaseLayout30):
    // converted, whatever "Version" reads.
    bool layout30 = false;
};
DatabaseState ReadDatabaseState();

// A value of zero bytes under the database key. The backup refuses to copy one
// (CopyKey fails with HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY)), so Convert
// fails before it converts anything.
struct EmptyValue {
    std::wstring key;  // full path under HKLM, e.g. SOFTWARE\Norvane\DB\MainDB
    std::wstring name; // empty for the key's default value
};
// The first one the backup would meet: the database key in the view the converters
// read it from, values before subkeys, in registry order, as the backup copies.
std::optional<EmptyValue> FindEmptyValue();

// The 1.0 -> 2.0 step rewrites one name index per store (each domain under Cache,
// and the machine's own under MainDB) and fails on the first it cannot open: that
// one's path under HKLM, or none when every one opens.
std::optional<std::wstring> FindMissingNameIndex();

// The view of the backup key that the converter for a database version works with.
REGSAM BackupViewFor(DWORD databaseVersion);

struct StoreServerState {
    bool registered = false;
    std::wstring path; // InprocServer32 of the store's class (64-bit view)
};
StoreServerState ReadStoreServer();

// The suite's component list (HKLM\SOFTWARE\Norvane\Core\SysComponents, native
// view), which DllRegisterServer adds to: value name and text, in registry order.
std::vector<std::pair<std::wstring, std::wstring>> ReadComponents();

// The trace settings as the library reads them: native view first, then the
// 32-bit view; DWORDs of another type and strings that are not terminated count
// as absent.
struct TraceSettings {
    bool keyFound = false;
    REGSAM keyView = 0;
    std::optional<DWORD> doTrace, traceToFile, newFileAlways, doProfiling, verbosity;
    std::optional<std::wstring> tracePath, fileName;

    bool on() const { return doTrace.value_or(0) != 0; }
    bool toFile() const { return !traceToFile || *traceToFile == 1; }
    bool append() const { return newFileAlways && *newFileAlways == 0; }
    bool profiling() const { return doProfiling.value_or(0) != 0; }
};
TraceSettings ReadTraceSettings();

// The file the library writes when loaded into this process from dllPath.
std::wstring TraceFileFor(const TraceSettings& settings, const std::wstring& dllPath);

struct TraceChange {
    bool on = false;
    std::optional<DWORD> verbosity;
    std::optional<std::wstring> fileName;
    std::optional<DWORD> newFileAlways;
};
// Writes the settings into HKLM\SOFTWARE\Norvane\Tracing (native view): DoTrace,
// and with "on" TraceToFile = 1 and whatever the change names. S_OK or the failing
// registry call's code.
HRESULT WriteTraceSettings(const TraceChange& change);

// One value of the Tracing key as it stands, whatever its type, so that a value
// changed for a while can be put back exactly (a REG_SZ "0" the library ignores
// stays a REG_SZ "0").
struct RawTraceValue {
    bool present = false;
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
};
RawTraceValue ReadRawTraceValue(REGSAM view, const wchar_t* name);
// Sets the value in the Tracing key of that view, which must exist (no key is made:
// a new key in the native view would hide the settings of the 32-bit one).
HRESULT SetTraceDword(REGSAM view, const wchar_t* name, DWORD value);
// Puts the value back as it was read: rewritten, or deleted when it was absent.
HRESULT RestoreTraceValue(REGSAM view, const wchar_t* name, const RawTraceValue& value);

} // namespace nvdbconv
