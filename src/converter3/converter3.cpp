#include "converter3/converter3.h"

#include <cwchar>
#include "common/handles.h"
#include "common/hresult.h"
#include "common/regkey.h"
#include "trace/trace.h"

namespace {

constexpr const wchar_t kUsersSuffix[] = L"\\DB\\Data\\Users";
constexpr const wchar_t kDataPath[] = L"SOFTWARE\\Norvane\\DB\\Data";
constexpr const wchar_t kMainDbPath[] = L"SOFTWARE\\Norvane\\DB\\MainDB";

} // namespace

CConverter3::CConverter3() : CBaseConverter(kTargetVersion, L"3.0", kDatabaseView) {}

const std::wstring& CConverter3::GetBackupName()
{
    static const std::wstring s_name = L"DB-v2.0";
    return s_name;
}

REGSAM CConverter3::GetBackupView()
{
    return 0;
}

HRESULT CConverter3::do_Rollback()
{
    NVTraceNS::CTraceScope scope("CConverter3::do_Rollback", 0);
    // The base converter restores the database from the backup key; the store that
    // the conversion filled is left as it is.
    return NVTraceNS::TraceReturn(scope, S_OK);
}

HRESULT CConverter3::do_Cleanup()
{
    NVTraceNS::CTraceScope scope("CConverter3::do_Cleanup", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        wchar_t wszUsers[MAX_PATH];
        std::swprintf(wszUsers, MAX_PATH, L"%ls%ls", nv::kVendorKeyPath, kUsersSuffix);

        nv::unique_hkey users;
        if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, wszUsers, 0, KEY_READ | kDatabaseView, users.put()) != ERROR_SUCCESS)
            return S_OK;

        // Only when no user key is left: a user whose conversion failed keeps its
        // key, and with it the old database.
        wchar_t wszName[256];
        DWORD cchName = static_cast<DWORD>(sizeof(wszName) / sizeof(wszName[0]));
        LONG r = ::RegEnumKeyExW(users.get(), 0, wszName, &cchName, nullptr, nullptr, nullptr, nullptr);
        if (r == ERROR_NO_MORE_ITEMS) {
            NVTraceNS::Trace(scope, 0, "Completely delete old DB");
            DeleteKey(HKEY_LOCAL_MACHINE, kDataPath, kDatabaseView);
            DeleteKey(HKEY_LOCAL_MACHINE, kMainDbPath, kDatabaseView);
        }
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CConverter3::do_Convert()
{
    NVTraceNS::CTraceScope scope("CConverter3::do_Convert", 0);
    return NVTraceNS::TraceReturn(scope, E_NOTIMPL);
}
