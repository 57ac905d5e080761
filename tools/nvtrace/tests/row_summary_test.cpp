// The roll-up's row figures (SummarizeRow, built straight from the records) against
// the same figures read from the full summary (RowSummaryOf): the fixture trace of
// the real library, hand-made traces of each case a row counts, and many random
// traces of the library's scopes, results and lines.
#include <gtest/gtest.h>
#include <algorithm>
#include <cstdint>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "nvtracelib.h"
#include "sample_trace.h"
#include "summary.h"

using nvtrace_test::SampleTrace;

namespace {

std::string RowText(const nvtrace::RowSummary& row)
{
    std::ostringstream out;
    out << "started=" << row.started << " moved=" << row.moved << " gaps=" << row.movedWithGaps << " held=" << row.held
        << " failed=" << row.failed << " first=" << (row.hasFailure ? nvtrace::Hex8(row.firstFailure) : "-")
        << " codes:";
    for (const auto& [code, count] : row.codes)
        out << ' ' << nvtrace::Hex8(code) << 'x' << count;
    return out.str();
}

// Both rows of one file image; returns the lean one for the callers' own checks.
nvtrace::RowSummary ExpectSameRow(int line, const std::vector<std::uint8_t>& bytes, const std::string& what)
{
    nvtrace::TraceDecoder decoder;
    const nvtrace::TraceView& view = decoder.Decode(bytes.data(), bytes.size());
    nvtrace::RowSummary lean = nvtrace::SummarizeRow(view);
    EXPECT_EQ(RowText(nvtrace::RowSummaryOf(nvtrace::Summarize(view))), RowText(lean))
        << what << " (checked at line " << line << ")";
    return lean;
}

std::vector<std::uint8_t> ReadFixture(const std::string& name)
{
    std::vector<std::uint8_t> data;
    std::string error;
    EXPECT_TRUE(nvtrace::ReadWholeFile(std::string(NVTRACE_TEST_DATA) + "/" + name, data, error)) << error;
    return data;
}

const char* const kSids[] = {"S-1-5-21-1-2-3-1001", "S-1-5-21-1-2-3-1002", "S-1-5-21-1-2-3-1003"};
const char* const kScopes[] = {"CBaseConverter::Convert", "CConverter3::do_Convert", "CConverter2::do_Convert",
                               "CBaseConverter::Backup",  "CNVSecret::GetContent",   "CBaseConverter::Rollback"};
const char* const kResults[] = {"-2146893819 ", "-2147024891 denied", "-2147467261 ", "5 ", "0x80004005", "-2146893811"};
const char* const kStatuses[] = {"0x00000000", "0x80090005", "0x8009000D", "0x80004003", "0x80090016"};

// One of the lines a summary reads (or one it does not), about a random user.
std::string RandomLine(std::mt19937& rng)
{
    auto pick = [&rng](const auto& list) { return std::string(list[rng() % std::size(list)]); };
    const std::string sid = pick(kSids);
    const std::string missing = rng() % 4 == 0 ? "" : "secret not stored 'SystemLogonInfo' (0x80004005)";
    switch (rng() % 11) {
    case 0: return "Conversion process began for '" + sid + "'";
    case 1: return "Conversion process is over for '" + sid + "', " + pick(kStatuses);
    case 2: return "DeleteKey('" + sid + "'), " + (rng() % 3 == 0 ? "0x80070005" : "0x00000000");
    case 3: return "Incomplete user '" + sid + "' moved with gaps: " + missing;
    case 4: return "Incomplete user '" + sid + "' keeps its old key: " + missing;
    case 5: return "Conversion policy: strict";
    case 6: return "Retrieve payload";
    case 7: return "wszVersion = 2.0";
    case 8: return "value \"Pin\" of HKLM\\SOFTWARE\\Norvane\\" + sid + " is empty: the backup cannot copy empty values";
    case 9: return "Conversion process began for " + sid; // no quotes: not the user's line
    default: return "Read password secret from old DB";
    }
}

// Records of every kind a summary reads, on a few threads, in up to a few processes.
SampleTrace RandomTrace(std::mt19937& rng, std::size_t records, std::uint32_t threads = 3)
{
    SampleTrace s;
    auto pick = [&rng](const auto& list) { return std::string(list[rng() % std::size(list)]); };
    for (std::size_t i = 0; i < records; ++i) {
        const std::uint32_t thread = 1 + static_cast<std::uint32_t>(rng() % threads);
        const unsigned kind = rng() % 40;
        if (kind == 0)
            s.Add(0, 'N', "11-16-2026");
        else if (kind < 3)
            s.Add(thread, 'T', "09:31:00.500");
        else if (kind < 12)
            s.Add(thread, '>', pick(kScopes));
        else if (kind < 20)
            s.Add(thread, '<');
        else if (kind < 27)
            s.Add(thread, 'E', pick(kResults));
        else
            s.Add(thread, 'U', RandomLine(rng));
    }
    return s;
}

TEST(RowSummaryTest, TheFixtureOfTheRealLibraryGivesTheSameRowBothWays)
{
    const std::vector<std::uint8_t> bytes = ReadFixture("three_runs.trc3");
    ASSERT_FALSE(bytes.empty());
    const nvtrace::RowSummary row = ExpectSameRow(__LINE__, bytes, "three_runs.trc3");
    EXPECT_FALSE(row.started.empty());
    EXPECT_GT(row.moved + row.movedWithGaps + row.held + row.failed, 0u) << RowText(row);
}

TEST(RowSummaryTest, EachCaseARowCountsGivesTheSameRowBothWays)
{
    const std::string a = kSids[0], b = kSids[1];
    SampleTrace guard; // a user the guard caught, and one whose delete failed
    guard.ConversionStarts(4).UserBegins(4, a).UserEnds(4, a, "0x80090005").UserBegins(4, b);
    guard.Add(4, 'U', "DeleteKey('" + b + "'), 0x80070005").UserEnds(4, b, "0x80070005").Add(4, '<').Add(4, '<');
    const nvtrace::RowSummary guardRow = ExpectSameRow(__LINE__, guard.bytes(), "guard");
    EXPECT_EQ("started=2026-11-15 09:30:00.125 moved=1 gaps=0 held=0 failed=1 first=0x80090005 codes: 0x80090005x1",
              RowText(guardRow));

    SampleTrace passedUp; // one failure passed up three scopes, one traced while a user ran
    passedUp.ConversionStarts(6).UserBegins(6, a).Add(6, '>', "CNVSecret::GetContent").Add(6, 'E', "-2146893819 ");
    passedUp.Add(6, '<').UserEnds(6, a, "0x80090005").Add(6, 'E', "-2146893819 ").Add(6, '<');
    passedUp.Add(6, 'E', "-2146893819 ").Add(6, '<');
    EXPECT_EQ("started=2026-11-15 09:30:00.125 moved=0 gaps=0 held=0 failed=1 first=0x80090005 codes: 0x80090005x1",
              RowText(ExpectSameRow(__LINE__, passedUp.bytes(), "passed up")));

    SampleTrace loose; // lines outside any conversion's scope, a strict policy, gaps with nothing after them
    loose.Add(2, 'U', "Conversion policy: strict").UserBegins(2, a);
    loose.Add(2, 'U', "Incomplete user '" + a + "' keeps its old key: secret not stored").UserEnds(2, a, "0x80040201");
    loose.Add(0, 'N', "11-16-2026").UserBegins(2, a).Add(2, 'U', "Incomplete user '" + a + "' moved with gaps: ");
    loose.OldKeyDeleted(2, a).UserEnds(2, a, "0x00000000");
    EXPECT_EQ("started=2026-11-15 09:30:00.125 moved=1 gaps=0 held=1 failed=0 first=0x80040201 codes: 0x80040201x1",
              RowText(ExpectSameRow(__LINE__, loose.bytes(), "loose")));
}

TEST(RowSummaryTest, AResultAmongManyFailedCalleesPassesOnTheLatestWithItsCode)
{
    // 300 callees fail with codes of their own, one of them twice; the caller then
    // traces each code again (passing it on) and one code no callee had (arising).
    constexpr int kCallees = 300;
    SampleTrace s;
    s.ConversionStarts(3);
    for (int i = 0; i <= kCallees; ++i) {
        // The last repeats the first code, with another text: a failure record of its own.
        const std::string result = i == kCallees ? "-1000 again" : std::to_string(-1000 - i) + " ";
        s.Add(3, '>', "CNVSecret::GetContent").Add(3, 'E', result).Add(3, '<');
    }
    for (int i = kCallees - 1; i >= 0; --i)
        s.Add(3, 'E', std::to_string(-1000 - i) + " ");
    s.Add(3, 'E', "-999 ").Add(3, '<').Add(3, '<');

    const nvtrace::RowSummary row = ExpectSameRow(__LINE__, s.bytes(), "many callees");
    std::size_t arose = 0;
    for (const auto& [code, count] : row.codes)
        arose += count;
    EXPECT_EQ(std::size_t(kCallees + 2), arose) << RowText(row); // each callee's, the repeat, -999
    EXPECT_EQ(2u, row.codes.at(static_cast<std::uint32_t>(-1000)));
    EXPECT_EQ(1u, row.codes.at(static_cast<std::uint32_t>(-999)));

    // The full summary passes each code on to the latest failure with it: the repeat
    // of -1000, not the first.
    const nvtrace::TraceSummary summary = nvtrace::Summarize(nvtrace::Decode(s.bytes()));
    std::size_t passedUp = 0;
    for (const nvtrace::SummaryFailure& f : summary.failures)
        passedUp += f.passedUp;
    EXPECT_EQ(std::size_t(kCallees), passedUp);
    const auto first = std::find_if(summary.failures.begin(), summary.failures.end(),
                                    [](const nvtrace::SummaryFailure& f) { return f.code == -1000; });
    ASSERT_NE(summary.failures.end(), first);
    const auto repeat = std::find_if(first + 1, summary.failures.end(),
                                     [](const nvtrace::SummaryFailure& f) { return f.code == -1000; });
    ASSERT_NE(summary.failures.end(), repeat);
    EXPECT_EQ("again", repeat->text);
    EXPECT_EQ(0u, first->passedUp);
    EXPECT_EQ(1u, repeat->passedUp);
}

TEST(RowSummaryTest, ManyRandomTracesGiveTheSameRowBothWays)
{
    std::mt19937 rng(2026);
    nvtrace::RowSummary all; // what the traces exercised, so that the comparison means something
    std::size_t manyCodes = 0;
    for (int n = 0; n < 3000; ++n) {
        const SampleTrace s = RandomTrace(rng, 5 + rng() % 120);
        const nvtrace::RowSummary row = ExpectSameRow(__LINE__, s.bytes(), "random trace " + std::to_string(n));
        ExpectSameRow(__LINE__, s.Truncated(s.size() - 1 - rng() % 20), "cut trace " + std::to_string(n));
        all.moved += row.moved;
        all.movedWithGaps += row.movedWithGaps;
        all.held += row.held;
        all.failed += row.failed;
        all.hasFailure = all.hasFailure || row.hasFailure;
        manyCodes += row.codes.size() > 1 ? 1 : 0;
        if (::testing::Test::HasFailure())
            return;
    }
    EXPECT_GT(all.moved, 0u);
    EXPECT_GT(all.movedWithGaps, 0u);
    EXPECT_GT(all.held, 0u);
    EXPECT_GT(all.failed, 0u);
    EXPECT_TRUE(all.hasFailure);
    EXPECT_GT(manyCodes, 0u);
}

TEST(RowSummaryTest, OneKeptFromTraceToTraceGivesTheRowsOfFreshOnes)
{
    // Random traces end with scopes open and users running, and every fifth has more
    // threads than the index keeps in its list: nothing of one trace may reach the next.
    std::mt19937 rng(7);
    nvtrace::RowSummaries kept;
    nvtrace::TraceDecoder decoder;
    std::size_t changes = 0;
    std::string previous;
    for (int n = 0; n < 600; ++n) {
        const SampleTrace s = RandomTrace(rng, 5 + rng() % 150, n % 5 == 0 ? 40 : 3);
        const nvtrace::TraceView& view = decoder.Decode(s.bytes().data(), s.bytes().size());
        const std::string fresh = RowText(nvtrace::SummarizeRow(view));
        ASSERT_EQ(fresh, RowText(kept.Of(view))) << "trace " << n;
        changes += fresh != previous ? 1 : 0;
        previous = fresh;
    }
    EXPECT_GT(changes, 300u); // the rows differ from trace to trace

    // A trace that grows every list past what a kept summarizer keeps (40 threads, 300
    // users, 100 scopes left open on one thread), before the small ones again.
    SampleTrace big;
    for (std::uint32_t t = 1; t <= 40; ++t)
        big.ConversionStarts(t);
    for (int u = 0; u < 300; ++u) {
        const std::uint32_t t = 1 + static_cast<std::uint32_t>(u % 40);
        const std::string sid = "S-1-5-21-9-9-9-" + std::to_string(2000 + u);
        big.UserBegins(t, sid);
        if (u % 4 == 0)
            big.Add(t, 'E', "-2147024891 ");
        else
            big.OldKeyDeleted(t, sid);
        big.UserEnds(t, sid, u % 4 == 0 ? "0x80070005" : "0x00000000");
    }
    const nvtrace::TraceView& bigView = decoder.Decode(big.bytes().data(), big.bytes().size());
    const nvtrace::RowSummary bigRow = kept.Of(bigView);
    EXPECT_EQ(RowText(nvtrace::SummarizeRow(bigView)), RowText(bigRow));
    EXPECT_EQ(225u, bigRow.moved);
    EXPECT_EQ(75u, bigRow.failed);
    // 100 scopes left open on one thread, the innermost failed; the next trace leaves a
    // scope it never entered and fails: its failure arises, passed on from nothing.
    SampleTrace deep;
    for (int depth = 0; depth < 100; ++depth)
        deep.Add(1, '>', "CNVSecret::GetContent");
    deep.Add(1, 'E', "-2147024891 ");
    SampleTrace after;
    after.Add(1, '<').Add(1, 'E', "-2147024891 ");
    for (const SampleTrace* s : {&deep, &after}) {
        const nvtrace::TraceView& view = decoder.Decode(s->bytes().data(), s->bytes().size());
        EXPECT_EQ(RowText(nvtrace::SummarizeRow(view)), RowText(kept.Of(view)));
    }
    EXPECT_EQ(1u, kept.Of(decoder.Decode(after.bytes().data(), after.bytes().size())).codes.at(0x80070005u));

    // What the large traces grew is let go when the next one starts, whether or not it
    // names their threads again: a trace on thread 1 alone, after one where thread 2
    // went 200 scopes deep, and after the big one.
    SampleTrace deepOnTwo;
    deepOnTwo.Add(1, '>', "CBaseConverter::Convert");
    for (int depth = 0; depth < 200; ++depth)
        deepOnTwo.Add(2, '>', "CNVSecret::GetContent");
    SampleTrace small;
    small.Add(1, '>', "CBaseConverter::Convert").Add(1, '<');
    for (const SampleTrace* s : {&deepOnTwo, &small, &big, &small}) {
        const nvtrace::TraceView& view = decoder.Decode(s->bytes().data(), s->bytes().size());
        EXPECT_EQ(RowText(nvtrace::SummarizeRow(view)), RowText(kept.Of(view)));
        if (s == &deepOnTwo) {
            EXPECT_GE(kept.Kept().scopes, 200u); // held while its trace is read
        } else if (s == &small) {
            const nvtrace::RowSummaries::Room room = kept.Kept();
            EXPECT_LE(room.threads, 32u);
            EXPECT_LE(room.scopes, 64u * room.threads);
            EXPECT_LE(room.users, 256u);
        }
    }

    // A trace whose thread 1 ends inside a user's conversion, then one where thread 1
    // (again the first thread) fails outside any user while thread 2 converts a user
    // that ends with that code: the failure is not that user's, so the code arises twice.
    const std::string a = kSids[0];
    SampleTrace running;
    running.ConversionStarts(1).UserBegins(1, a);
    SampleTrace next;
    next.Add(1, '>', "CNVSecret::GetContent").ConversionStarts(2).UserBegins(2, a);
    next.Add(1, 'E', "-2146893819 ").Add(1, '<').UserEnds(2, a, "0x80090005");
    for (const SampleTrace* s : {&running, &next}) {
        const nvtrace::TraceView& view = decoder.Decode(s->bytes().data(), s->bytes().size());
        EXPECT_EQ(RowText(nvtrace::SummarizeRow(view)), RowText(kept.Of(view)));
    }
    EXPECT_EQ("started=2026-11-15 09:30:00.125 moved=0 gaps=0 held=0 failed=1 first=0x80090005 codes: 0x80090005x2",
              RowText(kept.Of(decoder.Decode(next.bytes().data(), next.bytes().size()))));
}

} // namespace
