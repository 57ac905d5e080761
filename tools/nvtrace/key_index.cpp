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
    if (m_last != kEmpty) {
        const Slot& last = m_slots[m_last];
        if (last.at != kEmpty && last.number == number && last.text == text)
            return last.at;
    }
    if ((m_count + 1) * 2 > m_slots.size())
        Grow();
    const std::size_t mask = m_slots.size() - 1;
    std::size_t i = m_hash(number, text) & mask;
    for (std::size_t probe = 0; probe < kLongestProbe; ++probe, i = (i + 1) & mask) {
        Slot& slot = m_slots[i];
        if (slot.at == kEmpty) {
            // Not in the table, but perhaps crowded out of it when it came.
            if (!m_crowded.empty()) {
                const auto crowded = m_crowded.find(std::make_pair(number, text));
                if (crowded != m_crowded.end())
                    return crowded->second;
            }
            slot = Slot{number, text, m_count++};
            added = true;
            m_last = i;
            return slot.at;
        }
        if (slot.number == number && slot.text == text) {
            m_last = i;
            return slot.at;
        }
    }
    m_last = kEmpty;
    const auto [crowded, inserted] = m_crowded.emplace(std::make_pair(number, text), m_count);
    if (inserted) {
        ++m_count;
        added = true;
    }
    return crowded->second;
}

void KeyIndex::Clear()
{
    if (m_slots.size() > kKeptSlots)
        std::vector<Slot>().swap(m_slots);
    else if (m_count > 0)
        std::fill(m_slots.begin(), m_slots.end(), Slot());
    m_crowded.clear();
    m_count = 0;
    m_last = kEmpty;
}

void KeyIndex::Grow()
{
    std::vector<Slot> old(std::max<std::size_t>(16, m_slots.size() * 2));
    old.swap(m_slots);
    for (const Slot& slot : old)
        if (slot.at != kEmpty)
            Place(slot);
    m_last = kEmpty;
}

void KeyIndex::Place(const Slot& slot)
{
    const std::size_t mask = m_slots.size() - 1;
    std::size_t i = m_hash(slot.number, slot.text) & mask;
    for (std::size_t probe = 0; probe < kLongestProbe; ++probe, i = (i + 1) & mask) {
        if (m_slots[i].at == kEmpty) {
            m_slots[i] = slot;
            return;
        }
    }
    m_crowded.emplace(std::make_pair(slot.number, slot.text), slot.at);
}

} // namespace nvtrace
