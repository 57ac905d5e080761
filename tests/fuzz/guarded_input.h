// An input placed so that its last byte is the last byte of a committed page and the
// page after it is PAGE_NOACCESS: any read past the input faults at once.
#pragma once
#include <windows.h>
#include <cstddef>
#include <cstdint>

namespace nvfuzz {

class GuardedInput {
public:
    explicit GuardedInput(std::size_t maxSize);
    ~GuardedInput();
    GuardedInput(const GuardedInput&) = delete;
    GuardedInput& operator=(const GuardedInput&) = delete;

    // Copies the input to the end of the readable area; returns where it starts.
    // Inputs longer than MaxSize() are cut.
    const BYTE* Place(const std::uint8_t* data, std::size_t size, DWORD* placedSize);
    std::size_t MaxSize() const noexcept { return m_readable; }
    // True when the address lies in the no-access page.
    bool IsGuard(ULONG_PTR address) const noexcept
    {
        return address >= reinterpret_cast<ULONG_PTR>(m_guard) &&
               address < reinterpret_cast<ULONG_PTR>(m_guard) + m_pageSize;
    }

private:
    BYTE* m_base = nullptr;
    BYTE* m_guard = nullptr;
    std::size_t m_readable = 0;
    std::size_t m_pageSize = 0;
};

} // namespace nvfuzz
