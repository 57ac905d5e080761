#include "com/dbconverter.h"

#include "common/hresult.h"
#include "common/regkey.h"
#include "trace/trace.h"

CDBConverter g_DBConverter;

namespace {

// Longest "Version" text, terminator included.
constexpr ULONG kVersionChars = 260;

} // namespace

CDBConverter::CDBConverter()
{
    if (!::InitializeCriticalSectionAndSpinCount(&m_cs, 0))
        nv::ThrowLastError();
}

CDBConverter::~CDBConverter()
{
    ::DeleteCriticalSection(&m_cs);
    m_pConverter.reset();
}

HRESULT CDBConverter::FinalConstruct()
{
    NVTraceNS::CTraceScope scope("CDBConverter::FinalConstruct", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        nv::CNVRegKey db;
        LONG r = db.Open(HKEY_LOCAL_MACHINE, nv::kDatabaseKeyPath, KEY_READ);
        if (r != ERROR_SUCCESS)
            r = db.Open(HKEY_LOCAL_MACHINE, nv::kDatabaseKeyPath, KEY_READ | KEY_WOW64_32KEY);
        if (r != ERROR_SUCCESS) {
            m_dwVersion = 0;
            return nv::HResultFromWin32(r);
        }

        wchar_t version[kVersionChars] = {};
        ULONG cch = kVersionChars;
        if (nv::QueryStringValue(db.Get(), NVDBCONV_VALUE_VERSION, version, &cch) == ERROR_SUCCESS) {
            NVTraceNS::Trace(scope, 0, "wszVersion = %ls", version);
            m_dwVersion = nvframe::ParseDatabaseVersion(version);
        }
        NVTraceNS::Trace(scope, 0, "m_dwVersion = 0x%X", m_dwVersion);

        CBaseConverter* converter = CBaseConverter::CreateConverter(m_dwVersion, db);
        if (converter != m_pConverter.get())
            m_pConverter.reset(converter);
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CDBConverter::Convert()
{
    return m_pConverter ? m_pConverter->Convert() : E_FAIL;
}

HRESULT CDBConverter::Rollback()
{
    return m_pConverter ? m_pConverter->Rollback() : E_FAIL;
}

HRESULT CDBConverter::Cleanup()
{
    return m_pConverter ? m_pConverter->Cleanup() : E_FAIL;
}

HRESULT CDBConverter::GetDBVersion(DWORD* pdwCurrent, DWORD* pdwTarget) const
{
    if (!pdwCurrent || !pdwTarget)
        return E_INVALIDARG;
    *pdwCurrent = m_dwVersion;
    *pdwTarget = 0;
    if (m_pConverter)
        *pdwTarget = m_pConverter->GetTargetVersion();
    return S_OK;
}
