// Traces of many threads: the readers that follow a trace thread by thread keep
// each thread's state apart however many threads a process names, past the few they
// look through one by one, and start afresh with each process.
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "nvtracelib.h"
#include "sample_trace.h"
#include "summary.h"
#include "thread_index.h"
#include "timeline.h"

using nvtrace::ThreadIndex;
using nvtrace_test::SampleTrace;

namespace {

// More threads than the index looks through one by one.
constexpr std::uint32_t kThreads = 3 * ThreadIndex::kFew;

std::uint32_t ThreadId(std::uint32_t n) { return 5000 - 7 * n; }

std::string Sid(std::uint32_t n) { return "S-1-5-21-4-5-6-" + std::to_string(1000 + n); }

// One process in which every thread converts a user of its own, the threads taking
// turns record by record. Every third user is kept with a failing result; the others
// are moved.
SampleTrace Interleaved()
{
    SampleTrace s;
    s.Add(1, 't', "11/15/26").Add(1, 'T', "09:30:00.125");
    for (std::uint32_t n = 0; n < kThreads; ++n)
        s.Add(ThreadId(n), '>', "CBaseConverter::Convert");
    for (std::uint32_t n = 0; n < kThreads; ++n)
        s.UserBegins(ThreadId(n), Sid(n));
    for (std::uint32_t n = 0; n < kThreads; ++n)
        s.Add(ThreadId(n), '>', "CConverter3::ConvertUser");
    for (std::uint32_t n = 0; n < kThreads; ++n) {
        if (n % 3 == 0)
            s.Add(ThreadId(n), 'E', "-2147467261 ");
        else
            s.OldKeyDeleted(ThreadId(n), Sid(n));
    }
    for (std::uint32_t n = 0; n < kThreads; ++n)
        s.Add(ThreadId(n), '<');
    for (std::uint32_t n = 0; n < kThreads; ++n)
        s.UserEnds(ThreadId(n), Sid(n), n % 3 == 0 ? "0x80004003" : "0x00000000");
    for (std::uint32_t n = 0; n < kThreads; ++n)
        s.Add(ThreadId(n), '<');
    return s;
}

// The same process twice, the second after a reopen ('N'), its threads in reverse.
SampleTrace TwoProcesses()
{
    SampleTrace s;
    for (std::uint32_t n = 0; n < kThreads; ++n)
        s.Add(ThreadId(n), '>', "Outer").Add(ThreadId(n), '>', "Inner");
    s.Add(0, 'N', "11-15-2026");
    for (std::uint32_t n = kThreads; n-- > 0;)
        s.Add(ThreadId(n), '>', "Again").Add(ThreadId(n), '<');
    return s;
}

} // namespace

TEST(ThreadIndexTest, PositionsFollowFirstAppearanceBeyondTheFewAndAfterAClear)
{
    ThreadIndex index;
    bool added = false;
    for (int round = 0; round < 2; ++round) {
        for (std::uint32_t n = 0; n < kThreads; ++n) {
            EXPECT_EQ(n, index.Position(ThreadId(n), added)) << n;
            EXPECT_TRUE(added) << n;
        }
        // Each asked again, last first: found where it was put, nothing added.
        for (std::uint32_t n = kThreads; n-- > 0;) {
            EXPECT_EQ(n, index.Position(ThreadId(n), added)) << n;
            EXPECT_FALSE(added) << n;
        }
        index.Clear();
    }
    // After a Clear, a thread seen before it is new, the one asked for last included;
    // with few threads again, each keeps its place.
    index.Position(ThreadId(5), added);
    index.Clear();
    EXPECT_EQ(0u, index.Position(ThreadId(5), added));
    EXPECT_TRUE(added);
    EXPECT_EQ(1u, index.Position(ThreadId(0), added));
    EXPECT_TRUE(added);
    EXPECT_EQ(0u, index.Position(ThreadId(5), added));
    EXPECT_FALSE(added);
    EXPECT_EQ(1u, index.Position(ThreadId(0), added));
    EXPECT_FALSE(added);
}

TEST(ManyThreadsTest, TheListingIndentsEachThreadByItsOwnScopes)
{
    const nvtrace::DecodedTrace trace = nvtrace::Decode(Interleaved().bytes());
    ASSERT_TRUE(trace.ok) << trace.error;
    std::ostringstream out;
    nvtrace::WriteListing(trace, nvtrace::FormatOptions{}, out);
    const std::string listing = out.str();
    for (std::uint32_t n = 0; n < kThreads; ++n) {
        // Two scopes deep when the old key goes: inside Convert and ConvertUser.
        const std::string line = std::to_string(ThreadId(n)) + "      " +
                                 (n % 3 == 0 ? "E 0x80004003 E_POINTER" : "U DeleteKey('" + Sid(n) + "'), 0x00000000");
        EXPECT_NE(std::string::npos, listing.find(" " + line + "\n")) << line;
    }
}

