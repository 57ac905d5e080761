// The record scrambling: the block cipher against a reference written here, pinned
// known answers, and round trips for every short text length.
#include <gtest/gtest.h>
#include <cstdint>
#include <cstring>
#include <vector>

#include "common/teacfb.h"
#include "nvtracelib.h"
#include "trace/tracekeys.h"

namespace {

// Reference block cipher, written independently of the shared one: signed words, so
// the right shift copies the sign bit in.
void ReferenceTea(std::uint32_t v[2], const std::uint32_t k[4], bool arithmetic)
{
    std::uint32_t y = v[0], z = v[1], sum = 0;
    auto shr5 = [arithmetic](std::uint32_t x) -> std::uint32_t {
        return arithmetic ? static_cast<std::uint32_t>(static_cast<std::int32_t>(x) >> 5) : x >> 5;
    };
    for (int round = 0; round < 32; ++round) {
        sum += 0x9E3779B9u;
        y += ((z << 4) + k[0]) ^ (z + sum) ^ (shr5(z) + k[1]);
        z += ((y << 4) + k[2]) ^ (y + sum) ^ (shr5(y) + k[3]);
    }
    v[0] = y;
    v[1] = z;
}

// Reference CFB over the reference cipher.
std::vector<std::uint8_t> ReferenceCfb(const std::vector<std::uint8_t>& in, bool decrypt)
{
    std::uint32_t key[4];
    NVTraceNS::TraceKey(key);
    std::uint8_t reg[8];
    std::memcpy(reg, NVTraceNS::kTraceStartBlock, 8);
    std::vector<std::uint8_t> out(in.size());
    for (std::size_t pos = 0; pos < in.size(); pos += 8) {
        std::uint32_t v[2];
        v[0] = std::uint32_t(reg[0]) | std::uint32_t(reg[1]) << 8 | std::uint32_t(reg[2]) << 16 | std::uint32_t(reg[3]) << 24;
        v[1] = std::uint32_t(reg[4]) | std::uint32_t(reg[5]) << 8 | std::uint32_t(reg[6]) << 16 | std::uint32_t(reg[7]) << 24;
        ReferenceTea(v, key, true);
        for (int i = 0; i < 4; ++i) {
            reg[i] = static_cast<std::uint8_t>(v[0] >> (8 * i));
            reg[4 + i] = static_cast<std::uint8_t>(v[1] >> (8 * i));
        }
        for (std::size_t i = 0; i < 8 && pos + i < in.size(); ++i) {
            out[pos + i] = in[pos + i] ^ reg[i];
            reg[i] = decrypt ? in[pos + i] : out[pos + i];
        }
    }
    return out;
}

const std::uint32_t kSampleKey[4] = {0x00112233u, 0x44556677u, 0x8899AABBu, 0xCCDDEEFFu};

} // namespace

TEST(TraceCipherTest, BlockKnownAnswerUsesArithmeticShifts)
{
    // Pinned: computed once by an independent implementation.
    const std::uint32_t expected[2] = {0x7976E20Cu, 0x7AEBBB8Bu};
    const std::uint32_t logical[2] = {0x126C6B92u, 0xC0653A3Eu};

    std::uint32_t reference[2] = {0x01234567u, 0x89ABCDEFu};
    ReferenceTea(reference, kSampleKey, true);
    EXPECT_EQ(expected[0], reference[0]);
    EXPECT_EQ(expected[1], reference[1]);

    std::uint32_t y = 0x01234567u, z = 0x89ABCDEFu;
    nvcipher::TeaEncryptBlock(y, z, kSampleKey);
    EXPECT_EQ(expected[0], y);
    EXPECT_EQ(expected[1], z);

    // Published TEA's logical shift gives something else for this block.
    std::uint32_t published[2] = {0x01234567u, 0x89ABCDEFu};
    ReferenceTea(published, kSampleKey, false);
    EXPECT_EQ(logical[0], published[0]);
    EXPECT_EQ(logical[1], published[1]);
    EXPECT_NE(expected[0], logical[0]);
}

