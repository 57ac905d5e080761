#include "legacydb/regset.h"

#include <winternl.h>
#include <atomic>
#include <cstring>
#include "common/conversionscope.h"
#include "common/guidtext.h"
#include "common/hresult.h"
#include "common/keysecurity.h"
#include "common/procaddress.h"
#include "common/regkey.h"
#include "common/systemimports.h"
#include "legacydb/derreader.h"
#include "legacydb/hostname.h"
#include "trace/trace.h"

namespace {

using RtlCompareUnicodeStringFn = LONG(NTAPI*)(const UNICODE_STRING*, const UNICODE_STRING*, BOOLEAN);

// Process-wide; filled on first use. Two threads filling it store the same address.
std::atomic<RtlCompareUnicodeStringFn> g_pfnCompare{nullptr};

RtlCompareUnicodeStringFn CompareFunction()
{
    RtlCompareUnicodeStringFn fn = g_pfnCompare.load(std::memory_order_acquire);
    if (!fn) {
        fn = nv::GetProcAs<RtlCompareUnicodeStringFn>(::GetModuleHandleW(L"ntdll.dll"), "RtlCompareUnicodeString");
        if (!fn)
            nv::ThrowLastError();
        g_pfnCompare.store(fn, std::memory_order_release);
    }
    return fn;
}

UNICODE_STRING CountedString(const wchar_t* s) noexcept
{
    UNICODE_STRING u{};
    const size_t cb = s ? std::wcslen(s) * sizeof(wchar_t) : 0;
    u.Length = static_cast<USHORT>(cb);
    u.MaximumLength = static_cast<USHORT>(cb);
    u.Buffer = const_cast<wchar_t*>(s);
    return u;
}

bool SameNameIgnoringCase(const std::wstring& a, const wchar_t* b)
{
    UNICODE_STRING ua = CountedString(a.c_str());
    UNICODE_STRING ub = CountedString(b);
    return CompareFunction()(&ua, &ub, TRUE) == 0;
}

class CriticalSectionLock {
public:
    explicit CriticalSectionLock(CRITICAL_SECTION& cs) noexcept : m_cs(cs) { ::EnterCriticalSection(&m_cs); }
    ~CriticalSectionLock() { ::LeaveCriticalSection(&m_cs); }
    CriticalSectionLock(const CriticalSectionLock&) = delete;
    CriticalSectionLock& operator=(const CriticalSectionLock&) = delete;

private:
    CRITICAL_SECTION& m_cs;
};

// Frees what the network functions hand out.
struct NetBuffer {
    LPBYTE p = nullptr;
    ~NetBuffer() { reset(); }
    void reset() noexcept
    {
        if (p)
            CNVDBRegSet::s_netApi.pfnBufferFree(p);
        p = nullptr;
    }
};

// Users of the database's keys get read access; administrators and the system full.
constexpr ACCESS_MASK kUsersAccess = KEY_READ;

} // namespace

const CNVDBRegSet::NetApi CNVDBRegSet::s_defaultNetApi = {&nv::sys::NetServerGetInfo, &nv::sys::NetWkstaGetInfo,
                                                          &nv::sys::NetApiBufferFree};
CNVDBRegSet::NetApi CNVDBRegSet::s_netApi = CNVDBRegSet::s_defaultNetApi;

CNVDBRegSet::CNVDBRegSet()
{
    if (!::InitializeCriticalSectionAndSpinCount(&m_cs, 0))
        nv::ThrowLastError();
}

CNVDBRegSet::~CNVDBRegSet()
{
    ::DeleteCriticalSection(&m_cs);
}

