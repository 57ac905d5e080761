#include "dbstate.h"

#include "common/handles.h"
#include "common/hresult.h"
#include "com/componentregistrar.h"
#include "common/regkey.h"
#include "common/storecontract.h"
#include "frame/dblayout.h"
#include "converter2/nameindex.h"

#include <comdef.h>

namespace nvdbconv {

namespace {

bool Open(const wchar_t* path, REGSAM view, nv::CNVRegKey& key)
{
    return key.Open(HKEY_LOCAL_MACHINE, path, KEY_READ | view) == ERROR_SUCCESS;
}

std::optional<std::wstring> ReadString(HKEY key, const wchar_t* name)
{
    std::wstring text;
    if (nv::QueryStringValue(key, name, text, 260) != ERROR_SUCCESS)
        return std::nullopt;
    return text;
}

std::optional<DWORD> ReadDword(HKEY key, const wchar_t* name)
{
    DWORD value = 0;
    if (nv::QueryDwordValue(key, name, &value) != ERROR_SUCCESS)
        return std::nullopt;
    return value;
}

std::wstring GuidText(const GUID& id)
{
    wchar_t text[64] = {};
    ::StringFromGUID2(id, text, 64);
    return text;
}

} // namespace

const char* ViewName(REGSAM view)
{
    return (view & KEY_WOW64_32KEY) ? "32-bit" : "64-bit";
}

bool KeyExists(const wchar_t* path, REGSAM view)
{
    nv::CNVRegKey key;
    return Open(path, view, key);
}

bool CountUserKeys(DWORD* count)
{
    nv::CNVRegKey users;
    if (!Open(kUsersPath, kDatabaseView, users))
        return false;
    DWORD subkeys = 0;
    if (::RegQueryInfoKeyW(users, nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, nullptr, nullptr, nullptr,
                           nullptr, nullptr) != ERROR_SUCCESS)
        return false;
    *count = subkeys;
    return true;
}

DatabaseState ReadDatabaseState()
{
    DatabaseState state;
    state.in32 = KeyExists(kDatabasePath, KEY_WOW64_32KEY);
    state.in64 = KeyExists(kDatabasePath, KEY_WOW64_64KEY);
    for (REGSAM view : {REGSAM(KEY_WOW64_64KEY), REGSAM(KEY_WOW64_32KEY)}) {
        nv::CNVRegKey db;
        if (!Open(kDatabasePath, view, db))
            continue;
        state.version = ReadString(db, kVersionValueName);
        state.versionView = view;
        break;
    }
    {
        nv::CNVRegKey db;
        if (Open(kDatabasePath, kDatabaseView, db))
            state.backupValue = ReadString(db, kBackupValueName);
    }
    state.backupForeign =
        state.backupValue && !state.backupValue->empty() && !nvframe::IsLibraryBackupPath(state.backupValue->c_str());
    state.mainDb = KeyExists(kMainDbPath, kDatabaseView);
    state.usersKey = CountUserKeys(&state.userKeys);
    state.backup10 = KeyExists(kBackup10Path, kBackup10View);
    state.backup20 = KeyExists(kBackup20Path, kBackup20View);
    state.layout30 = nvframe::IsDatabaseLayout30();
    return state;
}

namespace {

std::optional<EmptyValue> FindEmptyValueUnder(const std::wstring& path)
{
    nv::CNVRegKey key;
    if (!Open(path.c_str(), kDatabaseView, key))
        return std::nullopt;
    std::vector<wchar_t> name(16384);
    for (DWORD i = 0;; ++i) {
        DWORD cch = static_cast<DWORD>(name.size());
        DWORD cb = 0;
        const LONG r = ::RegEnumValueW(key, i, name.data(), &cch, nullptr, nullptr, nullptr, &cb);
        if (r == ERROR_NO_MORE_ITEMS)
            break;
        if (r != ERROR_SUCCESS && r != ERROR_MORE_DATA)
            break;
        if (cb == 0)
            return EmptyValue{path, std::wstring(name.data(), cch)};
    }
    for (DWORD i = 0;; ++i) {
        DWORD cch = static_cast<DWORD>(name.size());
        if (::RegEnumKeyExW(key, i, name.data(), &cch, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        if (auto found = FindEmptyValueUnder(path + L"\\" + std::wstring(name.data(), cch)))
            return found;
    }
    return std::nullopt;
}

} // namespace

std::optional<EmptyValue> FindEmptyValue() { return FindEmptyValueUnder(kDatabasePath); }

std::optional<std::wstring> FindMissingNameIndex()
{
    nv::CNVRegKey db;
    if (!Open(kDatabasePath, kDatabaseView, db))
        return std::nullopt;
    // The step's own listing, below the database key opened in the converters' view.
    nv::NameIndexMap indexes;
    nv::PolicyKeyList policies;
    try {
        nv::CollectNameIndexesAndPolicies(db, 0, nv::EnumRegistrySubkey, indexes, policies);
    } catch (const _com_error&) {
        return std::nullopt; // no listing to judge; the step would meet the same error
    }
    for (const auto& entry : indexes) {
        nv::CNVRegKey index;
        if (index.Open(db, entry.second.c_str(), KEY_READ) != ERROR_SUCCESS)
            return std::wstring(kDatabasePath) + L"\\" + entry.second;
    }
    return std::nullopt;
}

REGSAM BackupViewFor(DWORD databaseVersion)
{
    return (databaseVersion >> 16) == 1 ? kBackup10View : kBackup20View;
}

StoreServerState ReadStoreServer()
{
    StoreServerState state;
    const std::wstring path = L"SOFTWARE\\Classes\\CLSID\\" + GuidText(nvstore::kClsidUserStore) + L"\\InprocServer32";
    nv::CNVRegKey key;
    if (!Open(path.c_str(), KEY_WOW64_64KEY, key))
        return state;
    if (auto server = ReadString(key, nullptr)) {
        state.registered = true;
        state.path = *server;
    }
    return state;
}

std::vector<std::pair<std::wstring, std::wstring>> ReadComponents()
{
    std::vector<std::pair<std::wstring, std::wstring>> components;
    nv::CNVRegKey key;
    if (!Open(kSysComponentsKeyPath, 0, key))
        return components;
    for (DWORD i = 0;; ++i) {
        wchar_t name[16384];
        DWORD cch = 16384;
        if (::RegEnumValueW(key, i, name, &cch, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        components.emplace_back(std::wstring(name, cch), ReadString(key, name).value_or(L""));
    }
    return components;
}

TraceSettings ReadTraceSettings()
{
    TraceSettings s;
    nv::CNVRegKey key;
    if (Open(kTracingPath, 0, key))
        s.keyView = KEY_WOW64_64KEY;
    else if (Open(kTracingPath, KEY_WOW64_32KEY, key))
        s.keyView = KEY_WOW64_32KEY;
    else
        return s;
    s.keyFound = true;
    s.doTrace = ReadDword(key, NVDBCONV_VALUE_DO_TRACE);
    s.traceToFile = ReadDword(key, NVDBCONV_VALUE_TRACE_TO_FILE);
    s.newFileAlways = ReadDword(key, NVDBCONV_VALUE_NEW_FILE_ALWAYS);
    s.doProfiling = ReadDword(key, NVDBCONV_VALUE_DO_PROFILING);
    s.verbosity = ReadDword(key, NVDBCONV_VALUE_VERBOSITY);
    s.tracePath = ReadString(key, NVDBCONV_VALUE_TRACE_PATH);
    s.fileName = ReadString(key, NVDBCONV_VALUE_FILE_NAME);
    return s;
}

std::wstring TraceFileFor(const TraceSettings& settings, const std::wstring& dllPath)
{
    if (settings.fileName)
        return *settings.fileName;
    wchar_t exe[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, exe, MAX_PATH);
    std::wstring exeName = exe;
    exeName = exeName.substr(exeName.find_last_of(L"\\/") + 1);
    exeName = exeName.substr(0, exeName.rfind(L'.'));

    const size_t slash = dllPath.find_last_of(L"\\/");
    const std::wstring dllDir = slash == std::wstring::npos ? std::wstring() : dllPath.substr(0, slash + 1);
    const std::wstring dllFile = dllPath.substr(slash == std::wstring::npos ? 0 : slash + 1);

    std::wstring dir = dllDir;
    if (settings.tracePath) {
        dir = *settings.tracePath;
        if (!dir.empty() && dir.back() != L'\\')
            dir += L'\\';
    }
    DWORD session = 0;
    ::ProcessIdToSessionId(::GetCurrentProcessId(), &session);
    return dir + exeName + L"." + dllFile + L".x64." + std::to_wstring(session) + L".trc3";
}

HRESULT WriteTraceSettings(const TraceChange& change)
{
    return nv::Guarded([&]() -> HRESULT {
        nv::CNVRegKey key;
        nv::ThrowIfWin32Failed(key.Create(HKEY_LOCAL_MACHINE, kTracingPath, KEY_READ | KEY_WRITE));
        auto setDword = [&](const wchar_t* name, DWORD value) {
            nv::ThrowIfWin32Failed(::RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                                                    sizeof(value)));
        };
        setDword(NVDBCONV_VALUE_DO_TRACE, change.on ? 1 : 0);
        if (change.on)
            setDword(NVDBCONV_VALUE_TRACE_TO_FILE, 1);
        if (change.verbosity)
            setDword(NVDBCONV_VALUE_VERBOSITY, *change.verbosity);
        if (change.newFileAlways)
            setDword(NVDBCONV_VALUE_NEW_FILE_ALWAYS, *change.newFileAlways);
        if (change.fileName)
            nv::ThrowIfWin32Failed(nv::SetStringValue(key, NVDBCONV_VALUE_FILE_NAME, change.fileName->c_str()));
        return S_OK;
    });
}

namespace {

LSTATUS OpenTracingForChange(REGSAM view, nv::CNVRegKey& key)
{
    return key.Open(HKEY_LOCAL_MACHINE, kTracingPath, KEY_QUERY_VALUE | KEY_SET_VALUE | (view & KEY_WOW64_32KEY));
}

} // namespace

RawTraceValue ReadRawTraceValue(REGSAM view, const wchar_t* name)
{
    RawTraceValue value;
    nv::CNVRegKey key;
    if (!Open(kTracingPath, view & KEY_WOW64_32KEY, key))
        return value;
    DWORD type = REG_NONE, size = 0;
    if (::RegQueryValueExW(key, name, nullptr, &type, nullptr, &size) != ERROR_SUCCESS)
        return value;
    value.data.resize(size);
    if (::RegQueryValueExW(key, name, nullptr, &type, value.data.data(), &size) != ERROR_SUCCESS)
        return RawTraceValue();
    value.data.resize(size);
    value.present = true;
    value.type = type;
    return value;
}

HRESULT SetTraceDword(REGSAM view, const wchar_t* name, DWORD value)
{
    nv::CNVRegKey key;
    LSTATUS r = OpenTracingForChange(view, key);
    if (r == ERROR_SUCCESS)
        r = ::RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof(value));
    return HRESULT_FROM_WIN32(r);
}

HRESULT RestoreTraceValue(REGSAM view, const wchar_t* name, const RawTraceValue& value)
{
    nv::CNVRegKey key;
    LSTATUS r = OpenTracingForChange(view, key);
    if (r != ERROR_SUCCESS)
        return HRESULT_FROM_WIN32(r);
    if (!value.present) {
        r = ::RegDeleteValueW(key, name);
        return HRESULT_FROM_WIN32(r == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : r);
    }
    r = ::RegSetValueExW(key, name, 0, value.type, value.data.data(), static_cast<DWORD>(value.data.size()));
    return HRESULT_FROM_WIN32(r);
}

} // namespace nvdbconv
