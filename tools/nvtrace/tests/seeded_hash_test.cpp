// SeededIntHash: keys a file could choose to share one bucket under the standard hash
// spread over the buckets, and one process hashes a key alike every time.
#include <gtest/gtest.h>
#include <algorithm>
#include <cstdint>
#include <unordered_map>

#include "seeded_hash.h"

namespace {

TEST(SeededIntHashTest, KeysThatShareABucketUnderTheStandardHashSpreadOut)
{
    // Multiples of the bucket count: one chain under the standard hash, the integer
    // itself, which is how a crafted trace could make every look-up walk them all.
    std::unordered_map<std::uint32_t, int> plain;
    std::unordered_map<std::uint32_t, int, nvtrace::SeededIntHash> seeded;
    plain.reserve(20000);
    seeded.reserve(20000);
    const std::size_t buckets = seeded.bucket_count();
    ASSERT_EQ(buckets, plain.bucket_count());
    for (std::uint32_t k = 1; k <= 10000; ++k) {
        plain.emplace(static_cast<std::uint32_t>(k * buckets), 0);
        seeded.emplace(static_cast<std::uint32_t>(k * buckets), 0);
    }
    ASSERT_EQ(buckets, seeded.bucket_count()); // no rehash spread them
    std::size_t plainLongest = 0, seededLongest = 0;
    for (std::size_t b = 0; b < buckets; ++b) {
        plainLongest = std::max(plainLongest, plain.bucket_size(b));
        seededLongest = std::max(seededLongest, seeded.bucket_size(b));
    }
    EXPECT_EQ(10000u, plainLongest);
    EXPECT_LT(seededLongest, 16u);
}

TEST(SeededIntHashTest, OneProcessHashesAKeyAlikeInEveryTable)
{
    const nvtrace::SeededIntHash a, b;
    for (std::uint64_t key : {0ull, 1ull, 42ull, 0xFFFFFFFFull, 0x80070005ull})
        EXPECT_EQ(a(key), b(key)) << key;
    EXPECT_NE(a(1), a(2));
}

} // namespace