std::wstring CNVDBRegSet::LocalStoreName()
{
    using nv::CConversionScope;
    std::wstring name;
    if (CConversionScope::FindName(CConversionScope::Name::LocalStore, &name))
        return name;
    // Kept by a conversion scope only when the server's type was read (and, on a
    // domain controller, its domain's name): a failed call is asked again next time.
    bool answered = false;
    DWORD type = 0;
    {
        NetBuffer info;
        if (s_netApi.pfnServerGetInfo(nullptr, 102, &info.p) == NERR_Success && info.p) {
            type = reinterpret_cast<const SERVER_INFO_102*>(info.p)->sv102_type;
            answered = true;
        } else {
            info.reset();
            if (s_netApi.pfnServerGetInfo(nullptr, 101, &info.p) == NERR_Success && info.p) {
                type = reinterpret_cast<const SERVER_INFO_101*>(info.p)->sv101_type;
                answered = true;
            }
        }
    }
    if (type & (SV_TYPE_DOMAIN_CTRL | SV_TYPE_DOMAIN_BAKCTRL)) {
        // A domain controller keeps its own users as the domain's store.
        NetBuffer info;
        answered = false;
        if (s_netApi.pfnWkstaGetInfo(nullptr, 100, &info.p) == NERR_Success && info.p) {
            const auto* wks = reinterpret_cast<const WKSTA_INFO_100*>(info.p);
            if (wks->wki100_langroup)
                name = wks->wki100_langroup;
            answered = true;
        }
    } else {
        name = CHostName().str();
        answered = answered && !name.empty();
    }
    if (answered)
        CConversionScope::RememberName(CConversionScope::Name::LocalStore, name);
    return name;
}

HRESULT CNVDBRegSet::Open(const wchar_t* wszName, DWORD dwInitialValue)
{
    NVTraceNS::CTraceScope scope("CNVDBRegSet::Open", NVTraceNS::kLevelVerbose);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        m_hRoot = nullptr;

        const std::wstring localName = LocalStoreName();
        std::wstring usersPath = nv::kDatabaseKeyPath;
        if (!localName.empty() && SameNameIgnoringCase(localName, wszName)) {
            usersPath += L"\\MainDB";
        } else {
            usersPath += L"\\Cache\\";
            if (wszName)
                usersPath += wszName;
        }
        usersPath += L"\\";
        usersPath += L"Users";
        const std::wstring dataPath = std::wstring(nv::kDatabaseKeyPath) + L"\\Data\\" + L"Users";

        CriticalSectionLock lock(m_cs);
        DWORD userList = dwInitialValue;
        // Within a conversion the paths and the stamp are checked for the first user
        // only; every later one finds them as that check left them.
        if (!nv::CConversionScope::FindOpenedDatabase(usersPath, &userList)) {
            bool stamped = true;
            {
                nv::CNVRegKey key;
                if (key.Open(HKEY_LOCAL_MACHINE, usersPath.c_str(), kReadWriteMask) == ERROR_SUCCESS) {
                    DWORD value = 0;
                    if (nv::QueryDwordValue(key, nullptr, &value) == ERROR_SUCCESS)
                        userList = value;
                } else {
                    nv::ThrowIfWin32Failed(key.Create(HKEY_LOCAL_MACHINE, usersPath.c_str(), kAllAccessMask));
                    ::RegSetValueExW(key, nullptr, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dwInitialValue),
                                     sizeof(dwInitialValue));
                    nv::GrantFullAccess(key, kUsersAccess);
                }
            }
            {
                nv::CNVRegKey key;
                if (key.Open(HKEY_LOCAL_MACHINE, dataPath.c_str(), kReadWriteMask) != ERROR_SUCCESS) {
                    nv::ThrowIfWin32Failed(key.Create(HKEY_LOCAL_MACHINE, dataPath.c_str(), kAllAccessMask));
                    nv::GrantFullAccess(key, kUsersAccess);
                }
            }
            {
                nv::CNVRegKey key;
                nv::ThrowIfWin32Failed(key.Open(HKEY_LOCAL_MACHINE, nv::kDatabaseKeyPath, kAllAccessMask));
                wchar_t version[MAX_PATH] = {};
                ULONG cch = MAX_PATH;
                if (nv::QueryStringValue(key, NVDBCONV_VALUE_VERSION, version, &cch) != ERROR_SUCCESS ||
                    std::wcscmp(version, kVersionStamp) != 0) {
                    NVTraceNS::Trace(scope, 0, "writing new version number: <%ls>", kVersionStamp);
                    // Its result is not looked at; a stamp that did not take is tried
                    // again at the next open.
                    stamped = nv::SetStringValue(key, NVDBCONV_VALUE_VERSION, kVersionStamp) == ERROR_SUCCESS;
                }
            }
            if (stamped)
                nv::CConversionScope::RememberOpenedDatabase(usersPath, userList);
        }

        m_hRoot = HKEY_LOCAL_MACHINE;
        m_wstrUsersPath = usersPath;
        m_wstrDataPath = dataPath;
        m_dwUserList = userList;
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

