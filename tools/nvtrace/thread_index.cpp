#include "thread_index.h"

namespace nvtrace {

std::size_t ThreadIndex::Find(std::uint32_t id, bool& added)
{
    if (m_count <= kFew) {
        for (std::size_t i = 0; i < m_count; ++i)
            if (m_few[i] == id)
                return i;
    } else {
        const auto it = m_many->find(id);
        if (it != m_many->end())
            return it->second;
    }
    added = true;
    const std::size_t at = m_count++;
    if (at < kFew) {
        m_few[at] = id;
    } else {
        if (!m_many)
            m_many = std::make_unique<std::unordered_map<std::uint32_t, std::size_t, SeededIntHash>>();
        if (m_many->empty())
            for (std::size_t i = 0; i < kFew; ++i)
                m_many->emplace(m_few[i], i);
        m_many->emplace(id, at);
    }
    return at;
}

} // namespace nvtrace
