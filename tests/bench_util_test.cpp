// The benchmarks' measure of a conversion's peak private memory (bench/bench_util.h):
// memory that was committed and touched, then freed before the measure ends, still
// counts, whether the sampling thread or the caller looked while it was held, as it
// does in Windows' own peak. (Wine reports only the private pages of the moment in
// that field, so without the looks it would not.)
#include <gtest/gtest.h>
#include <windows.h>

#include <chrono>
#include <thread>

#include "../bench/bench_util.h"

namespace {

constexpr SIZE_T kHeld = 48u << 20;

// Commits and touches a block of kHeld bytes; null when it cannot.
unsigned char* TouchedBlock()
{
    auto* block = static_cast<unsigned char*>(::VirtualAlloc(nullptr, kHeld, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    for (SIZE_T at = 0; block && at < kHeld; at += 4096)
        block[at] = 1;
    return block;
}

// Waits, at most ten seconds, until the sampler has looked `more` times more.
bool AwaitLooks(const nvbench::PrivatePeak& peak, std::size_t more)
{
    const std::size_t target = peak.Looks() + more;
    for (int i = 0; i < 1000 && peak.Looks() < target; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return peak.Looks() >= target;
}

} // namespace

TEST(PrivatePeakTest, MemoryFreedBeforeTheMeasureEndsStillCountsInThePeak)
{
    const SIZE_T before = nvbench::MemoryNow().PagefileUsage;
    nvbench::PrivatePeak peak;
    unsigned char* block = TouchedBlock();
    ASSERT_NE(nullptr, block);
    // Held until the sampler has looked twice with the block in place.
    const bool looked = AwaitLooks(peak, 2);
    ASSERT_TRUE(::VirtualFree(block, 0, MEM_RELEASE));
    ASSERT_TRUE(looked) << "the sampling thread did not look within ten seconds";
    EXPECT_TRUE(AwaitLooks(peak, 1));

    const ULONGLONG measured = peak.Stop();
    EXPECT_GE(measured, before + kHeld - (4u << 20)) << "before " << before << ", peak " << measured;
    // Stopped once: the figure stays.
    EXPECT_EQ(measured, peak.Stop());
}

TEST(PrivatePeakTest, ALookOfTheCallersOwnCountsInThePeak)
{
    const SIZE_T before = nvbench::MemoryNow().PagefileUsage;
    nvbench::PrivatePeak peak;
    unsigned char* block = TouchedBlock();
    ASSERT_NE(nullptr, block);
    const std::size_t looks = peak.Looks();
    peak.Look();
    EXPECT_GT(peak.Looks(), looks);
    ASSERT_TRUE(::VirtualFree(block, 0, MEM_RELEASE));

    const ULONGLONG measured = peak.Stop();
    EXPECT_GE(measured, before + kHeld - (4u << 20)) << "before " << before << ", peak " << measured;
}

TEST(PrivatePeakTest, APeakNeverStoppedEndsItsThreadWhenItGoes)
{
    std::size_t looks = 0;
    {
        nvbench::PrivatePeak peak;
        ASSERT_TRUE(AwaitLooks(peak, 1));
        looks = peak.Looks();
    }
    EXPECT_GE(looks, 1u);
}