std::wstring CNVDBRegSet::UserKeyPath(const GUID& guidUser) const
{
    return m_wstrDataPath + L"\\" + nv::GuidText(guidUser);
}

HRESULT CNVDBRegSet::ReadField(const GUID& guidUser, const wchar_t* wszField, nv::CCryptBlob& blob)
{
    NVTraceNS::CTraceScope scope("CNVDBRegSet::ReadField", NVTraceNS::kLevelVerbose);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        if (!m_hRoot)
            return E_FAIL;
        const std::wstring subkey = UserKeyPath(guidUser);
        const HRESULT hrRead = ReadAnyField(subkey.c_str(), (wszField && *wszField) ? wszField : L"", blob);
        nv::ThrowIfFailed(hrRead);
        return hrRead;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CNVDBRegSet::ReadAnyField(const wchar_t* wszSubkey, const wchar_t* wszValue, nv::CCryptBlob& blob)
{
    NVTraceNS::CTraceScope scope("CNVDBRegSet::ReadAnyField", NVTraceNS::kLevelVerbose);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        if (!m_hRoot)
            return E_FAIL;
        CriticalSectionLock lock(m_cs);

        nv::CNVRegKey key;
        LONG r = key.Open(m_hRoot, wszSubkey, kReadMask);
        if (r == ERROR_FILE_NOT_FOUND) {
            NVTraceNS::Trace(scope, 0, "key not found");
            return S_FALSE;
        }
        nv::ThrowIfWin32Failed(r);

        // A field of the usual size takes one query; a larger one a second. The
        // temporary is cleared before it is freed.
        LegacyNVDB2::Bytes buffer;
        r = nv::QueryBinaryValue(key, wszValue, buffer);
        if (r == ERROR_FILE_NOT_FOUND) {
            NVTraceNS::Trace(scope, 0, "field not found");
            return S_FALSE;
        }
        nv::ThrowIfWin32Failed(r);
        blob.Assign(buffer.data(), static_cast<DWORD>(buffer.size()));
        NVTraceNS::Trace(scope, 0, "field read ok");
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CNVDBRegSet::EnumFields(const GUID& guidUser, std::vector<std::wstring>& fields)
{
    return EnumFields(guidUser, fields, nullptr);
}

HRESULT CNVDBRegSet::EnumFields(const GUID& guidUser, std::vector<std::wstring>& fields, HRESULT* phrEnum)
{
    if (phrEnum)
        *phrEnum = S_OK;
    NVTraceNS::CTraceScope scope("CNVDBRegSet::EnumFields", NVTraceNS::kLevelVerbose);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        if (!m_hRoot)
            return E_FAIL;
        const std::wstring subkey = UserKeyPath(guidUser);
        CriticalSectionLock lock(m_cs);

        nv::CNVRegKey key;
        nv::ThrowIfWin32Failed(key.Open(m_hRoot, subkey.c_str(), kAllAccessMask));
        DWORD cValues = 0, cchMaxName = 0;
        nv::ThrowIfWin32Failed(::RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                  &cValues, &cchMaxName, nullptr, nullptr, nullptr));
        std::vector<wchar_t> name(cchMaxName + 1, L'\0');

        fields.clear();
        for (DWORD i = 0; i < cValues; ++i) {
            DWORD cch = cchMaxName + 1;
            // A failing index keeps the buffer as it was; the default value has no name.
            const LONG r = ::RegEnumValueW(key, i, name.data(), &cch, nullptr, nullptr, nullptr, nullptr);
            if (r != ERROR_SUCCESS && phrEnum && *phrEnum == S_OK)
                *phrEnum = nv::HResultFromWin32(r);
            if (name[0] != L'\0')
                fields.emplace_back(name.data());
        }
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}
