// The record cipher over many independent blocks at once, for reading traces fast.
// In cipher feedback each step's key stream is the cipher of the previous step's
// ciphertext, all of which is at hand when reading: every step of every record of a
// file can be enciphered side by side. The vector kernels compute exactly what the
// portable one does (nvcipher::TeaEncryptBlock, arithmetic shifts and all); which
// one runs is chosen from what the CPU offers, and tests run each against the others.
// StepCache keeps the key streams of recent steps, so that most steps need no cipher.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "common/teacfb.h"

namespace nvtrace {

enum class CipherKernel { Portable, Avx2, Avx512 };

// True when this build has the kernel and this CPU can run it.
bool CipherKernelRuns(CipherKernel kernel);

// The fastest kernel that runs here.
CipherKernel FastestCipherKernel();

// Enciphers the n blocks (y[i], z[i]) in place with the key: block i's words y[i], z[i]
// as nvcipher::TeaEncryptBlock takes them. The kernel must run here.
void EncipherBlocks(CipherKernel kernel, const std::uint32_t key[4], std::uint32_t* y, std::uint32_t* z,
                    std::size_t n);

// The key streams of recent steps, each by the ciphertext step it follows (both as
// the eight bytes lie in memory). A fleet's traces repeat their texts (scope names,
// the fixed words of their lines), and cipher feedback restarted for every record
// turns the same text into the same ciphertext: most of a trace's steps are found
// here and need no cipher at all. One slot per hash of the ciphertext, the newest
// kept. Every slot holds a true pair from the start (the all-zero block and its
// cipher), so a slot whose ciphertext matches always gives the right stream.
class StepCache {
public:
    struct Slot {
        std::uint64_t ciphertext;
        std::uint64_t stream;
    };
    static constexpr unsigned kBits = 12; // 4,096 slots, 64 KB: within the core's second-level cache

    explicit StepCache(const std::uint32_t key[4]);

    // The slot where ciphertext's stream is kept, if it is: its stream is the one
    // wanted when its ciphertext is this one.
    const Slot& At(std::uint64_t ciphertext) const { return m_slots[Index(ciphertext)]; }
    void Keep(std::uint64_t ciphertext, std::uint64_t stream) { m_slots[Index(ciphertext)] = Slot{ciphertext, stream}; }

    // A batch of misses: writes each one's index among the batch's distinct
    // ciphertexts to indexOf, and those to distinct in the order they first come;
    // returns how many there are. The slots themselves find the repeats: a slot that
    // holds a miss's ciphertext was given it by an earlier one of the batch, with that
    // one's index for a stream (checked against distinct, so a ciphertext the cache
    // held before counts as distinct). Until each distinct ciphertext is kept, in
    // order, the cache must not be used. A repeat whose slot another ciphertext of the
    // batch took in between counts as distinct again: a block enciphered twice.
    std::size_t Distinct(const std::uint64_t* misses, std::size_t n, std::uint32_t* indexOf,
                         std::uint64_t* distinct)
    {
        std::size_t count = 0;
        for (std::size_t j = 0; j < n; ++j) {
            const std::uint64_t ciphertext = misses[j];
            Slot& slot = m_slots[Index(ciphertext)];
            const bool repeat =
                slot.ciphertext == ciphertext && slot.stream < count && distinct[slot.stream] == ciphertext;
            const std::uint64_t at = repeat ? slot.stream : count;
            slot = Slot{ciphertext, at};
            indexOf[j] = static_cast<std::uint32_t>(at);
            distinct[count] = ciphertext; // taken only when new
            count += repeat ? 0 : 1;
        }
        return count;
    }
    const std::vector<Slot>& Slots() const { return m_slots; } // for tests

    // The eight bytes of a block's words (y, z), each little-endian, as they lie in
    // memory, and back: the form the decoder keeps and looks up steps in.
    static std::uint64_t Bytes(std::uint32_t y, std::uint32_t z)
    {
        std::uint8_t bytes[8];
        nvcipher::StoreLe32(bytes, y);
        nvcipher::StoreLe32(bytes + 4, z);
        std::uint64_t value;
        std::memcpy(&value, bytes, 8);
        return value;
    }
    static void Words(std::uint64_t value, std::uint32_t& y, std::uint32_t& z)
    {
        std::uint8_t bytes[8];
        std::memcpy(bytes, &value, 8);
        y = nvcipher::LoadLe32(bytes);
        z = nvcipher::LoadLe32(bytes + 4);
    }

private:
    // The top bits of a multiplicative hash: a text's steps may share bytes.
    static std::size_t Index(std::uint64_t ciphertext)
    {
        return static_cast<std::size_t>((ciphertext * 0x9E3779B97F4A7C15u) >> (64 - kBits));
    }

    std::vector<Slot> m_slots;
};

} // namespace nvtrace
