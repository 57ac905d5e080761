// A hash for the integer keys a trace gives (thread ids, result codes) that a crafted
// file cannot make collide. The standard hash of an integer is the integer itself,
// so keys chosen as multiples of a table's bucket count all land in one bucket and
// every look-up walks them all. Here each key is offset by a seed drawn once per
// process from the system's random source, the clock and two addresses, which a
// file cannot know, and mixed (splitmix64's finaliser): keys in a run, or a file's
// other chosen patterns, land as if at random.
#pragma once
#include <cstddef>
#include <cstdint>

namespace nvtrace {

// splitmix64's finaliser: every bit of the result depends on every bit of z.
inline std::uint64_t SplitMix(std::uint64_t z)
{
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
}

class SeededIntHash {
public:
    SeededIntHash();
    std::size_t operator()(std::uint64_t key) const noexcept { return static_cast<std::size_t>(SplitMix(key + m_seed)); }

private:
    std::uint64_t m_seed;
};

} // namespace nvtrace