TEST(TraceCipherTest, TraceKeyIsTheCombinedHalves)
{
    std::uint32_t key[4];
    NVTraceNS::TraceKey(key);
    EXPECT_EQ(0x667CF536u, key[0]);
    EXPECT_EQ(0xEDFC4858u, key[1]);
    EXPECT_EQ(0xA8D18ED8u, key[2]);
    EXPECT_EQ(0x73A129F8u, key[3]);
    const std::uint8_t start[8] = {0x4E, 0x56, 0x54, 0x72, 0x61, 0x63, 0x65, 0x33};
    EXPECT_EQ(0, std::memcmp(start, NVTraceNS::kTraceStartBlock, 8));
}

TEST(TraceCipherTest, RecordTextKnownAnswers)
{
    const std::string name = "CBaseConverter::Backup";
    const std::vector<std::uint8_t> expected = {0x0A, 0x09, 0x8B, 0x14, 0xCF, 0x53, 0x9D, 0x3C, 0xDD, 0xFC, 0x9B,
                                                0x65, 0x25, 0x82, 0x68, 0xF4, 0x9B, 0xF8, 0x21, 0x9D, 0x19, 0xD2};
    std::vector<std::uint8_t> text(name.begin(), name.end());
    EXPECT_EQ(expected, ReferenceCfb(text, false));
    nvtrace::ScrambleText(text.data(), text.size());
    EXPECT_EQ(expected, text);

    const std::string time = "11:42:18.007";
    const std::vector<std::uint8_t> expectedTime = {0x78, 0x7A, 0xD0, 0x53, 0x98, 0x2A, 0xC3, 0x6A, 0x1C, 0x66, 0xEE, 0x27};
    std::vector<std::uint8_t> t(time.begin(), time.end());
    nvtrace::ScrambleText(t.data(), t.size());
    EXPECT_EQ(expectedTime, t);
}

TEST(TraceCipherTest, RoundTripsEveryLengthFromZeroToSeventeen)
{
    for (std::size_t n = 0; n <= 17; ++n) {
        std::vector<std::uint8_t> plain(n);
        for (std::size_t i = 0; i < n; ++i)
            plain[i] = static_cast<std::uint8_t>('a' + (i * 7) % 26);
        std::vector<std::uint8_t> data = plain;
        nvtrace::ScrambleText(data.data(), data.size());
        EXPECT_EQ(ReferenceCfb(plain, false), data) << "length " << n;
        if (n > 0) {
            EXPECT_NE(plain, data) << "length " << n;
        }
        EXPECT_EQ(plain, ReferenceCfb(data, true)) << "length " << n;
        nvtrace::UnscrambleText(data.data(), data.size());
        EXPECT_EQ(plain, data) << "length " << n;
    }
}

TEST(TraceCipherTest, EveryRecordRestartsFromTheStartBlock)
{
    // The same text scrambles the same way whatever came before it.
    std::vector<std::uint8_t> a = {'a', 'b', 'c'}, b = {'x', 'y', 'z', 'w', 'v', 'u', 't', 's', 'r'}, c = a;
    nvtrace::ScrambleText(a.data(), a.size());
    nvtrace::ScrambleText(b.data(), b.size());
    nvtrace::ScrambleText(c.data(), c.size());
    EXPECT_EQ(a, c);
}

TEST(TraceCipherTest, CipherFeedbackCarriesTheCiphertextIntoTheNextChunk)
{
    // Two texts that differ only in byte 3 scramble alike in bytes 0..7 except byte 3,
    // and differently from byte 8 on (the register took the ciphertext).
    std::vector<std::uint8_t> a(16, 'q'), b(16, 'q');
    b[3] = 'r';
    nvtrace::ScrambleText(a.data(), a.size());
    nvtrace::ScrambleText(b.data(), b.size());
    for (int i = 0; i < 8; ++i) {
        if (i == 3) {
            EXPECT_NE(a[i], b[i]);
        } else {
            EXPECT_EQ(a[i], b[i]) << i;
        }
    }
    EXPECT_NE(std::vector<std::uint8_t>(a.begin() + 8, a.end()), std::vector<std::uint8_t>(b.begin() + 8, b.end()));
}
