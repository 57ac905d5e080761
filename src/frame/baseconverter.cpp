#include "frame/baseconverter.h"

#include <aclapi.h>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "common/hresult.h"
#include "common/keysecurity.h"
#include "frame/conversionlock.h"
#include "frame/databaseversion.h"
#include "frame/dblayout.h"
#include "frame/paths.h"
#include "trace/trace.h"

const wchar_t* const CBaseConverter::s_wszBackupValue = NVDBCONV_VALUE_BACKUP;

namespace {

// The registry's longest key or value name, plus its terminator.
constexpr DWORD kNameBufferChars = 16384;
constexpr DWORD kNameCapacity = kNameBufferChars - 1;
// Longest backup path read back from "Backup", terminator included.
constexpr ULONG kBackupPathChars = 260;

constexpr REGSAM kDbAccess = KEY_READ | KEY_WRITE;          // 0x2001F
constexpr REGSAM kDeleteParentAccess = KEY_READ | DELETE;   // 0x30019

struct FreeDeleter {
    void operator()(BYTE* p) const noexcept { std::free(p); }
};

// Runs each() for every subkey of key, in the registry's order, as it enumerates
// them, with the subkey's name in the caller's buffer (a recursion keeps one buffer
// a level); an enumeration error other than the end is raised.
template <class Each>
void ForEachSubkey(HKEY key, wchar_t (&name)[kNameBufferChars], Each&& each)
{
    for (DWORD index = 0;; ++index) {
        name[0] = L'\0'; // the registry writes the name and its terminator
        DWORD cchName = kNameCapacity;
        LONG r = ::RegEnumKeyExW(key, index, name, &cchName, nullptr, nullptr, nullptr, nullptr);
        if (r == ERROR_NO_MORE_ITEMS)
            return;
        nv::ThrowIfWin32Failed(r);
        each();
    }
}

// A "Backup" value that names no backup key of this library: traced, and refused
// with E_ACCESSDENIED before anything is deleted or copied.
HRESULT RefuseForeignBackupPath(NVTraceNS::CTraceScope& scope, const std::wstring& path)
{
    NVTraceNS::Trace(scope, 0, "refusing \"Backup\" value %ls: not a backup key of this library", path.c_str());
    return E_ACCESSDENIED;
}

// The first value of zero bytes under the key, in the order CopyKey copies (the
// key's values, then each subkey in turn): the one the backup refused. Its key is
// given as `path` and the subkeys below it.
bool FindEmptyValue(HKEY key, const std::wstring& path, std::wstring& keyPath, std::wstring& valueName)
{
    std::vector<wchar_t> name(kNameBufferChars);
    for (DWORD index = 0;; ++index) {
        DWORD cchName = kNameCapacity;
        DWORD cbData = 0;
        const LONG r = ::RegEnumValueW(key, index, name.data(), &cchName, nullptr, nullptr, nullptr, &cbData);
        if (r != ERROR_SUCCESS && r != ERROR_MORE_DATA)
            break;
        if (cbData == 0) {
            keyPath = path;
            valueName.assign(name.data(), cchName);
            return true;
        }
    }
    for (DWORD index = 0;; ++index) {
        DWORD cchName = kNameCapacity;
        if (::RegEnumKeyExW(key, index, name.data(), &cchName, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        const std::wstring sub(name.data(), cchName);
        nv::unique_hkey child;
        if (::RegOpenKeyExW(key, sub.c_str(), 0, KEY_READ, child.put()) != ERROR_SUCCESS)
            continue;
        if (FindEmptyValue(child.get(), path + L"\\" + sub, keyPath, valueName))
            return true;
    }
    return false;
}

} // namespace

CBaseConverter::CBaseConverter(DWORD dwTargetVersion, const wchar_t* wszTargetVersion, REGSAM samDbView)
    : m_samDbView(samDbView), m_wstrTargetVersion(wszTargetVersion ? wszTargetVersion : L""),
      m_dwTargetVersion(dwTargetVersion)
{
    NVTraceNS::CTraceScope scope("CBaseConverter::CBaseConverter", 0);
    // The view is only part of the open; the owner's view word stays 0 (see header).
    LONG r = m_dbKey.Open(HKEY_LOCAL_MACHINE, nv::kDatabaseKeyPath, kDbAccess | samDbView);
    NVTraceNS::TraceResult(scope, "", nv::HResultFromWin32(r));
    m_wstrSeenState = ReadDatabaseState();
}

std::wstring CBaseConverter::ReadDatabaseState()
{
    std::wstring state = L"Version ";
    bool mainDb = false;
    if (m_dbKey.Get()) {
        wchar_t buffer[kBackupPathChars] = {};
        ULONG cch = kBackupPathChars;
        if (nv::QueryStringValue(m_dbKey.Get(), NVDBCONV_VALUE_VERSION, buffer, &cch) == ERROR_SUCCESS)
            state += buffer;
        else
            state += L"(none)";
        nv::unique_hkey key;
        mainDb = ::RegOpenKeyExW(m_dbKey.Get(), L"MainDB", 0, KEY_READ, key.put()) == ERROR_SUCCESS;
    } else {
        state += L"(no database)";
    }
    return state + (mainDb ? L", MainDB present" : L", no MainDB");
}

void CBaseConverter::RememberDatabaseState(const nvframe::CConversionLock& lock, NVTraceNS::CTraceScope& scope)
{
    if (!lock.Outermost() || FAILED(lock.Result()))
        return;
    // A Rollback of this operation deleted and restored the key the handle named.
    ReopenDatabaseKey(scope);
    // Out of memory after the operation: nothing is remembered, so the next
    // operation judges the database by what it finds (StillConverts).
    m_wstrSeenState = nv::BestEffort([&] { return ReadDatabaseState(); }, std::wstring());
}

HRESULT CBaseConverter::ReopenDatabaseKey(NVTraceNS::CTraceScope& scope)
{
    // Another process may have deleted and restored the database key since this
    // converter last used it: a handle opened before would name the deleted key.
    const LONG r = m_dbKey.Open(HKEY_LOCAL_MACHINE, nv::kDatabaseKeyPath, kDbAccess | m_samDbView);
    if (r == ERROR_SUCCESS)
        return S_OK;
    if (r == ERROR_FILE_NOT_FOUND) {
        // Gone (or never there, as the constructor's trace says): no handle to a
        // deleted key, and the operation goes on as it does without a database.
        m_dbKey.Close();
        return S_OK;
    }
    NVTraceNS::TraceResult(scope, "database key opened again", nv::HResultFromWin32(r));
    return nv::HResultFromWin32(r);
}

HRESULT CBaseConverter::AfterLock(const nvframe::CConversionLock& lock, NVTraceNS::CTraceScope& scope,
                                  bool forConvert)
{
    if (FAILED(lock.Result()) || !lock.Outermost())
        return lock.Result();
    const HRESULT reopened = ReopenDatabaseKey(scope);
    if (FAILED(reopened) || !forConvert)
        return reopened;
    const std::wstring now = ReadDatabaseState();
    if (now == m_wstrSeenState || StillConverts())
        return S_OK;
    NVTraceNS::Trace(scope, 0, "the database changed since this converter last saw it: %ls, now %ls",
                     m_wstrSeenState.c_str(), now.c_str());
    return nvframe::NV_E_CONVERSION_BUSY;
}

bool CBaseConverter::StillConverts()
{
    wchar_t buffer[kBackupPathChars] = {};
    ULONG cch = kBackupPathChars;
    if (!m_dbKey.Get() || nv::QueryStringValue(m_dbKey.Get(), NVDBCONV_VALUE_VERSION, buffer, &cch) != ERROR_SUCCESS)
        return false;
    const DWORD major = nvframe::ParseDatabaseVersion(buffer) >> 16;
    const DWORD targetMajor = m_dwTargetVersion >> 16;
    // The holder makes the 3.0 converter for a 2.x database, and for a 3.x one that
    // still has MainDB.
    const bool fromFormat = major + 1 == targetMajor || (targetMajor == 3 && major == 3);
    // A 2.x database whose users are all moved keeps "Version" 2.x: only its layout
    // tells that the step is done.
    return fromFormat && !(targetMajor == 3 && nvframe::IsDatabaseLayout30());
}

CBaseConverter::~CBaseConverter() = default;

HRESULT CBaseConverter::do_Backup() { return S_OK; }
HRESULT CBaseConverter::do_Convert() { return S_OK; }
HRESULT CBaseConverter::do_Rollback() { return S_OK; }
HRESULT CBaseConverter::do_Cleanup() { return S_OK; }

HRESULT CBaseConverter::Convert()
{
    NVTraceNS::CTraceScope scope("CBaseConverter::Convert", 0);
    nvframe::CConversionLock lock(scope, m_locks);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        nv::ThrowIfFailed(AfterLock(lock, scope, true));
        HRESULT step = Backup();
        if (SUCCEEDED(step))
            step = nv::Guarded([&]() -> HRESULT { return do_Convert(); });
        if (SUCCEEDED(step))
            step = Cleanup();
        if (FAILED(step)) {
            // The first failing code is the answer; the rollback's own result is not.
            Rollback();
            return step;
        }
        return S_OK;
    });
    // This operation's own changes are not another converter's.
    if (hr != nvframe::NV_E_CONVERSION_BUSY)
        RememberDatabaseState(lock, scope);
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CBaseConverter::Backup()
{
    NVTraceNS::CTraceScope scope("CBaseConverter::Backup", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        std::wstring path = std::wstring(nv::kVendorKeyPath) + L"\\" + GetBackupName();
        const HRESULT hrCopy =
            CopyKey(HKEY_LOCAL_MACHINE, path.c_str(), GetBackupView(), m_dbKey.Get(), L"", m_dbKey.m_samWOW64);
        // The copy's refusal of an empty value reads as a memory shortage: name the
        // value, so that the trace says which one.
        const std::wstring databasePath = std::wstring(L"HKLM\\") + nv::kDatabaseKeyPath;
        std::wstring emptyKey, emptyValue;
        if (hrCopy == nv::HResultFromWin32(ERROR_NOT_ENOUGH_MEMORY) && m_dbKey.Get() &&
            FindEmptyValue(m_dbKey.Get(), databasePath, emptyKey, emptyValue)) {
            NVTraceNS::Trace(scope, 0, "value \"%ls\" of %ls is empty: the backup cannot copy empty values",
                             emptyValue.c_str(), emptyKey.c_str());
        }
        nv::ThrowIfFailed(hrCopy);
        // Written after the copy, so the backup never holds this run's own marker.
        nv::SetStringValue(m_dbKey.Get(), s_wszBackupValue, path.c_str());
        NVTraceNS::Trace(scope, 0, "backup key created, name stored");
        nv::ThrowIfFailed(do_Backup());
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

std::wstring CBaseConverter::ReadBackupPath()
{
    std::wstring path;
    if (m_dbKey.Get()) {
        wchar_t buffer[kBackupPathChars] = {};
        ULONG cch = kBackupPathChars;
        if (nv::QueryStringValue(m_dbKey.Get(), s_wszBackupValue, buffer, &cch) == ERROR_SUCCESS)
            path.assign(buffer);
    }
    return path;
}

HRESULT CBaseConverter::Rollback()
{
    NVTraceNS::CTraceScope scope("CBaseConverter::Rollback", 0);
    nvframe::CConversionLock lock(scope, m_locks);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        const std::wstring path = BackupPathUnderLock(lock, scope);
        const HRESULT result = RestoreFromBackup(scope, path);
        const HRESULT hook = do_Rollback();
        return FAILED(hook) ? hook : result;
    });
    return FinishUnderLock(lock, scope, hr);
}

HRESULT CBaseConverter::Cleanup()
{
    NVTraceNS::CTraceScope scope("CBaseConverter::Cleanup", 0);
    nvframe::CConversionLock lock(scope, m_locks);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        const std::wstring path = BackupPathUnderLock(lock, scope);
        HRESULT result;
        if (path.empty()) {
            result = NoBackupPath(scope);
        } else {
            // A refused path fails the step as a failed delete would: the hook is skipped.
            if (!nvframe::IsLibraryBackupPath(path.c_str()))
                return RefuseForeignBackupPath(scope, path);
            NVTraceNS::Trace(scope, 0, "cleaning up backup key %ls", path.c_str());
            nv::ThrowIfFailed(DeleteKey(HKEY_LOCAL_MACHINE, path.c_str(), GetBackupView()));
            ::RegDeleteValueW(m_dbKey.Get(), s_wszBackupValue);
            result = S_OK;
        }
        const HRESULT hook = do_Cleanup();
        return FAILED(hook) ? hook : result;
    });
    return FinishUnderLock(lock, scope, hr);
}

