// Key and starting block of the trace file's record scrambling. The library and the
// trace decoder (tools/nvtrace) both read them from here. Portable header.
#pragma once
#include <cstdint>

namespace NVTraceNS {

// Held as two halves, combined at run time (TraceKey()), so the key does not stand
// as one literal in the binary.
constexpr std::uint32_t kTraceKeyA[4] = {0x3A6F1D92u, 0xC40B7E55u, 0x1E99A2C7u, 0x7D24F08Bu};
constexpr std::uint32_t kTraceKeyB[4] = {0x5C13E8A4u, 0x29F7360Du, 0xB6482C1Fu, 0x0E85D973u};
constexpr std::uint8_t kTraceStartBlock[8] = {0x4E, 0x56, 0x54, 0x72, 0x61, 0x63, 0x65, 0x33};

inline void TraceKey(std::uint32_t key[4]) noexcept
{
    for (int i = 0; i < 4; ++i)
        key[i] = kTraceKeyA[i] ^ kTraceKeyB[i];
}

} // namespace NVTraceNS
