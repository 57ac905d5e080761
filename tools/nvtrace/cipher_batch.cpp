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

// Both kernels: whole vectors of lanes two at a time (the rounds are one long chain
// of dependent steps, and two chains keep the vector units busy). U is the lanes as
// unsigned words, S the same as signed ones for the arithmetic shift. Inlined into
// each kernel, so it is compiled for that kernel's instruction set.
template <class U, class S>
__attribute__((always_inline)) inline void VectorRounds(const std::uint32_t key[4], std::uint32_t* y,
                                                        std::uint32_t* z, std::size_t vectors)
{
    constexpr std::size_t lanes = sizeof(U) / sizeof(std::uint32_t);
    // Loaded and stored as whole vectors from the words as they lie (no copy through
    // the stack, which cost as much as a tenth of the rounds).
    typedef U Unaligned __attribute__((aligned(alignof(std::uint32_t)), may_alias));
    const U k0 = U{} + key[0], k1 = U{} + key[1], k2 = U{} + key[2], k3 = U{} + key[3];
    for (std::size_t v = 0; v < vectors; v += 2) {
        const bool two = v + 1 < vectors;
        Unaligned* py = reinterpret_cast<Unaligned*>(y + v * lanes);
        Unaligned* pz = reinterpret_cast<Unaligned*>(z + v * lanes);
        U vy[2] = {py[0], two ? py[1] : U{}}, vz[2] = {pz[0], two ? pz[1] : U{}};
        U sum = U{};
        for (int round = 0; round < nvcipher::kTeaRounds; ++round) {
            sum += nvcipher::kTeaDelta;
            for (int i = 0; i < 2; ++i)
                vy[i] += ((vz[i] << 4) + k0) ^ (vz[i] + sum) ^ (U(S(vz[i]) >> 5) + k1);
            for (int i = 0; i < 2; ++i)
                vz[i] += ((vy[i] << 4) + k2) ^ (vy[i] + sum) ^ (U(S(vy[i]) >> 5) + k3);
        }
        py[0] = vy[0];
        pz[0] = vz[0];
        if (two) {
            py[1] = vy[1];
            pz[1] = vz[1];
        }
    }
}

typedef std::uint32_t U8 __attribute__((vector_size(32)));
typedef std::int32_t S8 __attribute__((vector_size(32)));
typedef std::uint32_t U16 __attribute__((vector_size(64)));
typedef std::int32_t S16 __attribute__((vector_size(64)));

__attribute__((target("avx2"))) void Avx2Vectors(const std::uint32_t key[4], std::uint32_t* y, std::uint32_t* z,
                                                 std::size_t vectors)
{
    VectorRounds<U8, S8>(key, y, z, vectors);
}

__attribute__((target("avx512f"))) void Avx512Vectors(const std::uint32_t key[4], std::uint32_t* y,
                                                      std::uint32_t* z, std::size_t vectors)
{
    VectorRounds<U16, S16>(key, y, z, vectors);
}

using VectorsFn = void (*)(const std::uint32_t*, std::uint32_t*, std::uint32_t*, std::size_t);

// Whole vectors in place, then the last few blocks through a zero-padded vector.
void EncipherVectors(VectorsFn vectors, std::size_t lanes, const std::uint32_t key[4], std::uint32_t* y,
                     std::uint32_t* z, std::size_t n)
{
    const std::size_t whole = n / lanes;
    vectors(key, y, z, whole);
    const std::size_t done = whole * lanes, left = n - done;
    if (left == 0)
        return;
    std::uint32_t ty[16] = {}, tz[16] = {};
    std::memcpy(ty, y + done, left * sizeof(std::uint32_t));
    std::memcpy(tz, z + done, left * sizeof(std::uint32_t));
    vectors(key, ty, tz, 1);
    std::memcpy(y + done, ty, left * sizeof(std::uint32_t));
    std::memcpy(z + done, tz, left * sizeof(std::uint32_t));
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
