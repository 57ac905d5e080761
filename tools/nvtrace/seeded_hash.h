// A hash for the integer keys a trace gives (thread ids, result codes) that a crafted
// file cannot make collide. The standard hash of an integer is the integer itself,
// so keys chosen as multiples of a table's bucket count all land in one bucket and
// every look-up walks them all. Here each key is multiplied by an odd number and
// offset by another, both drawn once per process from the clock and an address,
// which a file cannot know; the high half of the product is the hash.
#pragma once
#include <cstddef>
#include <cstdint>

namespace nvtrace {

class SeededIntHash {
public:
    SeededIntHash();
    std::size_t operator()(std::uint64_t key) const noexcept
    {
        return static_cast<std::size_t>((key * m_multiplier + m_offset) >> 32);
    }

private:
    std::uint64_t m_multiplier; // odd
    std::uint64_t m_offset;
};

} // namespace nvtrace
