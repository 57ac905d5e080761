#include "timeline.h"
#include "summary.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "thread_index.h"

namespace nvtrace {

namespace {

// The file's clock: the last date and time records seen. Readings out of range
// (a damaged or forged record) are ignored.
class FileClock {
public:
    void Date(const std::string& mmddyy) { SetDate(mmddyy, 2000 + Digits(mmddyy, 6, 2), mmddyy); }
    void Reopened(const std::string& mmddyyyy)
    {
        SetDate(mmddyyyy, Digits(mmddyyyy, 6, 4),
                mmddyyyy.substr(0, 2) + "/" + mmddyyyy.substr(3, 2) + "/" + mmddyyyy.substr(8, 2));
        m_timeKnown = false; // a new process: its time comes with its first record
        m_timeText.clear();
    }
    void Time(const std::string& text)
    {
        const int h = Digits(text, 0, 2), mi = Digits(text, 3, 2), s = Digits(text, 6, 2), ms = Digits(text, 9, 3);
        if (h < 0 || h > 23 || mi < 0 || mi > 59 || s < 0 || s > 60 || ms < 0)
            return;
        m_ms = ((h * 60 + mi) * 60 + s) * 1000LL + ms;
        m_timeKnown = true;
        m_timeText = text;
    }
    bool known() const { return m_days != kNoDate && m_timeKnown; }
    std::int64_t nowMs() const { return m_days * 86400000LL + m_ms; }
    std::string text() const
    {
        if (m_dateText.empty())
            return std::string();
        return m_timeKnown ? m_dateText + " " + m_timeText : m_dateText;
    }

private:
    static constexpr std::int64_t kNoDate = INT64_MIN;
    void SetDate(const std::string& text, int year, const std::string& shown)
    {
        const int m = Digits(text, 0, 2), d = Digits(text, 3, 2);
        if (m < 1 || m > 12 || d < 1 || d > 31 || year < 0)
            return;
        m_days = DaysFromCivil(year, static_cast<unsigned>(m), static_cast<unsigned>(d));
        m_dateText = shown;
    }
    std::int64_t m_days = kNoDate;
    std::int64_t m_ms = 0;
    bool m_timeKnown = false;
    std::string m_dateText, m_timeText;
};

class Builder {
public:
    Builder(const DecodedTrace& trace, const TraceSummary& summary)
    {
        // Where each failure arose, by record offset, in file order.
        for (const SummaryFailure& f : summary.failures)
            for (const std::uint64_t offset : f.offsets)
                m_arose.emplace_back(offset, &f);
        std::sort(m_arose.begin(), m_arose.end(),
                  [](const auto& a, const auto& b) { return a.first < b.first; });
        m_timeline.complete = trace.ok;
        m_timeline.damage = trace.error;
        StartProcess();
        for (const Record& r : trace.records)
            Add(r);
        EndProcess();
        m_timeline.endUs = m_last < 0 ? 0 : m_last;
    }
    Timeline Take() { return std::move(m_timeline); }

private:
    void Add(const Record& r)
    {
        if (r.kind == 't') {
            m_clock.Date(r.text);
            return;
        }
        if (r.kind == 'T') {
            m_clock.Time(r.text);
            return;
        }
        if (r.kind == 'N') {
            // Written as the next process opens the file, right before its first record.
            EndProcess();
            StartProcess();
            m_clock.Reopened(r.text);
            return;
        }
        const TimelineUs at = Instant();
        TimelineProcess& process = m_timeline.processes.back();
        if (!m_processHasRecords) {
            process.beginUs = at;
            m_processHasRecords = true;
        }
        process.endUs = at;
        // A reopened file's process knows its date first and its time later.
        if (process.started.size() <= 8)
            process.started = m_clock.text();

        std::vector<std::size_t>& stack = m_stacks[r.thread];
        bool added = false;
        const std::size_t threadAt = m_threadAt.Position(r.thread, added);
        if (added)
            process.threads.push_back({r.thread, 0});
        TimelineThread* const thread = &process.threads[threadAt];
        const std::ptrdiff_t innermost = stack.empty() ? -1 : static_cast<std::ptrdiff_t>(stack.back());

        switch (r.kind) {
        case '>': {
            TimelineScope scope;
            scope.name = r.text;
            scope.process = process.ordinal;
            scope.thread = r.thread;
            scope.depth = stack.size();
            scope.parent = innermost;
            scope.pathHead = scope.depth < kPathOuterScopes ? static_cast<std::ptrdiff_t>(m_timeline.scopes.size())
                                                             : m_timeline.scopes[stack.back()].pathHead;
            scope.beginUs = scope.endUs = at;
            scope.offset = r.offset;
            thread->maxDepth = std::max(thread->maxDepth, scope.depth);
            stack.push_back(m_timeline.scopes.size());
            m_timeline.scopes.push_back(std::move(scope));
            break;
        }
        case '<':
            // A leave without an enter (the file began inside a scope) has nothing to close.
            if (!stack.empty()) {
                m_timeline.scopes[stack.back()].endUs = at;
                stack.pop_back();
            }
            break;
        case 'E': {
            // Read as the summary reads it, so that the two agree on every failure.
            const ResultRecord result = RecognizeResult(r.text);
            if (!result.failing)
                break; // success results (facility 9) are no failures
            TimelineMark mark = Mark(TimelineMarkKind::Failure, r, at, innermost);
            mark.code = static_cast<std::uint32_t>(result.code);
            mark.text.assign(result.text);
            const SummaryFailure* arose = Arose(r.offset);
            mark.passedOn = arose == nullptr || !arose->user.empty();
            CountInScope(innermost);
            m_timeline.marks.push_back(std::move(mark));
            break;
        }
        case 'U': {
            const SummaryFailure* f = Arose(r.offset);
            if (f && !f->user.empty()) {
                // A user's failure with no result record: its line is where it arose.
                TimelineMark failure = Mark(TimelineMarkKind::Failure, r, at, innermost);
                failure.code = static_cast<std::uint32_t>(f->code);
                failure.user = f->user;
                failure.text = r.text;
                CountInScope(innermost);
                m_timeline.marks.push_back(std::move(failure));
            }
            TimelineMark mark = Mark(TimelineMarkKind::Line, r, at, innermost);
            mark.text = r.text;
            m_timeline.marks.push_back(std::move(mark));
            break;
        }
        default:
            break;
        }
    }

