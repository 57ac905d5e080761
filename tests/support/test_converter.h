// TestConverter: a converter built on CBaseConverter whose hooks succeed or fail on
// request and record the order in which they ran. The database view (what the
// constructor opens) and the backup view are chosen per test, so the base sequence
// can be checked in every combination of views.
#pragma once
#include <windows.h>
#include <gtest/gtest.h>
#include <functional>
#include <string>
#include <vector>

#include "frame/baseconverter.h"

namespace nvtest {

class TestConverter : public CBaseConverter {
public:
    static constexpr DWORD kTargetVersion = 0x00090000;

    TestConverter(REGSAM dbView, REGSAM backupView, std::wstring backupName)
        : CBaseConverter(kTargetVersion, L"9.0", dbView), m_backupView(backupView),
          m_backupName(std::move(backupName))
    {
    }
    ~TestConverter() override
    {
        if (destroyed)
            *destroyed = true;
    }

    HRESULT backupResult = S_OK;
    HRESULT convertResult = S_OK;
    HRESULT rollbackResult = S_OK;
    HRESULT cleanupResult = S_OK;
    // Work done inside do_Convert before it answers (changing the database, say).
    std::function<void()> convertWork;
    // Set when the object is destroyed.
    bool* destroyed = nullptr;

    std::vector<std::string> calls;

    HRESULT do_Backup() override { return Record("do_Backup", backupResult); }
    HRESULT do_Convert() override
    {
        if (convertWork)
            convertWork();
        return Record("do_Convert", convertResult);
    }
    HRESULT do_Rollback() override { return Record("do_Rollback", rollbackResult); }
    HRESULT do_Cleanup() override { return Record("do_Cleanup", cleanupResult); }
    const std::wstring& GetBackupName() override { return m_backupName; }
    REGSAM GetBackupView() override { return m_backupView; }

    // The key owner's view word and handle, for checks.
    REGSAM DbOwnerView() const { return m_dbKey.m_samWOW64; }
    HKEY DbKey() const { return m_dbKey.Get(); }
    std::wstring BackupPath() { return ReadBackupPath(); }

private:
    HRESULT Record(const char* name, HRESULT hr)
    {
        calls.emplace_back(name);
        return hr;
    }

    REGSAM m_backupView;
    std::wstring m_backupName;
};

// A converter that opened its database: the version it converts to, and its backup's
// name and view.
inline void ExpectConverterOpenedFor(CBaseConverter& converter, DWORD targetVersion, const wchar_t* targetText,
                                     const wchar_t* backupName, REGSAM backupView)
{
    EXPECT_EQ(targetVersion, converter.GetTargetVersion());
    EXPECT_EQ(targetText, converter.GetTargetVersionText());
    EXPECT_TRUE(converter.HasDatabaseKey());
    EXPECT_EQ(backupName, converter.GetBackupName());
    EXPECT_EQ(backupView, converter.GetBackupView());
}

} // namespace nvtest
