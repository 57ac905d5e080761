// KeyIndex: positions in the order keys first appear, by number and text (users by
// conversion and SID), kept through the table's growth and started afresh after Clear.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "key_index.h"

namespace {

std::vector<std::string> Sids(std::size_t n)
{
    std::vector<std::string> sids;
    for (std::size_t i = 0; i < n; ++i)
        sids.push_back("S-1-5-21-1-2-3-" + std::to_string(1000 + i));
    return sids;
}

TEST(KeyIndexTest, NewUsersTakeTheNextPositionAndKnownOnesTheirOwn)
{
    nvtrace::KeyIndex index;
    bool added = false;
    EXPECT_EQ(0u, index.Position(0, "S-1-5-21-1", added));
    EXPECT_TRUE(added);
    EXPECT_EQ(0u, index.Position(0, "S-1-5-21-1", added)); // the user asked for last
    EXPECT_FALSE(added);
    EXPECT_EQ(1u, index.Position(0, "S-1-5-21-2", added));
    EXPECT_TRUE(added);
    EXPECT_EQ(2u, index.Position(1, "S-1-5-21-1", added)); // the same SID in another conversion
    EXPECT_TRUE(added);
    EXPECT_EQ(0u, index.Position(0, "S-1-5-21-1", added)); // found by hash
    EXPECT_FALSE(added);
    EXPECT_EQ(3u, index.Position(0, "S-1-5-21-10", added)); // a SID that the other begins
    EXPECT_TRUE(added);
    EXPECT_EQ(4u, index.Position(0, "", added));
    EXPECT_TRUE(added);
    EXPECT_EQ(4u, index.Position(0, "", added));
    EXPECT_FALSE(added);
}

TEST(KeyIndexTest, ManyUsersKeepTheirPositionsAsTheTableGrows)
{
    const std::vector<std::string> sids = Sids(5000);
    nvtrace::KeyIndex index;
    bool added = false;
    for (std::size_t i = 0; i < sids.size(); ++i) {
        ASSERT_EQ(2 * i, index.Position(7, sids[i], added));
        ASSERT_TRUE(added);
        ASSERT_EQ(2 * i + 1, index.Position(8, sids[i], added));
        ASSERT_TRUE(added);
    }
    for (std::size_t i = sids.size(); i-- > 0;) {
        ASSERT_EQ(2 * i, index.Position(7, sids[i], added));
        ASSERT_FALSE(added);
        ASSERT_EQ(2 * i + 1, index.Position(8, sids[i], added));
        ASSERT_FALSE(added);
    }
}

TEST(KeyIndexTest, ClearStartsAfreshWhetherTheTableIsKeptOrLetGo)
{
    // A few users keep the table's room; many grow it past what Clear keeps.
    for (const std::size_t users : {std::size_t(3), nvtrace::KeyIndex::kKeptSlots * 2}) {
        const std::vector<std::string> sids = Sids(users);
        nvtrace::KeyIndex index;
        bool added = false;
        for (const std::string& sid : sids)
            index.Position(0, sid, added);
        index.Clear();
        for (std::size_t round = 0; round < 2; ++round) {
            for (std::size_t i = sids.size(); i-- > 0;) {
                EXPECT_EQ(sids.size() - 1 - i, index.Position(0, sids[i], added)) << users << " users, " << i;
                EXPECT_EQ(round == 0, added) << users << " users, " << i;
            }
        }
    }
}

// Every key of one number in the same slot: a trace crafted so that its SIDs collide.
std::size_t ByNumberOnly(std::size_t number, std::string_view) { return number * 1000003u; }

TEST(KeyIndexTest, KeysThatCollideAreFoundPastTheLongestProbeAndAfterGrowth)
{
    // Four numbers' keys each share a slot: beyond kLongestProbe of them go to the
    // ordered map, and the table grows (moving the others) as keys come.
    const std::vector<std::string> sids = Sids(600);
    nvtrace::KeyIndex index(&ByNumberOnly);
    bool added = false;
    std::size_t next = 0;
    for (std::size_t i = 0; i < sids.size(); ++i) {
        for (std::size_t number = 0; number < 4; ++number) {
            ASSERT_EQ(next++, index.Position(number, sids[i], added)) << number << ' ' << i;
            ASSERT_TRUE(added);
        }
    }
    for (int round = 0; round < 2; ++round) {
        for (std::size_t i = sids.size(); i-- > 0;) {
            for (std::size_t number = 0; number < 4; ++number) {
                ASSERT_EQ(4 * i + number, index.Position(number, sids[i], added)) << number << ' ' << i;
                ASSERT_FALSE(added);
            }
        }
        // Afresh, in the other order: nothing of the table or the map is left.
        index.Clear();
        next = 0;
        for (std::size_t i = sids.size(); i-- > 0;) {
            for (std::size_t number = 0; number < 4; ++number) {
                ASSERT_EQ(next, index.Position(number, sids[i], added)) << number << ' ' << i;
                ASSERT_TRUE(added);
                ASSERT_EQ(next++, index.Position(number, sids[i], added));
            }
        }
        index.Clear();
        next = 0;
        for (std::size_t i = 0; i < sids.size(); ++i)
            for (std::size_t number = 0; number < 4; ++number)
                ASSERT_EQ(next++, index.Position(number, sids[i], added));
    }
}

// The first 64 SIDs of Sids() in one of two slots 256 apart (one slot while the table
// is smaller than that), the others spread.
std::size_t TwoSlotsForTheFirst(std::size_t, std::string_view sid)
{
    const std::size_t i = std::stoul(std::string(sid.substr(sid.rfind('-') + 1))) - 1000;
    return i < 64 ? (i & 1) << 8 : i * 2654435761u;
}

TEST(KeyIndexTest, AKeyCrowdedOutIsFoundWhenGrowthLeavesRoomWhereItWasLookedFor)
{
    // Of the first 64, 32 fill the table's run from their slot and 32 go to the map.
    // As the table grows past 256 slots, the run splits in two half-full runs, where
    // a crowded key's look-up now meets a free slot before it would have found it.
    const std::vector<std::string> sids = Sids(300);
    nvtrace::KeyIndex index(&TwoSlotsForTheFirst);
    bool added = false;
    for (std::size_t i = 0; i < sids.size(); ++i) {
        ASSERT_EQ(i, index.Position(0, sids[i], added)) << i;
        ASSERT_TRUE(added);
    }
    for (std::size_t i = 0; i < sids.size(); ++i) {
        ASSERT_EQ(i, index.Position(0, sids[i], added)) << i;
        ASSERT_FALSE(added) << i;
    }
}

// Keys whose text names their hash: "<hash>:<name>".
std::size_t HashInTheText(std::size_t, std::string_view text)
{
    return std::stoul(std::string(text.substr(0, text.find(':'))));
}

TEST(KeyIndexTest, AKeyThatGrowthLeavesNoRoomNearItsSlotIsKeptAsideAndStillFound)
{
    // K and 31 more share slot 240: 112 of a table of 128, 48 of one of 64. Keys are
    // moved to a grown table in the order of their old slots. At 64 slots the 32 ran
    // from 48 round the end to 15, so growing to 128 moved the 16 at 0 to 15 first
    // (to 112..127), and K and the 15 after it went round to 0..15; the 16 keys of
    // slots 0 to 15 that came next were pushed on to 16..31. The 65th key grows the
    // table to 256: K's 16 fill 240..255, the 16 pushed keys their own slots 0..15,
    // and the 16 from 112..127 find no free slot within the longest probe from 240:
    // growth puts them in the ordered map, where they must still be found.
    std::vector<std::string> keys;
    keys.push_back("240:K");
    for (int i = 0; i < 31; ++i)
        keys.push_back("240:X" + std::to_string(i));
    for (int i = 0; i < 16; ++i)
        keys.push_back(std::to_string(i) + ":Y" + std::to_string(i));
    for (int i = 0; i < 17; ++i)
        keys.push_back(std::to_string(40 + i) + ":filler" + std::to_string(i));
    ASSERT_EQ(65u, keys.size());
    nvtrace::KeyIndex index(&HashInTheText);
    bool added = false;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        ASSERT_EQ(i, index.Position(7, keys[i], added)) << keys[i];
        ASSERT_TRUE(added) << keys[i];
    }
    // Every key where it was, from either order, and a new one after them.
    for (int round = 0; round < 2; ++round) {
        for (std::size_t j = 0; j < keys.size(); ++j) {
            const std::size_t i = round == 0 ? j : keys.size() - 1 - j;
            ASSERT_EQ(i, index.Position(7, keys[i], added)) << keys[i];
            ASSERT_FALSE(added) << keys[i];
        }
    }
    const std::string late = "240:late";
    EXPECT_EQ(keys.size(), index.Position(7, late, added));
    EXPECT_TRUE(added);
    EXPECT_EQ(keys.size(), index.Position(7, late, added));
    EXPECT_FALSE(added);
    // The same texts under another number are other keys.
    EXPECT_EQ(keys.size() + 1, index.Position(8, keys[0], added));
    EXPECT_TRUE(added);
}

} // namespace
