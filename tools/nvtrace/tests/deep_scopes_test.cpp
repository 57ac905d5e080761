// Scopes nested far deeper than the library nests them (a damaged or crafted file):
// each path is shown with its outermost and innermost names and a count between, and
// what runs in an outer scope (a conversion, an operation) is still known deep inside.
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

#include "chrome_trace.h"
#include "html_report.h"
#include "nvtracelib.h"
#include "sample_trace.h"
#include "summary.h"
#include "timeline.h"

using nvtrace::kPathInnerScopes;
using nvtrace::kPathOuterScopes;
using nvtrace_test::SampleTrace;

namespace {

constexpr std::size_t kDepth = 1000;

std::string Name(std::size_t level) { return "S" + std::to_string(level); }

// "S0 > S1 > S2 > S3 > ... 984 more ... > S988 > ... > S999" for kDepth levels.
std::string ShortPath()
{
    std::string path;
    for (std::size_t level = 0; level < kPathOuterScopes; ++level)
        path += Name(level) + " > ";
    path += "... " + std::to_string(kDepth - kPathOuterScopes - kPathInnerScopes) + " more ...";
    for (std::size_t level = kDepth - kPathInnerScopes; level < kDepth; ++level)
        path += " > " + Name(level);
    return path;
}

// A conversion whose user is converted kDepth - 1 scopes further in, where a
// failing result keeps it. Halfway down, the clean-up step runs inside the operation
// (a hidden level of the path).
constexpr std::size_t kCleanupLevel = kDepth / 2;

SampleTrace Deep()
{
    SampleTrace s;
    s.Add(3, '>', "CBaseConverter::Convert");
    for (std::size_t level = 1; level < kDepth; ++level)
        s.Add(3, '>', level == kCleanupLevel ? std::string("CConverter3::do_Cleanup") : Name(level));
    const std::string sid = "S-1-5-21-7-7-7-1001";
    s.UserBegins(3, sid).Add(3, 'E', "-2147024891 ").UserEnds(3, sid, "0x80070005");
    return s;
}

std::string DeepPath()
{
    std::string path = ShortPath();
    path.replace(0, 2, "CBaseConverter::Convert");
    return path;
}

} // namespace

TEST(ScopePathTextTest, APathIsWholeUpToTheShownCountAndShortenedPastIt)
{
    const std::size_t shown = kPathOuterScopes + kPathInnerScopes;
    std::vector<std::size_t> asked;
    auto nameAt = [&asked](std::size_t level) -> std::string_view {
        asked.push_back(level);
        static std::vector<std::string> names;
        while (names.size() <= level)
            names.push_back(Name(names.size()));
        return names[level];
    };
    std::string whole;
    for (std::size_t level = 0; level < shown; ++level)
        whole += (level ? " > " : "") + Name(level);
    EXPECT_EQ(whole, nvtrace::ScopePathText(shown, nameAt));
    EXPECT_EQ("", nvtrace::ScopePathText(0, nameAt));
    EXPECT_EQ("S0", nvtrace::ScopePathText(1, nameAt));

    asked.clear();
    EXPECT_EQ(ShortPath(), nvtrace::ScopePathText(kDepth, nameAt));
    // Only the names shown are asked for.
    EXPECT_EQ(shown, asked.size());
    for (const std::size_t level : asked)
        EXPECT_TRUE(level < kPathOuterScopes || level >= kDepth - kPathInnerScopes) << level;

    std::string one = "S0 > S1 > S2 > S3 > ... 1 more ...";
    for (std::size_t level = shown + 1 - kPathInnerScopes; level <= shown; ++level)
        one += " > " + Name(level);
    EXPECT_EQ(one, nvtrace::ScopePathText(shown + 1, nameAt));
}

