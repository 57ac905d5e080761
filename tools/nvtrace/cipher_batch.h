// The record cipher over many independent blocks at once, for reading traces fast.
// In cipher feedback each step's key stream is the cipher of the previous step's
// ciphertext, all of which is at hand when reading: every step of every record of a
// file can be enciphered side by side. The vector kernels compute exactly what the
// portable one does (nvcipher::TeaEncryptBlock, arithmetic shifts and all); which
// one runs is chosen from what the CPU offers, and tests run each against the others.
#pragma once
#include <cstddef>
#include <cstdint>

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

} // namespace nvtrace
