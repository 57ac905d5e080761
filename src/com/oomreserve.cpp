#include "com/oomreserve.h"

#include <windows.h>
#include <cxxabi.h>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "common/threadslot.h"

// The linker sends the library's (and the run-time's) calls of these names here; the
// __real_ names reach the originals.
extern "C" {
void* __real___cxa_allocate_exception(std::size_t size) noexcept;
void* __real___cxa_allocate_dependent_exception() noexcept;
void* __real_malloc(std::size_t size);
void __real_free(void* p);
}

namespace {

// Slots for exception objects: an object the library throws (std::bad_alloc, the COM
// error carrier) and the run-time's header in front of it fit in one. A thread holds at
// most a few at once (one in flight, one being handled); 32 cover many threads.
constexpr std::size_t kSlotBytes = 512;
constexpr unsigned kSlots = 32;
alignas(16) unsigned char g_reserve[kSlots][kSlotBytes];
volatile LONG g_slotUsed[kSlots];

// Set on a thread while the run-time allocates an exception object: only those
// allocations may fall back to the reserve.
nv::ThreadSlot g_allocatingException;

void* TakeSlot(std::size_t size) noexcept
{
    if (size > kSlotBytes)
        return nullptr;
    for (unsigned i = 0; i < kSlots; ++i)
        if (::InterlockedCompareExchange(&g_slotUsed[i], 1, 0) == 0) {
            std::memset(g_reserve[i], 0, kSlotBytes);
            return g_reserve[i];
        }
    return nullptr;
}

bool GiveBackSlot(void* p) noexcept
{
    const auto* b = static_cast<unsigned char*>(p);
    if (b < &g_reserve[0][0] || b >= &g_reserve[0][0] + sizeof(g_reserve))
        return false;
    const auto i = static_cast<unsigned>((b - &g_reserve[0][0]) / kSlotBytes);
    ::InterlockedExchange(&g_slotUsed[i], 0);
    return true;
}

class AllocatingException {
public:
    AllocatingException() noexcept { g_allocatingException.Set(reinterpret_cast<void*>(1)); }
    ~AllocatingException() { g_allocatingException.Set(nullptr); }
};

} // namespace

extern "C" {

void* __wrap___cxa_allocate_exception(std::size_t size) noexcept
{
    AllocatingException scope;
    return __real___cxa_allocate_exception(size);
}

void* __wrap___cxa_allocate_dependent_exception() noexcept
{
    AllocatingException scope;
    return __real___cxa_allocate_dependent_exception();
}

void* __wrap_malloc(std::size_t size)
{
    void* p = __real_malloc(size);
    if (!p && g_allocatingException.Get())
        p = TakeSlot(size);
    return p;
}

// The run-time frees an exception object it took from malloc with free: one from the
// reserve goes back to it instead.
void __wrap_free(void* p)
{
    if (!GiveBackSlot(p))
        __real_free(p);
}

} // extern "C"

namespace nvframe {

void PrepareThreadForFailures() noexcept
{
    // The first call on a thread allocates its bookkeeping; later ones only read it. (The
    // function is declared free of side effects, so its result is kept to keep the call.)
    void* volatile globals = abi::__cxa_get_globals();
    (void)globals;
}

} // namespace nvframe
