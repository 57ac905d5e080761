#include "guarded_input.h"

#include <cstring>
#include <stdexcept>

namespace nvfuzz {

GuardedInput::GuardedInput(std::size_t maxSize)
{
    SYSTEM_INFO info{};
    ::GetSystemInfo(&info);
    m_pageSize = info.dwPageSize;
    m_readable = (maxSize + m_pageSize - 1) / m_pageSize * m_pageSize;
    m_base = static_cast<BYTE*>(::VirtualAlloc(nullptr, m_readable + m_pageSize, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    if (!m_base)
        throw std::runtime_error("VirtualAlloc failed");
    m_guard = m_base + m_readable;
    DWORD old = 0;
    if (!::VirtualProtect(m_guard, m_pageSize, PAGE_NOACCESS, &old))
        throw std::runtime_error("VirtualProtect failed");
}

GuardedInput::~GuardedInput()
{
    if (m_base)
        ::VirtualFree(m_base, 0, MEM_RELEASE);
}

const BYTE* GuardedInput::Place(const std::uint8_t* data, std::size_t size, DWORD* placedSize)
{
    if (size > m_readable)
        size = m_readable;
    BYTE* start = m_guard - size;
    if (size)
        std::memcpy(start, data, size);
    *placedSize = static_cast<DWORD>(size);
    return start;
}

} // namespace nvfuzz
