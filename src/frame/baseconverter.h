// CBaseConverter: the abstract converter. It owns the sequence every upgrade follows
// (back the database up, convert, clean up, roll back on failure) and the registry
// work this needs: a recursive copy (CopyKey) and a recursive delete (DeleteKey).
//
// The database key is opened in the constructor for KEY_READ | KEY_WRITE plus the
// converter's view flags (always KEY_WOW64_32KEY); the key owner's own view-flags
// word stays 0, and that 0 is what Backup passes as the source view and what
// Rollback uses for the database key. The backup state lives in the registry (the
// backup key and the "Backup" value), so a later process can roll back or clean up.
// Rollback and Cleanup act only on a "Backup" that names one of the library's own
// backup keys (nvframe::IsLibraryBackupPath); any other value is refused with
// E_ACCESSDENIED and nothing is deleted or copied. DeleteKey's grant gives Users
// nothing, so a delete that fails half way leaves no key that every user may write.
// Convert, Rollback and Cleanup hold the machine-wide conversion lock
// (frame/conversionlock.h) for their length. Taking it, they open the database key
// again (another process may have deleted and restored it since), and Convert
// refuses with NV_E_CONVERSION_BUSY when the database changed since this converter
// last saw it ("Version" and whether MainDB exists) into one it does not convert:
// another process has converted it in between.
// Every operation returns an HRESULT and never throws.
#pragma once
#include <windows.h>
#include <string>
#include "common/regkey.h"
#include "frame/conversionlock.h"

class CBaseConverter {
public:
    CBaseConverter(DWORD dwTargetVersion, const wchar_t* wszTargetVersion, REGSAM samDbView);

    // Slot order is part of the design: destructor, do_Backup, do_Convert,
    // do_Rollback, do_Cleanup, GetBackupName, GetBackupView.
    virtual ~CBaseConverter();
    virtual HRESULT do_Backup();
    virtual HRESULT do_Convert();
    virtual HRESULT do_Rollback();
    virtual HRESULT do_Cleanup();
    virtual const std::wstring& GetBackupName() = 0;
    virtual REGSAM GetBackupView() = 0;

    HRESULT Convert();
    HRESULT Rollback();
    HRESULT Cleanup();
    HRESULT Backup();

    static HRESULT CopyKey(HKEY hDstRoot, const wchar_t* wszDstPath, REGSAM samDstView, HKEY hSrcRoot,
                           const wchar_t* wszSrcPath, REGSAM samSrcView);
    static HRESULT DeleteKey(HKEY hRoot, const wchar_t* wszPath, REGSAM samView);

    // The grant of common/keysecurity.h (nv::GrantFullAccess), which DeleteKey gives
    // each key before deleting it.
    static HRESULT GrantFullAccess(HKEY hKey, ACCESS_MASK usersMask);

    // The converter factory; the key owner argument is not used.
    static CBaseConverter* CreateConverter(DWORD dwVersion, nv::CNVRegKey& key);

    DWORD GetTargetVersion() const noexcept { return m_dwTargetVersion; }
    const std::wstring& GetTargetVersionText() const noexcept { return m_wstrTargetVersion; }
    bool HasDatabaseKey() const noexcept { return m_dbKey.Get() != nullptr; }

    // Name of the value, inside the database key, that holds the backup key's path.
    static const wchar_t* const s_wszBackupValue;

protected:
    // Reads "Backup" from the database key; empty when the key or value is missing.
    std::wstring ReadBackupPath();

private:
    // DeleteKey's recursion. The privilege test of the access grant reads the
    // caller's token; its answer is the same for every key of one delete, so it is
    // asked once, at the first grant, and handed down.
    struct DeletePrivilege {
        bool known = false;
        bool privileged = false;
    };
    // openRoot: open hRoot itself (empty path) as the parent, as the caller's call
    // does; the recursion hands in its own open target handle instead.
    static HRESULT DeleteKeyTree(HKEY hRoot, bool openRoot, const wchar_t* wszPath, REGSAM samView,
                                 DeletePrivilege& privilege);
    // After the conversion lock: its failure, or S_OK. The operation's own lock opens
    // the database key again; for Convert, a database other than the one last seen
    // fails with NV_E_CONVERSION_BUSY.
    HRESULT AfterLock(const nvframe::CConversionLock& lock, NVTraceNS::CTraceScope& scope, bool forConvert);
    // What tells one database state from the next: "Version", and MainDB present
    // or not. Read at construction and again at the end of each operation, so that
    // only another process's changes count.
    std::wstring ReadDatabaseState();
    // Whether the database as it now stands is still one this converter converts:
    // of the format it upgrades from, and for the 3.0 step not laid out as 3.0
    // already. A database another party replaced by another one of the same format
    // is converted as the format has it.
    bool StillConverts();
    void RememberDatabaseState(const nvframe::CConversionLock& lock, NVTraceNS::CTraceScope& scope);
    // Opens the database key anew; a key that is gone leaves no handle (S_OK), any
    // other failure is the answer.
    HRESULT ReopenDatabaseKey(NVTraceNS::CTraceScope& scope);

    // Rollback's and Cleanup's steps. Under the lock: AfterLock's failure raised, then
    // the "Backup" path. At the end: the state this operation leaves remembered
    // (unless another converter's change was found), and the result traced.
    std::wstring BackupPathUnderLock(const nvframe::CConversionLock& lock, NVTraceNS::CTraceScope& scope);
    HRESULT FinishUnderLock(const nvframe::CConversionLock& lock, NVTraceNS::CTraceScope& scope, HRESULT hr);
    static HRESULT NoBackupPath(NVTraceNS::CTraceScope& scope);
    // Rollback's work on the "Backup" path: S_FALSE when there is none, refused when
    // it is not one of the library's, else the database restored from it.
    HRESULT RestoreFromBackup(NVTraceNS::CTraceScope& scope, const std::wstring& path);
    REGSAM m_samDbView;
    std::wstring m_wstrSeenState;
    nvframe::LockCount m_locks;

protected:
    std::wstring m_wstrTargetVersion;
    DWORD m_dwTargetVersion;
    nv::CNVRegKey m_dbKey;
};
