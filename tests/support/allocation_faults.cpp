#include "support/allocation_faults.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<DWORD> g_thread{0}; // the armed thread; 0 when no instance lives
std::atomic<unsigned> g_failAt{0};
std::atomic<std::size_t> g_size{0};
std::atomic<unsigned> g_calls{0};
std::atomic<unsigned> g_failed{0};

// True when this allocation is the one to fail.
bool FailThisAllocation(std::size_t size) noexcept
{
    const DWORD armed = g_thread.load(std::memory_order_acquire);
    if (armed == 0 || armed != ::GetCurrentThreadId())
        return false;
    const std::size_t wanted = g_size.load(std::memory_order_relaxed);
    if (wanted != nvtest::AllocationFaults::kAnySize && size != wanted)
        return false;
    if (++g_calls != g_failAt.load(std::memory_order_relaxed))
        return false;
    ++g_failed;
    return true;
}

} // namespace

// The replaceable global allocation function. libstdc++'s nothrow, array and sized
// forms all come here; operator delete stays the library's (free).
void* operator new(std::size_t size)
{
    if (FailThisAllocation(size))
        throw std::bad_alloc();
    for (;;) {
        if (void* p = std::malloc(size ? size : 1))
            return p;
        std::new_handler handler = std::get_new_handler();
        if (!handler)
            throw std::bad_alloc();
        handler();
    }
}

void* operator new[](std::size_t size) { return ::operator new(size); }

namespace nvtest {

AllocationFaults::AllocationFaults(unsigned n, std::size_t size)
{
    g_calls = 0;
    g_failed = 0;
    g_failAt = n;
    g_size = size;
    g_thread.store(::GetCurrentThreadId(), std::memory_order_release);
}

AllocationFaults::~AllocationFaults() { g_thread.store(0, std::memory_order_release); }

unsigned AllocationFaults::calls() const { return g_calls; }
unsigned AllocationFaults::failed() const { return g_failed; }

} // namespace nvtest
