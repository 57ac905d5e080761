// ThreadSlot: one pointer-sized value per thread, in a Win32 TLS slot taken when the
// module's static objects are built and given back when they are destroyed.
//
// The library's per-thread state lives here rather than in C++ thread_local
// variables: with this tool chain those are emulated, and their first use on a
// thread allocates, ending the process when the allocation fails. Reading and
// writing a slot never allocates. Both keep the thread's last error as it was, so a
// slot can be read between a failing call and the GetLastError that reports it.
// Without a slot (none left) every thread reads 0 and writes are dropped.
#pragma once
#include <windows.h>
#include <cstdint>

namespace nv {

class ThreadSlot {
public:
    ThreadSlot() noexcept : m_index(::TlsAlloc()) {}
    ~ThreadSlot()
    {
        if (m_index != TLS_OUT_OF_INDEXES)
            ::TlsFree(m_index);
    }
    ThreadSlot(const ThreadSlot&) = delete;
    ThreadSlot& operator=(const ThreadSlot&) = delete;

    void* Get() const noexcept
    {
        if (m_index == TLS_OUT_OF_INDEXES)
            return nullptr;
        const DWORD error = ::GetLastError();
        void* value = ::TlsGetValue(m_index);
        ::SetLastError(error);
        return value;
    }
    void Set(void* value) noexcept
    {
        if (m_index == TLS_OUT_OF_INDEXES)
            return;
        const DWORD error = ::GetLastError();
        ::TlsSetValue(m_index, value);
        ::SetLastError(error);
    }
    std::uintptr_t GetNumber() const noexcept { return reinterpret_cast<std::uintptr_t>(Get()); }
    void SetNumber(std::uintptr_t value) noexcept { Set(reinterpret_cast<void*>(value)); }

private:
    DWORD m_index;
};

} // namespace nv
