#include "key_index.h"

#include <algorithm>
#include <functional>

namespace nvtrace {

std::size_t KeyIndex::Hash(std::size_t number, std::string_view text)
{
    return std::hash<std::string_view>()(text) ^ (number * 0x9E3779B97F4A7C15u);
}

std::size_t KeyIndex::Position(std::size_t number, std::string_view text, bool& added)
{
    added = false;
    if (m_last != kEmpty && m_slots[m_last].number == number && m_slots[m_last].text == text)
        return m_slots[m_last].at;
    if ((m_count + 1) * 2 > m_slots.size())
        Grow();
    const std::size_t mask = m_slots.size() - 1;
    std::size_t i = Hash(number, text) & mask;
    while (m_slots[i].at != kEmpty) {
        if (m_slots[i].number == number && m_slots[i].text == text) {
            m_last = i;
            return m_slots[i].at;
        }
        i = (i + 1) & mask;
    }
    m_slots[i] = Slot{number, text, m_count++};
    added = true;
    m_last = i;
    return m_slots[i].at;
}

void KeyIndex::Clear()
{
    if (m_slots.size() > kKeptSlots)
        std::vector<Slot>().swap(m_slots);
    else if (m_count > 0)
        std::fill(m_slots.begin(), m_slots.end(), Slot());
    m_count = 0;
    m_last = kEmpty;
}

void KeyIndex::Grow()
{
    std::vector<Slot> old(std::max<std::size_t>(16, m_slots.size() * 2));
    old.swap(m_slots);
    const std::size_t mask = m_slots.size() - 1;
    for (const Slot& s : old) {
        if (s.at == kEmpty)
            continue;
        std::size_t i = Hash(s.number, s.text) & mask;
        while (m_slots[i].at != kEmpty)
            i = (i + 1) & mask;
        m_slots[i] = s;
    }
    m_last = kEmpty;
}

} // namespace nvtrace
