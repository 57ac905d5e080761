// CNVDBRegSet: the legacy database's access object for per-user fields.
//
// Open binds it to the database: it works out the users path of the named store
// (MainDB for this machine, Cache\<name> for any other), creates the users path and
// the data path (Data\Users) when they are missing, and stamps "Version" = "2.1".
// ReadField/ReadAnyField read one REG_BINARY field of one user; EnumFields lists the
// names of a user's fields. Everything goes to HKEY_LOCAL_MACHINE in the 32-bit view.
//
// The object holds no key between calls. Until Open has succeeded every other
// operation fails with E_FAIL. A missing user key or field is S_FALSE for the readers
// (the caller skips the field) and leaves the caller's blob untouched. Each operation
// holds the object's critical section; operations return HRESULTs and never throw.
#pragma once
#include <windows.h>
#include <lm.h>
#include <string>
#include <vector>
#include "common/cryptblob.h"

class CNVDBRegSet {
public:
    // Raises the HRESULT of a failed critical-section initialisation.
    CNVDBRegSet();
    ~CNVDBRegSet();
    CNVDBRegSet(const CNVDBRegSet&) = delete;
    CNVDBRegSet& operator=(const CNVDBRegSet&) = delete;

    HRESULT Open(const wchar_t* wszName, DWORD dwInitialValue);
    HRESULT ReadField(const GUID& guidUser, const wchar_t* wszField, nv::CCryptBlob& blob);
    HRESULT ReadAnyField(const wchar_t* wszSubkey, const wchar_t* wszValue, nv::CCryptBlob& blob);
    HRESULT EnumFields(const GUID& guidUser, std::vector<std::wstring>& fields);
    // The same listing; *phrEnum receives the first failure of a single value's
    // enumeration (which the listing itself passes over), S_OK when there was none.
    HRESULT EnumFields(const GUID& guidUser, std::vector<std::wstring>& fields, HRESULT* phrEnum);

    bool IsOpen() const noexcept { return m_hRoot != nullptr; }
    const std::wstring& GetUsersPath() const noexcept { return m_wstrUsersPath; }
    const std::wstring& GetDataPath() const noexcept { return m_wstrDataPath; }
    DWORD GetUserListValue() const noexcept { return m_dwUserList; }

    // The network functions behind the domain-controller test. Tests put their own in
    // place to play a domain controller; the default is netapi32, found in the system
    // directory (common/systemimports.h).
    struct NetApi {
        NET_API_STATUS(WINAPI* pfnServerGetInfo)(LMSTR, DWORD, LPBYTE*);
        NET_API_STATUS(WINAPI* pfnWkstaGetInfo)(LMSTR, DWORD, LPBYTE*);
        NET_API_STATUS(WINAPI* pfnBufferFree)(LPVOID);
    };
    static NetApi s_netApi;
    static const NetApi s_defaultNetApi;

    // Access masks (all in the 32-bit view).
    static constexpr REGSAM kReadMask = KEY_READ | KEY_WOW64_32KEY;                   // 0x20219
    static constexpr REGSAM kReadWriteMask = KEY_READ | KEY_WRITE | KEY_WOW64_32KEY;  // 0x2021F
    static constexpr REGSAM kAllAccessMask = KEY_ALL_ACCESS | KEY_WOW64_32KEY;        // 0xF023F

    // The format stamp Open leaves in the database's "Version".
    static constexpr const wchar_t kVersionStamp[] = L"2.1";

private:
    // The name the given store name is compared with: the domain on a domain
    // controller, the computer's name otherwise.
    static std::wstring LocalStoreName();
    std::wstring UserKeyPath(const GUID& guidUser) const;

    HKEY m_hRoot = nullptr;
    std::wstring m_wstrUsersPath;
    std::wstring m_wstrDataPath;
    DWORD m_dwUserList = 0;
    CRITICAL_SECTION m_cs;
};
