#include "seeded_hash.h"

#include <chrono>
#include <random>

namespace nvtrace {

namespace {

// Its address moves with where the program is loaded.
const int kInTheImage = 0;

// 64 bits from the system's random source, or none where the runtime offers no such
// source (the clock and the addresses still vary from run to run).
std::uint64_t SystemRandom()
{
    try {
        std::random_device source;
        return (static_cast<std::uint64_t>(source()) << 32) ^ source();
    } catch (...) {
        return 0;
    }
}

std::uint64_t ProcessSeed()
{
    static const std::uint64_t seed = [] {
        int onTheStack = 0;
        std::uint64_t state = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
        state ^= static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(&onTheStack)) << 16;
        state ^= static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(&kInTheImage));
        state = SplitMix(state + 0x9E3779B97F4A7C15u);
        return SplitMix(state ^ SystemRandom());
    }();
    return seed;
}

} // namespace

SeededIntHash::SeededIntHash() : m_seed(ProcessSeed()) {}

} // namespace nvtrace
