// CConverter2: upgrades a format 1.0 database to 2.0 in place, in the 32-bit view.
//
// The base converter backs the database up to SOFTWARE\Norvane\DB-v1.0 (32-bit view)
// before do_Convert runs and rolls back from it on failure. do_Convert strips the
// 16-byte entries from every name index (domains in ordinal order of their names,
// the machine's store under the computer's name), deletes every policy key and
// writes "Version" = "2.0" last, so a database still reading "1.0" was not fully
// converted. The converter adds no state of its own.
#pragma once
#include <windows.h>
#include <string>

#include "converter2/nameindex.h"
#include "frame/baseconverter.h"

class CConverter2 : public CBaseConverter {
public:
    CConverter2();
    ~CConverter2() override;

    HRESULT do_Convert() override;
    HRESULT do_Rollback() override;
    HRESULT do_Cleanup() override;
    const std::wstring& GetBackupName() override;
    REGSAM GetBackupView() override;

    // Lists every name index (store name -> path) and every policy key below the
    // database key; both containers are filled, not cleared.
    HRESULT CollectNameIndexAndPolicies(nv::NameIndexMap& nameIndexes, nv::PolicyKeyList& policyKeys);
    // Rewrites the name index at the path (relative to the database key) to 2.0 form.
    HRESULT ConvertNameIndexTo20(const std::wstring& path);

    static constexpr DWORD kTargetVersion = NVDBCONV_VERSION_2_0;
    static constexpr const wchar_t kTargetVersionText[] = L"2.0";
    // A 1.0 database, and its backup, always live in the 32-bit registry view.
    static constexpr REGSAM kDatabaseView = KEY_WOW64_32KEY;
};
