#include "storecounters.h"

#include <atomic>

namespace nvstore {

namespace {

std::atomic<ULONGLONG> g_calls{0};
std::atomic<ULONGLONG> g_callTicks{0};
std::atomic<ULONGLONG> g_keyPairs{0};
std::atomic<ULONGLONG> g_keyPairTicks{0};
thread_local int t_depth = 0;

} // namespace

COperationTimer::COperationTimer() noexcept : m_outermost(t_depth++ == 0)
{
    ::QueryPerformanceCounter(&m_start);
}

COperationTimer::~COperationTimer()
{
    --t_depth;
    if (!m_outermost)
        return;
    LARGE_INTEGER end;
    ::QueryPerformanceCounter(&end);
    g_calls.fetch_add(1);
    g_callTicks.fetch_add(static_cast<ULONGLONG>(end.QuadPart - m_start.QuadPart));
}

void AddKeyPairTicks(LONGLONG ticks) noexcept
{
    g_keyPairs.fetch_add(1);
    g_keyPairTicks.fetch_add(static_cast<ULONGLONG>(ticks));
}

void ReadCounters(NVSTORE_COUNTERS* pCounters) noexcept
{
    LARGE_INTEGER freq;
    ::QueryPerformanceFrequency(&freq);
    pCounters->ullFrequency = static_cast<ULONGLONG>(freq.QuadPart);
    pCounters->ullCalls = g_calls.load();
    pCounters->ullCallTicks = g_callTicks.load();
    pCounters->ullKeyPairs = g_keyPairs.load();
    pCounters->ullKeyPairTicks = g_keyPairTicks.load();
}

} // namespace nvstore
