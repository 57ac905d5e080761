// CConverter3: upgrades a format 2.0 database to format 3.0. Every user of the old
// registry layout is read through the legacy user extractor, its secrets are
// re-sealed under the user's public key held by the storage server, and secrets,
// templates and payload are handed to that server; then the user's old key
// Data\Users\{GUID} is deleted. One user's failure is traced and never stops the
// others: a failed user keeps its old key.
//
// Works on the database in the 32-bit registry view; its backup key DB-v2.0 is in
// the library's own view. Cleanup removes the old database only once no user key
// is left; rollback has nothing of its own to undo.
#pragma once
#include <windows.h>
#include <string>
#include "frame/baseconverter.h"

class CConverter3 : public CBaseConverter {
public:
    static constexpr DWORD kTargetVersion = NVDBCONV_VERSION_3_0;
    // The view of the database key and of every path this converter deletes.
    static constexpr REGSAM kDatabaseView = KEY_WOW64_32KEY;

    CConverter3();
    ~CConverter3() override = default;

    HRESULT do_Convert() override;
    HRESULT do_Rollback() override;
    HRESULT do_Cleanup() override;
    const std::wstring& GetBackupName() override;
    REGSAM GetBackupView() override;

private:
    class CMissingParts;
    class CStoreObjects;
    // One user's steps, from loading its secrets to deleting its old key.
    class CUserConversion;
};
