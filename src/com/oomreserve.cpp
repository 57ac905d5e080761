#include "com/oomreserve.h"

#include <windows.h>
#include <cxxabi.h>
#include <cstddef>
#include <cstdlib>

#include "com/exceptionreserve.h"
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

// Set on a thread while the run-time allocates an exception object: only those
// allocations may fall back to the reserve.
nv::ThreadSlot g_allocatingException;

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
        p = nvframe::TakeReservedExceptionSlot(size);
    return p;
}

// The run-time frees an exception object it took from malloc with free: one from the
// reserve goes back to it instead.
void __wrap_free(void* p)
{
    if (!nvframe::GiveBackReservedExceptionSlot(p))
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
