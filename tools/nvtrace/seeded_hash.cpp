#include "seeded_hash.h"

#include <chrono>

namespace nvtrace {

namespace {

// splitmix64: each call's value from the state it advances.
std::uint64_t NextMixed(std::uint64_t& state)
{
    std::uint64_t z = (state += 0x9E3779B97F4A7C15u);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
}

struct Seeds {
    std::uint64_t multiplier, offset;
};

// Its address moves with where the program is loaded.
const int kInTheImage = 0;

const Seeds& ProcessSeeds()
{
    static const Seeds seeds = [] {
        int onTheStack = 0;
        std::uint64_t state = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
        state ^= static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(&onTheStack)) << 16;
        state ^= static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(&kInTheImage));
        const std::uint64_t multiplier = NextMixed(state) | 1;
        return Seeds{multiplier, NextMixed(state)};
    }();
    return seeds;
}

} // namespace

SeededIntHash::SeededIntHash() : m_multiplier(ProcessSeeds().multiplier), m_offset(ProcessSeeds().offset) {}

} // namespace nvtrace
