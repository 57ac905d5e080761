// Where each thread's entry sits in a list kept in the order the threads first
// appear, for the readers that follow a trace thread by thread. A trace of the
// library has a handful of threads, found with a look at their few ids; a damaged
// or crafted file may name a new thread in every record, so past kFew threads the
// ids go into a hash map as well, and a record costs the same however many there
// are (a search of the list per record made such a file take quadratic time). The
// map hashes with a seed of the process's own, so a file cannot choose ids that
// collide.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>

#include "seeded_hash.h"

namespace nvtrace {

class ThreadIndex {
public:
    static constexpr std::size_t kFew = 16;
    static constexpr std::size_t kKeptMany = 1024;

    // The thread's position in the list. A thread not seen since the last Clear gets
    // the next position, the number of threads seen before it, and `added` is set:
    // the caller appends its entry there.
    std::size_t Position(std::uint32_t id, bool& added)
    {
        added = false;
        // Most records come from the thread of the record before.
        if (m_count > 0 && id == m_lastId)
            return m_lastAt;
        const std::size_t at = Find(id, added);
        m_lastId = id;
        m_lastAt = at;
        return at;
    }

    void Clear()
    {
        // The map of a process of very many threads is let go, not kept for the next.
        if (m_many && m_many->size() > kKeptMany)
            m_many.reset();
        else if (m_many)
            m_many->clear();
        m_count = 0;
    }

private:
    // The look-up past the thread before: out of line, so that Position stays small
    // enough to be inlined into each reader's loop.
    std::size_t Find(std::uint32_t id, bool& added);

    std::array<std::uint32_t, kFew> m_few;
    std::size_t m_count = 0;
    std::uint32_t m_lastId = 0; // the thread asked for last, at m_lastAt (when m_count > 0)
    std::size_t m_lastAt = 0;
    // Every thread, once there are more than kFew; made only then, since a reader per
    // file of a fleet makes an index per file.
    std::unique_ptr<std::unordered_map<std::uint32_t, std::size_t, SeededIntHash>> m_many;
};

} // namespace nvtrace