std::wstring CBaseConverter::BackupPathUnderLock(const nvframe::CConversionLock& lock, NVTraceNS::CTraceScope& scope)
{
    nv::ThrowIfFailed(AfterLock(lock, scope, false));
    return ReadBackupPath();
}

HRESULT CBaseConverter::FinishUnderLock(const nvframe::CConversionLock& lock, NVTraceNS::CTraceScope& scope,
                                        HRESULT hr)
{
    // This operation's own changes are not another converter's.
    if (hr != nvframe::NV_E_CONVERSION_BUSY)
        RememberDatabaseState(lock, scope);
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CBaseConverter::NoBackupPath(NVTraceNS::CTraceScope& scope)
{
    NVTraceNS::Trace(scope, 0, "backup key name is empty, nothing to do");
    return S_FALSE;
}

HRESULT CBaseConverter::RestoreFromBackup(NVTraceNS::CTraceScope& scope, const std::wstring& path)
{
    if (path.empty())
        return NoBackupPath(scope);
    // A refused path is Rollback's result; the hook still runs.
    if (!nvframe::IsLibraryBackupPath(path.c_str()))
        return RefuseForeignBackupPath(scope, path);
    NVTraceNS::Trace(scope, 0, "restoring database from backup key %ls", path.c_str());
    // The database is deleted and restored in the view word of the key owner
    // (0, the library's own view), whatever view it was opened in. Only the
    // final delete decides the result; an earlier failure leaves S_OK.
    const REGSAM dbView = m_dbKey.m_samWOW64;
    if (SUCCEEDED(DeleteKey(HKEY_LOCAL_MACHINE, nv::kDatabaseKeyPath, dbView)) &&
        SUCCEEDED(CopyKey(HKEY_LOCAL_MACHINE, nv::kDatabaseKeyPath, dbView, HKEY_LOCAL_MACHINE, path.c_str(),
                          GetBackupView())))
        return DeleteKey(HKEY_LOCAL_MACHINE, path.c_str(), GetBackupView());
    return S_OK;
}

HRESULT CBaseConverter::CopyKey(HKEY hDstRoot, const wchar_t* wszDstPath, REGSAM samDstView, HKEY hSrcRoot,
                                const wchar_t* wszSrcPath, REGSAM samSrcView)
{
    NVTraceNS::CTraceScope scope("CBaseConverter::CopyKey", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        // Below the first level the views select nothing more (nv::ViewFlagsFrom).
        nv::unique_hkey src;
        nv::ThrowIfWin32Failed(
            ::RegOpenKeyExW(hSrcRoot, wszSrcPath, 0, KEY_READ | nv::ViewFlagsFrom(hSrcRoot, samSrcView), src.put()));
        // No class and no security: new keys inherit their parent's security.
        nv::unique_hkey dst;
        nv::ThrowIfWin32Failed(nv::CreateKey(hDstRoot, wszDstPath,
                                             KEY_ALL_ACCESS | nv::ViewFlagsFrom(hDstRoot, samDstView), dst.put()));

        wchar_t name[kNameBufferChars];
        for (DWORD index = 0;; ++index) {
            name[0] = L'\0'; // the registry writes the name and its terminator
            DWORD cchName = kNameCapacity;
            DWORD type = 0;
            DWORD cbData = 0;
            LONG r = ::RegEnumValueW(src.get(), index, name, &cchName, nullptr, &type, nullptr, &cbData);
            if (r == ERROR_NO_MORE_ITEMS)
                break;
            if (r != ERROR_SUCCESS && r != ERROR_MORE_DATA)
                nv::ThrowIfWin32Failed(r);
            // An empty value is refused on purpose: the copy fails rather than
            // carrying a value it cannot size.
            if (cbData == 0)
                nv::ThrowHr(nv::HResultFromWin32(ERROR_NOT_ENOUGH_MEMORY));
            std::unique_ptr<BYTE, FreeDeleter> data(static_cast<BYTE*>(std::calloc(cbData, 1)));
            if (!data)
                nv::ThrowHr(E_OUTOFMEMORY);
            DWORD cbRead = cbData;
            nv::ThrowIfWin32Failed(::RegQueryValueExW(src.get(), name, nullptr, nullptr, data.get(), &cbRead));
            nv::ThrowIfWin32Failed(::RegSetValueExW(dst.get(), name, 0, type, data.get(), cbData));
        }

        ForEachSubkey(src.get(), name, [&]() {
            nv::ThrowIfFailed(CopyKey(dst.get(), name, samDstView, src.get(), name, samSrcView));
        });
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CBaseConverter::DeleteKey(HKEY hRoot, const wchar_t* wszPath, REGSAM samView)
{
    DeletePrivilege privilege;
    return DeleteKeyTree(hRoot, true, wszPath, samView, privilege);
}

HRESULT CBaseConverter::DeleteKeyTree(HKEY hRoot, bool openRoot, const wchar_t* wszPath, REGSAM samView,
                                      DeletePrivilege& privilege)
{
    NVTraceNS::CTraceScope scope("CBaseConverter::DeleteKey", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        // The parent handle: the root opened anew for the caller's call. The
        // recursion's root is the target handle of the level above, which is already
        // open with every right this needs (KEY_ALL_ACCESS holds KEY_READ | DELETE).
        nv::unique_hkey ownParent;
        // The view as the root needs it (nv::ViewFlagsFrom); the parent opened from it
        // is the root itself, so the same flags serve beneath it.
        const REGSAM view = nv::ViewFlagsFrom(hRoot, samView);
        if (openRoot)
            nv::ThrowIfWin32Failed(::RegOpenKeyExW(hRoot, L"", 0, kDeleteParentAccess | view, ownParent.put()));
        const HKEY parent = openRoot ? ownParent.get() : hRoot;
        nv::unique_hkey target;
        nv::ThrowIfWin32Failed(::RegOpenKeyExW(parent, wszPath, 0, KEY_ALL_ACCESS | view, target.put()));
        if (!privilege.known) {
            privilege.privileged = nv::CallerIsSystemOrAdministrator();
            privilege.known = true;
        }
        // S_FALSE when the DACL cannot be set: the delete is tried anyway.
        // Users get no entry: a delete that fails after this (a subkey created in
        // between, a handle held open, a kill) must not leave a key every user may write.
        if (privilege.privileged)
            nv::ThrowIfFailed(nv::SetProtectedKeyDacl(target.get(), 0));

        // List first, delete afterwards: deleting while enumerating shifts the indexes.
        std::vector<std::wstring> children;
        wchar_t name[kNameBufferChars];
        ForEachSubkey(target.get(), name, [&]() { children.emplace_back(name); });
        for (const std::wstring& child : children)
            nv::ThrowIfFailed(DeleteKeyTree(target.get(), false, child.c_str(), samView, privilege));

        target.reset();
        // A path under a root such as HKEY_LOCAL_MACHINE crosses the redirected
        // SOFTWARE key, so the delete itself must name the view too.
        nv::ThrowIfWin32Failed(::RegDeleteKeyExW(parent, wszPath, view, 0));
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CBaseConverter::GrantFullAccess(HKEY hKey, ACCESS_MASK usersMask)
{
    return nv::GrantFullAccess(hKey, usersMask);
}
