// Where each user's entry sits in a list kept in the order the users first appear,
// by the conversion it belongs to and its SID as the records hold it: for the
// readers that count users. A user's lines come one after another, so the user
// asked for last is looked at first; the others are found by hash in a table of
// open addressing, which costs no allocation per user. Cleared for the next trace,
// the table keeps its room unless a trace of many users grew it past kKeptSlots.
#pragma once
#include <cstddef>
#include <string_view>
#include <vector>

namespace nvtrace {

class UserIndex {
public:
    static constexpr std::size_t kKeptSlots = 256;

    // The user's position in the list. A user not seen since the last Clear gets the
    // next position, the number of users seen before it, and `added` is set: the
    // caller appends its entry there. The SID's text must outlive the index's use.
    std::size_t Position(std::size_t conversion, std::string_view sid, bool& added);

    void Clear();

private:
    static constexpr std::size_t kEmpty = static_cast<std::size_t>(-1);
    struct Slot {
        std::size_t conversion = 0;
        std::string_view sid;
        std::size_t at = kEmpty; // the position, or kEmpty for a free slot
    };

    static std::size_t Hash(std::size_t conversion, std::string_view sid);
    void Grow();

    std::vector<Slot> m_slots; // a power of two of them, at most half in use
    std::size_t m_count = 0;
    std::size_t m_last = kEmpty; // the slot of the user asked for last
};

} // namespace nvtrace