TEST(ManyThreadsTest, TheSummaryCountsEachThreadsRecordsAndEachUsersOutcome)
{
    const SampleTrace sample = Interleaved();
    const nvtrace::DecodedTrace trace = nvtrace::Decode(sample.bytes());
    ASSERT_TRUE(trace.ok) << trace.error;
    const nvtrace::TraceSummary summary = nvtrace::Summarize(trace);
    ASSERT_EQ(1u, summary.processes.size());
    const std::vector<nvtrace::SummaryThread>& threads = summary.processes[0].threads;
    ASSERT_EQ(kThreads, threads.size());
    for (std::uint32_t n = 0; n < kThreads; ++n) {
        EXPECT_EQ(ThreadId(n), threads[n].id);
        // Two scopes entered and left, and three lines or two lines and a result
        // (the date and time records count for no thread).
        EXPECT_EQ(7u, threads[n].records) << n;
    }
    ASSERT_EQ(kThreads, summary.users.size());
    std::size_t moved = 0;
    for (const nvtrace::SummaryUser& u : summary.users)
        moved += u.moved();
    EXPECT_EQ(kThreads - kThreads / 3, moved);
    // The roll-up's row agrees with the full summary.
    nvtrace::TraceDecoder decoder;
    const nvtrace::RowSummary row = nvtrace::SummarizeRow(decoder.Decode(sample.bytes().data(), sample.bytes().size()));
    EXPECT_EQ(kThreads - kThreads / 3, row.moved);
    // Every third user failed: no line says it keeps its old key. Its failure arose
    // once, in its result record; the status that ends it repeats that code.
    EXPECT_EQ(kThreads / 3, row.failed);
    EXPECT_EQ(0u, row.held);
    EXPECT_EQ(0u, row.movedWithGaps);
    EXPECT_EQ((std::map<std::uint32_t, std::size_t>{{0x80004003u, kThreads / 3}}), row.codes);
    EXPECT_EQ(nvtrace::RowSummaryOf(summary).codes, row.codes);
}

TEST(ManyThreadsTest, TheTimelineKeepsEachThreadsLaneAndStartsAfreshWithEachProcess)
{
    const nvtrace::DecodedTrace trace = nvtrace::Decode(TwoProcesses().bytes());
    ASSERT_TRUE(trace.ok) << trace.error;
    const nvtrace::Timeline timeline = nvtrace::BuildTimeline(trace);
    ASSERT_EQ(2u, timeline.processes.size());
    const std::vector<nvtrace::TimelineThread>& first = timeline.processes[0].threads;
    const std::vector<nvtrace::TimelineThread>& second = timeline.processes[1].threads;
    ASSERT_EQ(kThreads, first.size());
    ASSERT_EQ(kThreads, second.size());
    for (std::uint32_t n = 0; n < kThreads; ++n) {
        EXPECT_EQ(ThreadId(n), first[n].id);
        EXPECT_EQ(1u, first[n].maxDepth) << n;
        // The second process met its threads in reverse.
        EXPECT_EQ(ThreadId(kThreads - 1 - n), second[n].id);
        EXPECT_EQ(0u, second[n].maxDepth) << n;
    }
    ASSERT_EQ(3 * kThreads, timeline.scopes.size());
    for (std::uint32_t n = 0; n < kThreads; ++n) {
        const nvtrace::TimelineScope& inner = timeline.scopes[2 * n + 1];
        EXPECT_EQ(ThreadId(n), inner.thread);
        EXPECT_EQ(1u, inner.depth);
        EXPECT_EQ(static_cast<std::ptrdiff_t>(2 * n), inner.parent);
        EXPECT_TRUE(inner.unfinished);
    }

    // The summary, too, starts each process's threads afresh, in the order it meets them.
    const nvtrace::TraceSummary summary = nvtrace::Summarize(trace);
    ASSERT_EQ(2u, summary.processes.size());
    ASSERT_EQ(kThreads, summary.processes[0].threads.size());
    ASSERT_EQ(kThreads, summary.processes[1].threads.size());
    for (std::uint32_t n = 0; n < kThreads; ++n) {
        EXPECT_EQ(ThreadId(n), summary.processes[0].threads[n].id);
        EXPECT_EQ(2u, summary.processes[0].threads[n].records) << n;
        EXPECT_EQ(ThreadId(kThreads - 1 - n), summary.processes[1].threads[n].id);
        EXPECT_EQ(2u, summary.processes[1].threads[n].records) << n;
    }
}
