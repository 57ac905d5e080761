// The 64-bit block cipher (TEA structure, 32 rounds) in cipher-feedback mode, shared
// by the trace file's record scrambling and by the password secret scrambling.
//
// Differs from published TEA on purpose: the right shifts by 5 are arithmetic
// (sign bit copied in). Data written that way only reads back the same way.
// Portable: no Windows headers, so the trace decoder builds natively as well.
#pragma once
#include <cstddef>
#include <cstdint>

namespace nvcipher {

constexpr std::uint32_t kTeaDelta = 0x9E3779B9u;
constexpr int kTeaRounds = 32;

inline std::uint32_t Sar5(std::uint32_t v) noexcept
{
    // Arithmetic shift, written out so it does not depend on the compiler's choice.
    return (v >> 5) | ((v & 0x80000000u) ? 0xF8000000u : 0u);
}

inline void TeaEncryptBlock(std::uint32_t& y, std::uint32_t& z, const std::uint32_t k[4]) noexcept
{
    std::uint32_t sum = 0;
    for (int i = 0; i < kTeaRounds; ++i) {
        sum += kTeaDelta;
        y += ((z << 4) + k[0]) ^ (z + sum) ^ (Sar5(z) + k[1]);
        z += ((y << 4) + k[2]) ^ (y + sum) ^ (Sar5(y) + k[3]);
    }
}

inline std::uint32_t LoadLe32(const std::uint8_t* p) noexcept
{
    return std::uint32_t(p[0]) | (std::uint32_t(p[1]) << 8) | (std::uint32_t(p[2]) << 16) | (std::uint32_t(p[3]) << 24);
}

inline void StoreLe32(std::uint8_t* p, std::uint32_t v) noexcept
{
    p[0] = std::uint8_t(v);
    p[1] = std::uint8_t(v >> 8);
    p[2] = std::uint8_t(v >> 16);
    p[3] = std::uint8_t(v >> 24);
}

// Enciphers the 8-byte register in place (words little-endian, first word y).
inline void TeaEncryptRegister(std::uint8_t reg[8], const std::uint32_t k[4]) noexcept
{
    std::uint32_t y = LoadLe32(reg), z = LoadLe32(reg + 4);
    TeaEncryptBlock(y, z, k);
    StoreLe32(reg, y);
    StoreLe32(reg + 4, z);
}

// CFB over n bytes. Per step of up to 8 bytes: encipher the register, XOR the input
// with its first bytes, then feed the ciphertext bytes back into the register's
// front. in and out may be the same buffer in both directions.
inline void CfbTransform(const std::uint32_t key[4], const std::uint8_t iv[8], const std::uint8_t* in,
                         std::uint8_t* out, std::size_t n, bool decrypt) noexcept
{
    std::uint8_t reg[8];
    for (int i = 0; i < 8; ++i)
        reg[i] = iv[i];
    for (std::size_t pos = 0; pos < n; pos += 8) {
        const std::size_t step = (n - pos < 8) ? (n - pos) : 8;
        TeaEncryptRegister(reg, key);
        for (std::size_t i = 0; i < step; ++i) {
            const std::uint8_t c_in = in[pos + i];
            const std::uint8_t c_out = std::uint8_t(c_in ^ reg[i]);
            out[pos + i] = c_out;
            reg[i] = decrypt ? c_in : c_out;
        }
    }
}

inline void CfbEncrypt(const std::uint32_t key[4], const std::uint8_t iv[8], const std::uint8_t* in,
                       std::uint8_t* out, std::size_t n) noexcept
{
    CfbTransform(key, iv, in, out, n, false);
}

inline void CfbDecrypt(const std::uint32_t key[4], const std::uint8_t iv[8], const std::uint8_t* in,
                       std::uint8_t* out, std::size_t n) noexcept
{
    CfbTransform(key, iv, in, out, n, true);
}

// Two 32-bit words as the register's 8 bytes (little-endian).
inline void WordsToRegister(const std::uint32_t words[2], std::uint8_t reg[8]) noexcept
{
    StoreLe32(reg, words[0]);
    StoreLe32(reg + 4, words[1]);
}

} // namespace nvcipher
