#include "user_index.h"

#include <algorithm>
#include <functional>

namespace nvtrace {

std::size_t UserIndex::Hash(std::size_t conversion, std::string_view sid)
{
    return std::hash<std::string_view>()(sid) ^ (conversion * 0x9E3779B97F4A7C15u);
}

std::size_t UserIndex::Position(std::size_t conversion, std::string_view sid, bool& added)
{
    added = false;
    if (m_last != kEmpty && m_slots[m_last].conversion == conversion && m_slots[m_last].sid == sid)
        return m_slots[m_last].at;
    if ((m_count + 1) * 2 > m_slots.size())
        Grow();
    const std::size_t mask = m_slots.size() - 1;
    std::size_t i = Hash(conversion, sid) & mask;
    while (m_slots[i].at != kEmpty) {
        if (m_slots[i].conversion == conversion && m_slots[i].sid == sid) {
            m_last = i;
            return m_slots[i].at;
        }
        i = (i + 1) & mask;
    }
    m_slots[i] = Slot{conversion, sid, m_count++};
    added = true;
    m_last = i;
    return m_slots[i].at;
}

void UserIndex::Clear()
{
    if (m_slots.size() > kKeptSlots)
        std::vector<Slot>().swap(m_slots);
    else if (m_count > 0)
        std::fill(m_slots.begin(), m_slots.end(), Slot());
    m_count = 0;
    m_last = kEmpty;
}

void UserIndex::Grow()
{
    std::vector<Slot> old(std::max<std::size_t>(16, m_slots.size() * 2));
    old.swap(m_slots);
    const std::size_t mask = m_slots.size() - 1;
    for (const Slot& s : old) {
        if (s.at == kEmpty)
            continue;
        std::size_t i = Hash(s.conversion, s.sid) & mask;
        while (m_slots[i].at != kEmpty)
            i = (i + 1) & mask;
        m_slots[i] = s;
    }
    m_last = kEmpty;
}

} // namespace nvtrace
