#include "seeded_hash.h"

#include <chrono>

namespace nvtrace {

namespace {

// Its address moves with where the program is loaded.
const int kInTheImage = 0;

std::uint64_t ProcessSeed()
{
    static const std::uint64_t seed = [] {
        int onTheStack = 0;
        std::uint64_t state = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
        state ^= static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(&onTheStack)) << 16;
        state ^= static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(&kInTheImage));
        return SplitMix(state + 0x9E3779B97F4A7C15u);
    }();
    return seed;
}

} // namespace

SeededIntHash::SeededIntHash() : m_seed(ProcessSeed()) {}

} // namespace nvtrace
