// Where each entry sits in a list kept in the order its key first appears, for
// keys of a number and a text: users by their conversion and their SID as the
// records hold it, scope paths by the path they open in and their name. The key
// asked for last is looked at first (a user's lines come one after another); the
// others are found by hash in a table of open addressing, which costs no allocation
// per key. Cleared for the next trace, the table keeps its room unless a trace of
// many keys grew it past kKeptSlots. A key is looked for no further than
// kLongestProbe slots from where its hash puts it; one that finds no free slot that
// near is kept in an ordered map instead, so that texts made to collide (a crafted
// trace) cost a bounded walk and a look-up in that map each, not a walk along the
// whole table.
#pragma once
#include <cstddef>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

namespace nvtrace {

class KeyIndex {
public:
    using HashFunction = std::size_t (*)(std::size_t number, std::string_view text);
    static constexpr std::size_t kKeptSlots = 256;
    static constexpr std::size_t kLongestProbe = 32;

    // hash: for tests, one that makes keys collide.
    explicit KeyIndex(HashFunction hash = &Hash) : m_hash(hash) {}

    // The key's position in the list. A key not seen since the last Clear gets the
    // next position, the number of keys seen before it, and `added` is set: the
    // caller appends its entry there. The text must outlive the index's use.
    std::size_t Position(std::size_t number, std::string_view text, bool& added);

    void Clear();

private:
    static constexpr std::size_t kEmpty = static_cast<std::size_t>(-1);
    struct Slot {
        std::size_t number = 0;
        std::string_view text;
        std::size_t at = kEmpty; // the position, or kEmpty for a free slot
    };

    static std::size_t Hash(std::size_t number, std::string_view text);
    void Grow();
    // Puts a key in the table within kLongestProbe of its slot, or else in m_crowded.
    void Place(const Slot& slot);

    HashFunction m_hash;
    std::vector<Slot> m_slots; // a power of two of them, at most half in use
    std::map<std::pair<std::size_t, std::string_view>, std::size_t> m_crowded; // key -> position
    std::size_t m_count = 0;     // keys, in the table and in m_crowded
    std::size_t m_last = kEmpty; // the slot of the key asked for last, when in the table
};

} // namespace nvtrace
