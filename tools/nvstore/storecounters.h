// Where the store spends its time, for benchmarks that must tell the store's share
// of a conversion from the caller's: the time spent inside the store's operations
// (every operation of its interfaces, QueryInterface and Release included, and the
// class factory's CreateInstance), and within that the time its key-pair generation
// took. Counted from the module's load.
//
// NVStore.dll exports NVStoreGetCounters (by name); a caller that has the store in
// its own process reads them with GetProcAddress on the loaded module.
#pragma once
#include <windows.h>

struct NVSTORE_COUNTERS {
    ULONGLONG ullFrequency;     // QueryPerformanceFrequency, ticks per second
    ULONGLONG ullCalls;         // operations entered
    ULONGLONG ullCallTicks;     // ticks spent inside them
    ULONGLONG ullKeyPairs;      // key pairs generated
    ULONGLONG ullKeyPairTicks;  // ticks spent generating them (part of ullCallTicks)
};

// Returns S_OK and fills *pCounters; E_POINTER for a null pointer.
using PFN_NVSTOREGETCOUNTERS = HRESULT(__stdcall*)(NVSTORE_COUNTERS* pCounters);
constexpr const char kNVStoreGetCountersExport[] = "NVStoreGetCounters";

namespace nvstore {

// Adds one operation's ticks (nested operations are counted once, by the outermost).
class COperationTimer {
public:
    COperationTimer() noexcept;
    ~COperationTimer();
    COperationTimer(const COperationTimer&) = delete;
    COperationTimer& operator=(const COperationTimer&) = delete;

private:
    LARGE_INTEGER m_start;
    bool m_outermost;
};

void AddKeyPairTicks(LONGLONG ticks) noexcept;
void ReadCounters(NVSTORE_COUNTERS* pCounters) noexcept;

} // namespace nvstore
