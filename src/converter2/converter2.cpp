#include "converter2/converter2.h"

#include "common/hresult.h"
#include "common/regkey.h"
#include "trace/trace.h"

namespace {
constexpr const wchar_t kVersionValue[] = NVDBCONV_VALUE_VERSION;
} // namespace

CConverter2::CConverter2() : CBaseConverter(kTargetVersion, kTargetVersionText, kDatabaseView)
{
    NVTraceNS::CTraceScope scope("CConverter2::CConverter2", 0);
}

CConverter2::~CConverter2()
{
    NVTraceNS::CTraceScope scope("CConverter2::~CConverter2", 0);
}

const std::wstring& CConverter2::GetBackupName()
{
    static const std::wstring name(L"DB-v1.0");
    return name;
}

REGSAM CConverter2::GetBackupView() { return kDatabaseView; }

HRESULT CConverter2::do_Rollback()
{
    NVTraceNS::CTraceScope scope("CConverter2::do_Rollback", 0);
    return S_OK;
}

HRESULT CConverter2::do_Cleanup()
{
    NVTraceNS::CTraceScope scope("CConverter2::do_Cleanup", 0);
    return S_OK;
}

HRESULT CConverter2::CollectNameIndexAndPolicies(nv::NameIndexMap& nameIndexes, nv::PolicyKeyList& policyKeys)
{
    NVTraceNS::CTraceScope scope("CConverter2::CollectNameIndexAndPolicies", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        nv::CollectNameIndexesAndPolicies(m_dbKey, m_dbKey.m_samWOW64, nv::EnumRegistrySubkey, nameIndexes,
                                          policyKeys);
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CConverter2::ConvertNameIndexTo20(const std::wstring& path)
{
    NVTraceNS::CTraceScope scope("CConverter2::ConvertNameIndexTo20", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        nv::StripNameIndex(m_dbKey, m_dbKey.m_samWOW64, path.c_str());
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CConverter2::do_Convert()
{
    NVTraceNS::CTraceScope scope("CConverter2::do_Convert", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        nv::NameIndexMap nameIndexes;
        nv::PolicyKeyList policyKeys;
        nv::ThrowIfFailed(CollectNameIndexAndPolicies(nameIndexes, policyKeys));

        // The first failing store ends the conversion; the base converter restores
        // the database from its backup.
        for (const auto& entry : nameIndexes)
            nv::ThrowIfFailed(ConvertNameIndexTo20(entry.second));
        NVTraceNS::Trace(scope, 0, "domains converted");

        // A policy key that is already gone is no failure.
        for (const std::wstring& path : policyKeys)
            DeleteKey(m_dbKey, path.c_str(), m_dbKey.m_samWOW64);
        NVTraceNS::Trace(scope, 0, "policies deleted");

        // Last, so that a database still reading "1.0" is known to be unconverted.
        nv::SetStringValue(m_dbKey, kVersionValue, m_wstrTargetVersion.c_str());
        NVTraceNS::Trace(scope, 0, "version put");
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}
