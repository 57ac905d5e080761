#include "cipher_batch.h"

#include <cstring>

#include "common/teacfb.h"

// The vector kernels are built for x86-64 Linux only. On 64-bit Windows GCC cannot
// align the stack to the 32 and 64 bytes that spilled AVX registers need, so the
// Windows build keeps the portable kernel.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(_WIN32)
#define NVTRACE_VECTOR_CIPHER 1
#endif

namespace nvtrace {

namespace {

void EncipherPortable(const std::uint32_t key[4], std::uint32_t* y, std::uint32_t* z, std::size_t n)
{
    for (std::size_t i = 0; i < n; ++i)
        nvcipher::TeaEncryptBlock(y[i], z[i], key);
}

#ifdef NVTRACE_VECTOR_CIPHER

// Both kernels: up to four vectors of lanes at once. The rounds are one long chain of
// dependent steps; several chains side by side keep the vector units busy even when
// a file leaves only a few blocks to encipher, and only the chains given are
// computed (the units, not the chains, are then what limits). U is the lanes as
// unsigned words, S the same as signed ones for the arithmetic shift. Inlined into
// each kernel, so it is compiled for that kernel's instruction set.
constexpr int kChains = 4;

template <class U, class S, int Chains>
__attribute__((always_inline)) inline void ChainRounds(const std::uint32_t key[4], std::uint32_t* const y[],
                                                       std::uint32_t* const z[])
{
    // Loaded and stored as whole vectors from the words as they lie (no copy through
    // the stack, which cost as much as a tenth of the rounds).
    typedef U Unaligned __attribute__((aligned(alignof(std::uint32_t)), may_alias));
    const U k0 = U{} + key[0], k1 = U{} + key[1], k2 = U{} + key[2], k3 = U{} + key[3];
    U vy[Chains], vz[Chains];
    for (int i = 0; i < Chains; ++i) {
        vy[i] = *reinterpret_cast<const Unaligned*>(y[i]);
        vz[i] = *reinterpret_cast<const Unaligned*>(z[i]);
    }
    U sum = U{};
    for (int round = 0; round < nvcipher::kTeaRounds; ++round) {
        sum += nvcipher::kTeaDelta;
        for (int i = 0; i < Chains; ++i)
            vy[i] += ((vz[i] << 4) + k0) ^ (vz[i] + sum) ^ (U(S(vz[i]) >> 5) + k1);
        for (int i = 0; i < Chains; ++i)
            vz[i] += ((vy[i] << 4) + k2) ^ (vy[i] + sum) ^ (U(S(vy[i]) >> 5) + k3);
    }
    for (int i = 0; i < Chains; ++i) {
        *reinterpret_cast<Unaligned*>(y[i]) = vy[i];
        *reinterpret_cast<Unaligned*>(z[i]) = vz[i];
    }
}

template <class U, class S>
__attribute__((always_inline)) inline void VectorRounds(const std::uint32_t key[4], std::uint32_t* const y[kChains],
                                                        std::uint32_t* const z[kChains], int count)
{
    // count is 1 to kChains; anything else does nothing.
    switch (count) {
    case 1: ChainRounds<U, S, 1>(key, y, z); return;
    case 2: ChainRounds<U, S, 2>(key, y, z); return;
    case 3: ChainRounds<U, S, 3>(key, y, z); return;
    case kChains: ChainRounds<U, S, kChains>(key, y, z); return;
    default: return;
    }
}

typedef std::uint32_t U8 __attribute__((vector_size(32)));
typedef std::int32_t S8 __attribute__((vector_size(32)));
typedef std::uint32_t U16 __attribute__((vector_size(64)));
typedef std::int32_t S16 __attribute__((vector_size(64)));

__attribute__((target("avx2"))) void Avx2Vectors(const std::uint32_t key[4], std::uint32_t* const y[kChains],
                                                 std::uint32_t* const z[kChains], int count)
{
    VectorRounds<U8, S8>(key, y, z, count);
}

__attribute__((target("avx512f"))) void Avx512Vectors(const std::uint32_t key[4], std::uint32_t* const y[kChains],
                                                      std::uint32_t* const z[kChains], int count)
{
    VectorRounds<U16, S16>(key, y, z, count);
}

using VectorsFn = void (*)(const std::uint32_t*, std::uint32_t* const*, std::uint32_t* const*, int);

// Whole vectors in place, the last few blocks through a zero-padded vector, four
// vectors to a pass.
void EncipherVectors(VectorsFn vectors, std::size_t lanes, const std::uint32_t key[4], std::uint32_t* y,
                     std::uint32_t* z, std::size_t n)
{
    if (n == 0)
        return; // the arrays may be empty, their pointers null
    const std::size_t whole = n / lanes, left = n - whole * lanes;
    std::uint32_t ty[16] = {}, tz[16] = {};
    std::memcpy(ty, y + whole * lanes, left * sizeof(std::uint32_t));
    std::memcpy(tz, z + whole * lanes, left * sizeof(std::uint32_t));
    const std::size_t total = whole + (left > 0 ? 1 : 0);
    for (std::size_t v = 0; v < total; v += kChains) {
        std::uint32_t* gy[kChains];
        std::uint32_t* gz[kChains];
        int count = 0;
        for (std::size_t w = v; w < total && count < kChains; ++w, ++count) {
            gy[count] = w < whole ? y + w * lanes : ty;
            gz[count] = w < whole ? z + w * lanes : tz;
        }
        vectors(key, gy, gz, count);
    }
    std::memcpy(y + whole * lanes, ty, left * sizeof(std::uint32_t));
    std::memcpy(z + whole * lanes, tz, left * sizeof(std::uint32_t));
}

#endif

} // namespace

bool CipherKernelRuns(CipherKernel kernel)
{
    switch (kernel) {
    case CipherKernel::Portable:
        return true;
#ifdef NVTRACE_VECTOR_CIPHER
    case CipherKernel::Avx2:
        return __builtin_cpu_supports("avx2");
    case CipherKernel::Avx512:
        return __builtin_cpu_supports("avx512f");
#endif
    default:
        return false;
    }
}

CipherKernel FastestCipherKernel()
{
    static const CipherKernel fastest = CipherKernelRuns(CipherKernel::Avx512) ? CipherKernel::Avx512
                                        : CipherKernelRuns(CipherKernel::Avx2) ? CipherKernel::Avx2
                                                                                 : CipherKernel::Portable;
    return fastest;
}

StepCache::StepCache(const std::uint32_t key[4])
{
    std::uint32_t y = 0, z = 0;
    nvcipher::TeaEncryptBlock(y, z, key);
    m_slots.assign(std::size_t(1) << kBits, Slot{0, Bytes(y, z)});
}

void EncipherBlocks(CipherKernel kernel, const std::uint32_t key[4], std::uint32_t* y, std::uint32_t* z,
                    std::size_t n)
{
    switch (kernel) {
#ifdef NVTRACE_VECTOR_CIPHER
    case CipherKernel::Avx2:
        EncipherVectors(Avx2Vectors, 8, key, y, z, n);
        return;
    case CipherKernel::Avx512:
        EncipherVectors(Avx512Vectors, 16, key, y, z, n);
        return;
#endif
    default:
        EncipherPortable(key, y, z, n);
        return;
    }
}

} // namespace nvtrace