TEST(DeepScopesTest, EveryOutputShowsTheShortPathAndTheUserStaysInItsConversion)
{
    const SampleTrace sample = Deep();
    const nvtrace::DecodedTrace trace = nvtrace::Decode(sample.bytes());
    ASSERT_TRUE(trace.ok) << trace.error;

    // The listing indents 32 levels and writes deeper ones out, so no line grows with
    // the depth.
    std::ostringstream listing;
    nvtrace::WriteListing(trace, nvtrace::FormatOptions{}, listing);
    const std::string indent(2 * 32, ' ');
    EXPECT_NE(std::string::npos, listing.str().find("      3  " + indent + "> S32\n")) << listing.str().substr(0, 4000);
    EXPECT_NE(std::string::npos, listing.str().find("      3  " + indent + "[depth 33] > S33\n"));
    EXPECT_NE(std::string::npos, listing.str().find("      3  " + indent + "[depth 1000] E 0x80070005 E_ACCESSDENIED\n"));
    std::istringstream lines(listing.str());
    for (std::string line; std::getline(lines, line);)
        EXPECT_LT(line.size(), 200u) << line.substr(0, 200);

    const nvtrace::TraceSummary summary = nvtrace::Summarize(trace);
    ASSERT_EQ(1u, summary.failures.size());
    EXPECT_EQ(DeepPath(), summary.failures[0].path);
    ASSERT_EQ(1u, summary.conversions.size());
    // The clean-up step runs within the Convert operation: no operation of its own.
    ASSERT_EQ(1u, summary.processes.size());
    EXPECT_EQ(std::vector<std::string>{"Convert"}, summary.processes[0].operations);
    ASSERT_EQ(1u, summary.users.size());
    EXPECT_EQ(0u, summary.users[0].conversion);
    EXPECT_FALSE(summary.users[0].moved());

    nvtrace::TraceDecoder decoder;
    const nvtrace::RowSummary row = nvtrace::SummarizeRow(decoder.Decode(sample.bytes().data(), sample.bytes().size()));
    EXPECT_EQ(0u, row.moved);
    EXPECT_EQ(1u, row.failed); // no line says it keeps its old key
    EXPECT_EQ(0u, row.held);
    EXPECT_EQ(nvtrace::RowSummaryOf(summary).codes, row.codes);

    const nvtrace::Timeline timeline = nvtrace::BuildTimeline(trace);
    ASSERT_EQ(kDepth, timeline.scopes.size());
    EXPECT_EQ(DeepPath(), nvtrace::ScopePath(timeline, static_cast<std::ptrdiff_t>(kDepth - 1)));
    // A path just short enough is whole.
    const std::size_t shown = kPathOuterScopes + kPathInnerScopes;
    std::string whole = "CBaseConverter::Convert";
    for (std::size_t level = 1; level < shown; ++level)
        whole += " > " + Name(level);
    EXPECT_EQ(whole, nvtrace::ScopePath(timeline, static_cast<std::ptrdiff_t>(shown - 1)));

    std::ostringstream events, page;
    nvtrace::WriteChromeTrace(trace, timeline, events);
    EXPECT_NE(std::string::npos, events.str().find("\"scope\":\"" + DeepPath() + "\"")) << DeepPath();
    nvtrace::WriteHtmlReport(trace, summary, timeline, "deep.trc3", page);
    // The page shows the path escaped, in the failure's row and in its mark's title.
    std::string escaped = DeepPath();
    for (std::size_t at = escaped.find('>'); at != std::string::npos; at = escaped.find('>', at))
        escaped.replace(at, 1, "&gt;");
    EXPECT_NE(std::string::npos, page.str().find("<td class=\"path\">" + escaped + "</td>")) << escaped;
    EXPECT_NE(std::string::npos, page.str().find(" in " + escaped + "</title>")) << escaped;
}

TEST(DeepScopesTest, FailuresWhosePathsDifferOnlyWhereTheyAreShortenedStayApart)
{
    // Three runs 40 levels down, the second through another name at a hidden level,
    // each failing at the bottom with the same code: the first path's failure twice,
    // the second's once, though both paths are shown alike.
    SampleTrace s;
    for (const char* middle : {"A", "B", "A"}) {
        for (std::size_t level = 0; level < 40; ++level)
            s.Add(3, '>', level == 20 ? std::string(middle) : Name(level));
        s.Add(3, 'E', "-2147024891 ");
        for (std::size_t level = 0; level < 40; ++level)
            s.Add(3, '<');
    }
    const nvtrace::TraceSummary summary = nvtrace::Summarize(nvtrace::Decode(s.bytes()));
    ASSERT_EQ(2u, summary.failures.size());
    EXPECT_EQ(summary.failures[0].path, summary.failures[1].path);
    EXPECT_NE(std::string::npos, summary.failures[0].path.find("... 24 more ...")) << summary.failures[0].path;
    EXPECT_EQ(2u, summary.failures[0].count);
    EXPECT_EQ(1u, summary.failures[1].count);
    ASSERT_EQ(1u, summary.processes.size());
    EXPECT_EQ(3u, summary.processes[0].failures);
}