    void CountInScope(std::ptrdiff_t scope)
    {
        if (scope >= 0)
            ++m_timeline.scopes[static_cast<std::size_t>(scope)].failures;
    }

    // The summary's failure that arose at this record, if one did. The records come
    // in file order, so the list is walked once.
    const SummaryFailure* Arose(std::uint64_t offset)
    {
        while (m_nextArose < m_arose.size() && m_arose[m_nextArose].first < offset)
            ++m_nextArose;
        return m_nextArose < m_arose.size() && m_arose[m_nextArose].first == offset ? m_arose[m_nextArose].second
                                                                                    : nullptr;
    }

    TimelineMark Mark(TimelineMarkKind kind, const Record& r, TimelineUs at, std::ptrdiff_t scope) const
    {
        TimelineMark mark;
        mark.kind = kind;
        mark.process = m_timeline.processes.back().ordinal;
        mark.thread = r.thread;
        mark.atUs = at;
        mark.scope = scope;
        mark.offset = r.offset;
        return mark;
    }

    // The clock's reading, but at least 1 µs after the record before.
    TimelineUs Instant()
    {
        TimelineUs at = m_last + 1;
        if (m_clock.known()) {
            if (!m_haveOrigin) {
                m_haveOrigin = true;
                m_originMs = m_clock.nowMs();
                m_timeline.origin = m_clock.text();
            }
            at = std::max(at, (m_clock.nowMs() - m_originMs) * 1000);
        }
        m_last = at;
        return at;
    }

    void StartProcess()
    {
        TimelineProcess p;
        p.ordinal = static_cast<unsigned>(m_timeline.processes.size() + 1);
        p.beginUs = p.endUs = m_last < 0 ? 0 : m_last;
        m_timeline.processes.push_back(p);
        m_threadAt.Clear();
        m_processHasRecords = false;
    }

    // Scopes still open end with the process's last record.
    void EndProcess()
    {
        TimelineProcess& process = m_timeline.processes.back();
        for (auto& entry : m_stacks) {
            for (std::size_t index : entry.second) {
                TimelineScope& scope = m_timeline.scopes[index];
                scope.endUs = process.endUs;
                scope.unfinished = true;
                ++process.unfinishedScopes;
            }
        }
        m_stacks.clear();
    }

    Timeline m_timeline;
    std::vector<std::pair<std::uint64_t, const SummaryFailure*>> m_arose;
    std::size_t m_nextArose = 0;
    FileClock m_clock;
    bool m_haveOrigin = false;
    std::int64_t m_originMs = 0;
    TimelineUs m_last = -1;
    bool m_processHasRecords = false;
    std::map<std::uint32_t, std::vector<std::size_t>> m_stacks; // open scopes per thread
    ThreadIndex m_threadAt; // the current process's threads in its TimelineProcess
};

} // namespace

Timeline BuildTimeline(const DecodedTrace& trace, const TraceSummary& summary)
{
    return Builder(trace, summary).Take();
}

Timeline BuildTimeline(const DecodedTrace& trace) { return BuildTimeline(trace, Summarize(trace)); }

std::size_t AroseFailures(const Timeline& timeline)
{
    std::size_t failures = 0;
    for (const TimelineMark& m : timeline.marks)
        failures += m.kind == TimelineMarkKind::Failure && !m.passedOn;
    return failures;
}

std::string ScopePath(const Timeline& timeline, std::ptrdiff_t scope)
{
    if (scope < 0 || static_cast<std::size_t>(scope) >= timeline.scopes.size())
        return "(outside any scope)";
    // The names shown: the innermost ones walking up from the scope, and the head's
    // from where it ends. The levels between are neither walked nor asked for.
    const TimelineScope& s = timeline.scopes[static_cast<std::size_t>(scope)];
    const std::size_t levels = s.depth + 1;
    const bool whole = levels <= kPathOuterScopes + kPathInnerScopes;
    // The `count` names up to and including `at`, outermost first.
    auto walk = [&timeline](std::ptrdiff_t at, std::size_t count) {
        std::vector<std::string_view> names(count);
        for (std::size_t i = count; i-- > 0 && at >= 0; at = timeline.scopes[static_cast<std::size_t>(at)].parent)
            names[i] = timeline.scopes[static_cast<std::size_t>(at)].name;
        return names;
    };
    const std::vector<std::string_view> tail = walk(scope, whole ? levels : kPathInnerScopes);
    const std::vector<std::string_view> head = whole ? std::vector<std::string_view>() : walk(s.pathHead, kPathOuterScopes);
    return ScopePathText(levels, [&](std::size_t level) {
        if (whole)
            return tail[level];
        return level < kPathOuterScopes ? head[level] : tail[level - (levels - kPathInnerScopes)];
    });
}

std::string HexCode(std::uint32_t code)
{
    char buf[16];
    std::snprintf(buf, sizeof(buf), "0x%08X", static_cast<unsigned>(code));
    return buf;
}

} // namespace nvtrace
