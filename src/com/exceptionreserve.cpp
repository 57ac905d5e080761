#include "com/exceptionreserve.h"

#include <windows.h>
#include <cstring>

namespace nvframe {

namespace {

alignas(16) unsigned char g_reserve[kReservedExceptionSlots][kReservedExceptionBytes];
volatile LONG g_slotUsed[kReservedExceptionSlots];

} // namespace

void* TakeReservedExceptionSlot(std::size_t size) noexcept
{
    if (size > kReservedExceptionBytes)
        return nullptr;
    for (unsigned i = 0; i < kReservedExceptionSlots; ++i)
        if (::InterlockedCompareExchange(&g_slotUsed[i], 1, 0) == 0) {
            std::memset(g_reserve[i], 0, kReservedExceptionBytes);
            return g_reserve[i];
        }
    return nullptr;
}

bool GiveBackReservedExceptionSlot(void* p) noexcept
{
    const auto* b = static_cast<unsigned char*>(p);
    if (b < &g_reserve[0][0] || b >= &g_reserve[0][0] + sizeof(g_reserve))
        return false;
    const auto i = static_cast<unsigned>((b - &g_reserve[0][0]) / kReservedExceptionBytes);
    ::InterlockedExchange(&g_slotUsed[i], 0);
    return true;
}

} // namespace nvframe
