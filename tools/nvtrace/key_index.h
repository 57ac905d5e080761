// Where each entry sits in a list kept in the order its key first appears, for
// keys of a number and a text: users by their conversion and their SID as the
// records hold it, scope paths by the path they open in and their name. The key
// asked for last is looked at first (a user's lines come one after another); the
// others are found by hash in a table of open addressing, which costs no allocation
// per key. Cleared for the next trace, the table keeps its room unless a trace of
// many keys grew it past kKeptSlots.
#pragma once
#include <cstddef>
#include <string_view>
#include <vector>

namespace nvtrace {

class KeyIndex {
public:
    static constexpr std::size_t kKeptSlots = 256;

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

    std::vector<Slot> m_slots; // a power of two of them, at most half in use
    std::size_t m_count = 0;
    std::size_t m_last = kEmpty; // the slot of the key asked for last
};

} // namespace nvtrace
