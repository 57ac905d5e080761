// The reserve of exception objects: slots of a fixed size, each given out once until
// it comes back, cleared when given out, and nothing taken for memory of its own.
// (The DLL alone routes its exception objects through it; this executable does not,
// so the reserve is the test's own here.)
#include <windows.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <cstring>
#include <set>
#include <vector>

#include "com/exceptionreserve.h"

using nvframe::GiveBackReservedExceptionSlot;
using nvframe::kReservedExceptionBytes;
using nvframe::kReservedExceptionSlots;
using nvframe::TakeReservedExceptionSlot;

namespace {

// Every slot the test took goes back, so that each test starts with a full reserve.
class ExceptionReserveTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        for (void* p : m_taken)
            EXPECT_TRUE(GiveBackReservedExceptionSlot(p));
    }
    void* Take(std::size_t size)
    {
        void* p = TakeReservedExceptionSlot(size);
        if (p)
            m_taken.push_back(p);
        return p;
    }
    void GiveBack(void* p)
    {
        EXPECT_TRUE(GiveBackReservedExceptionSlot(p));
        m_taken.erase(std::find(m_taken.begin(), m_taken.end(), p));
    }
    std::vector<void*> m_taken;
};

} // namespace

TEST_F(ExceptionReserveTest, ThirtyTwoDistinctSlotsAndThenNone)
{
    std::set<void*> slots;
    for (unsigned i = 0; i < kReservedExceptionSlots; ++i) {
        void* p = Take(kReservedExceptionBytes);
        ASSERT_NE(nullptr, p) << "slot " << i;
        slots.insert(p);
    }
    EXPECT_EQ(kReservedExceptionSlots, slots.size());
    EXPECT_EQ(nullptr, Take(1));
}

TEST_F(ExceptionReserveTest, AnObjectLargerThanASlotGetsNone)
{
    EXPECT_EQ(nullptr, Take(kReservedExceptionBytes + 1));
    // The refusal took nothing: every slot is still there.
    for (unsigned i = 0; i < kReservedExceptionSlots; ++i)
        ASSERT_NE(nullptr, Take(16)) << "slot " << i;
}

TEST_F(ExceptionReserveTest, ASlotGivenBackIsGivenOutAgainCleared)
{
    for (unsigned i = 0; i < kReservedExceptionSlots; ++i)
        ASSERT_NE(nullptr, Take(8));
    void* p = m_taken[5];
    std::memset(p, 0xAB, kReservedExceptionBytes);
    GiveBack(p);
    void* again = Take(kReservedExceptionBytes);
    ASSERT_EQ(p, again);
    EXPECT_EQ(std::vector<unsigned char>(kReservedExceptionBytes, 0),
              std::vector<unsigned char>(static_cast<unsigned char*>(again),
                                         static_cast<unsigned char*>(again) + kReservedExceptionBytes));
}

TEST_F(ExceptionReserveTest, MemoryOutsideTheReserveIsNotTaken)
{
    void* slot = Take(8);
    ASSERT_NE(nullptr, slot);
    unsigned char own[16] = {};
    EXPECT_FALSE(GiveBackReservedExceptionSlot(own));
    EXPECT_FALSE(GiveBackReservedExceptionSlot(nullptr));
    // Right behind the last slot: outside as well.
    unsigned char* first = static_cast<unsigned char*>(slot);
    EXPECT_FALSE(GiveBackReservedExceptionSlot(first + kReservedExceptionSlots * kReservedExceptionBytes));
}
