// CDBConverter: the process-wide converter holder. At load it finds the database's
// format version ("Version" of SOFTWARE\Norvane\DB, the library's own registry view
// first, then the 32-bit view) and keeps the one converter that can upgrade it,
// until the library is unloaded. The exports reach the converter through it.
//
// FinalConstruct never fails the load: whatever goes wrong leaves version 0 and no
// converter, and the action exports then answer E_FAIL.
#pragma once
#include <windows.h>
#include <memory>

#include "frame/baseconverter.h"
#include "frame/databaseversion.h"

class CDBConverter {
public:
    // Throws the failing result code when the critical section cannot be set up.
    CDBConverter();
    ~CDBConverter();
    CDBConverter(const CDBConverter&) = delete;
    CDBConverter& operator=(const CDBConverter&) = delete;

    HRESULT FinalConstruct();
    // The release hook of process detach; the converter goes with the object itself.
    void FinalRelease() noexcept {}

    // The exports' behaviour.
    HRESULT Convert();
    HRESULT Rollback();
    HRESULT Cleanup();
    HRESULT GetDBVersion(DWORD* pdwCurrent, DWORD* pdwTarget) const;

    std::unique_ptr<CBaseConverter> m_pConverter;
    // Part of the object; no operation enters it.
    CRITICAL_SECTION m_cs;
    DWORD m_dwVersion = 0;
};

// The library's one holder.
extern CDBConverter g_DBConverter;
