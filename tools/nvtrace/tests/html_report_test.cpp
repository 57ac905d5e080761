// nvtrace --html: one self-contained page with the verdict, the users (failures
// first), every failing result with its scope path and the timeline; trace text
// always escaped. And the command line of both timeline outputs.
#include <gtest/gtest.h>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "html_report.h"
#include "nvtracelib.h"
#include "sample_trace.h"
#include "summary.h"
#include "temp_folder.h"
#include "timeline.h"

using nvtrace_test::SampleTrace;

namespace {

// Three users: one moved, one kept by a failing store, one moved with gaps; the
// conversion's own result is the failure.
SampleTrace ThreeUsers()
{
    const std::string second = "S-1-5-21-1-2-3-1002", third = "S-1-5-21-1-2-3-1003";
    SampleTrace s;
    s.ConversionStarts(7).UserMoved(7, "S-1-5-21-1-2-3-1001");
    s.UserBegins(7, second).Add(7, '>', "CConverter3::ConvertUser").Add(7, 'E', "-2147467261 ").Add(7, '<');
    s.UserEnds(7, second, "0x80004003").UserBegins(7, third);
    s.Add(7, 'U', "Incomplete user '" + third + "' moved with gaps: secret not stored 'LogonInfo' (0x80004005)");
    s.OldKeyDeleted(7, third).UserEnds(7, third, "0x00000000");
    s.Add(7, 'T', "09:30:01.125").Add(7, '<').Add(7, 'E', "-2147467259 ").Add(7, '<');
    return s;
}

std::string Page(const SampleTrace& sample, const std::string& name = "setup.NVDBConv.dll.x64.1.trc3")
{
    const nvtrace::DecodedTrace trace = nvtrace::Decode(sample.bytes());
    std::ostringstream out;
    nvtrace::WriteHtmlReport(trace, nvtrace::Summarize(trace), nvtrace::BuildTimeline(trace), name, out);
    return out.str();
}

std::size_t Count(const std::string& text, const std::string& what)
{
    std::size_t n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

std::string Lower(std::string s)
{
    for (char& c : s)
        c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return s;
}

} // namespace

TEST(NvtraceHtmlTest, VerdictUsersFailuresFirstAndEveryFailingResult)
{
    const std::string page = Page(ThreeUsers());
    EXPECT_EQ(0u, page.find("<!DOCTYPE html>\n"));
    EXPECT_NE(std::string::npos, page.find("<section class=\"verdict bad\" id=\"verdict\">\n<h2>Conversion failed</h2>"))
        << page;
    EXPECT_NE(std::string::npos, page.find("<li>process 1: Convert failed with 0x80004005 E_FAIL; 2 of 3 users moved</li>"))
        << page;
    EXPECT_NE(std::string::npos, page.find(", 1 process</p>\n")) << page.substr(0, 2000);
    // The verdict lines as --summary opens with them, escaped.
    EXPECT_NE(std::string::npos,
              page.find("<h2>Conversion failed</h2>\n<pre class=\"verdict-lines\">verdict: process 1, 2026-11-15 "
                        "09:30:00.125: 2.0 -&gt; 3.0, default policy, 3 users: 1 moved, 1 moved with gaps, 0 held, 1 "
                        "failed; the conversion failed: 0x80004005 E_FAIL &quot;Unspecified error&quot; in "
                        "CBaseConverter::Convert\n"))
        << page;
    EXPECT_NE(std::string::npos, page.find("<li>users in the end: 3, 2 moved (1 with gaps), 1 kept their old data</li>"))
        << page;

    const std::size_t kept = page.find("<tr class=\"user failed\"><td>1</td><td class=\"sid\">S-1-5-21-1-2-3-1002</td>"
                                       "<td class=\"status\">0x80004003 E_POINTER</td><td class=\"outcome\">kept its "
                                       "old data: E_POINTER &quot;Invalid pointer (for a user: the storage server "
                                       "could not be created)&quot;</td></tr>");
    const std::size_t gaps = page.find("<tr class=\"user gaps\"><td>1</td><td class=\"sid\">S-1-5-21-1-2-3-1003</td>"
                                       "<td class=\"status\">0x00000000 S_OK</td><td class=\"outcome\">moved with "
                                       "gaps: secret not stored &#39;LogonInfo&#39; (0x80004005)</td></tr>");
    const std::size_t moved = page.find("<tr class=\"user moved\"><td>1</td><td class=\"sid\">S-1-5-21-1-2-3-1001</td>"
                                        "<td class=\"status\">0x00000000 S_OK</td><td class=\"outcome\">moved</td></tr>");
    ASSERT_NE(std::string::npos, kept) << page;
    ASSERT_NE(std::string::npos, gaps) << page;
    ASSERT_NE(std::string::npos, moved) << page;
    EXPECT_LT(kept, gaps);
    EXPECT_LT(gaps, moved);

    EXPECT_NE(std::string::npos, page.find("<h2 id=\"failures\">Failing results: 2</h2>")) << page;
    EXPECT_NE(std::string::npos,
              page.find("<tr class=\"failure\"><td class=\"code\">0x80004003</td><td>E_POINTER</td><td>Invalid pointer "
                        "(for a user: the storage server could not be created)</td><td class=\"path\">"
                        "CBaseConverter::Convert &gt; CConverter3::do_Convert &gt; CConverter3::ConvertUser</td>"
                        "<td>1</td><td>7</td><td>1</td><td></td></tr>"))
        << page;
    EXPECT_NE(std::string::npos, page.find("<td class=\"code\">0x80004005</td><td>E_FAIL</td><td>Unspecified error</td>"
                                           "<td class=\"path\">CBaseConverter::Convert</td>"))
        << page;
}

// Convert's own result is the failure of a step it called, passed on: the conversion
// failed all the same, with that code, and the failure is listed and marked once.
TEST(NvtraceHtmlTest, AConvertThatPassesOnAStepsFailureFailed)
{
    SampleTrace s;
    s.Add(7, '>', "CBaseConverter::Convert").Add(7, '>', "CBaseConverter::Backup").Add(7, 'E', "-2147024888 ")
        .Add(7, '<').Add(7, 'E', "-2147024888 ").Add(7, '<');
    const std::string page = Page(s);
    EXPECT_NE(std::string::npos, page.find("<section class=\"verdict bad\" id=\"verdict\">\n<h2>Conversion failed</h2>"))
        << page;
    EXPECT_NE(std::string::npos,
              page.find("<li>process 1: Convert failed with 0x80070008 HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY)</li>"))
        << page;
    EXPECT_NE(std::string::npos, page.find("<h2 id=\"failures\">Failing results: 1</h2>")) << page;
    EXPECT_EQ(1u, Count(page, "class=\"failmark\""));
}

// A user kept by a first run and moved by a second: the final state decides.
TEST(NvtraceHtmlTest, AUserMovedByALaterRunCountsAsMoved)
{
    SampleTrace s;
    s.Add(7, '>', "CBaseConverter::Convert").Add(7, 'U', "Conversion process began for 'S-1-5-21-9-1001'")
        .Add(7, 'U', "Conversion process is over for 'S-1-5-21-9-1001', 0x80004003").Add(7, '<');
    s.Add(0, 'N', "11-15-2026").Add(8, '>', "CBaseConverter::Convert")
        .Add(8, 'U', "Conversion process began for 'S-1-5-21-9-1001'")
        .Add(8, 'U', "DeleteKey('S-1-5-21-9-1001'), 0x00000000")
        .Add(8, 'U', "Conversion process is over for 'S-1-5-21-9-1001', 0x00000000").Add(8, '<');
    const std::string page = Page(s);
    EXPECT_NE(std::string::npos, page.find("<section class=\"verdict warn\" id=\"verdict\">\n<h2>Converted, after an "
                                           "earlier run left users behind</h2>\n<pre class=\"verdict-lines\">"))
        << page;
    EXPECT_NE(std::string::npos, page.find("</pre>\n<ul>\n"
                                           "<li>process 1: Convert returned without a failing result; 0 of 1 user moved</li>\n"
                                           "<li>process 2: Convert returned without a failing result; 1 of 1 user moved</li>\n"
                                           "<li>users in the end: 1, 1 moved, 0 kept their old data</li>\n"))
        << page;
    EXPECT_NE(std::string::npos, page.find(", 2 processes</p>\n")) << page.substr(0, 2000);
    EXPECT_NE(std::string::npos, page.find("<tr class=\"user recovered\"><td>1</td><td class=\"sid\">S-1-5-21-9-1001</td>"
                                           "<td class=\"status\">0x80004003 E_POINTER</td><td class=\"outcome\">kept its "
                                           "old data: E_POINTER &quot;Invalid pointer (for a user: the storage server "
                                           "could not be created)&quot;; moved by a later run (process 2)</td></tr>\n"
                                           "<tr class=\"user moved\"><td>2</td>"))
        << page;
}

TEST(NvtraceHtmlTest, TimelineDrawsEveryScopePerProcessWithFailuresMarked)
{
    SampleTrace s = ThreeUsers();
    s.Add(0, 'N', "11-15-2026").Add(8, 'T', "10:00:00.000").Add(8, '>', "CBaseConverter::Rollback")
        .Add(9, '>', "Killed here");
    const std::string page = Page(s);
    EXPECT_EQ(1u, Count(page, "<svg class=\"timeline\" data-process=\"1\""));
    EXPECT_EQ(1u, Count(page, "<svg class=\"timeline\" data-process=\"2\""));
    EXPECT_EQ(5u, Count(page, "<rect class=\"scope ")) << page;
    // The scopes holding a failing result, and one mark per failing result.
    EXPECT_EQ(2u, Count(page, " failed\" x=")) << page;
    EXPECT_EQ(2u, Count(page, "<g class=\"failmark\">"));
    EXPECT_NE(std::string::npos, page.find("<title>0x80004003 E_POINTER in CBaseConverter::Convert &gt; "
                                           "CConverter3::do_Convert &gt; CConverter3::ConvertUser</title>"))
        << page;
    // Both scopes of the second process were never left.
    EXPECT_EQ(2u, Count(page, " unfinished\" x=")) << page;
    EXPECT_NE(std::string::npos, page.find("<h3>Process 2, started 11/15/26 10:00:00.000, 1 µs <span class=\"damage\">"
                                           "ended inside 2 scopes</span></h3>"))
        << page;
    EXPECT_NE(std::string::npos, page.find(">thread 8</text>"));
    EXPECT_NE(std::string::npos, page.find(">thread 9</text>"));
}

// Each process's drawing holds its own scopes and failure marks only, and a Convert
// that traced several results of its own failed with the last of them.
TEST(NvtraceHtmlTest, EachProcessDrawsItsOwnScopesAndFailuresAndConvertEndsWithItsLastResult)
{
    SampleTrace s;
    s.Add(7, '>', "CBaseConverter::Convert").Add(7, 'E', "-2147467259 ").Add(7, 'E', "-2147024891 ").Add(7, '<');
    s.Add(0, 'N', "11-15-2026").Add(8, '>', "CBaseConverter::Convert").Add(8, '>', "CConverter3::do_Convert")
        .Add(8, 'E', "-2147467261 ").Add(8, '<').Add(8, '<');
    const std::string page = Page(s);
    EXPECT_NE(std::string::npos, page.find("<li>process 1: Convert failed with 0x80070005 E_ACCESSDENIED</li>\n"
                                           "<li>process 2: Convert returned without a failing result</li>\n"))
        << page;
    auto drawing = [&page](const std::string& process) {
        const std::size_t begin = page.find("<svg class=\"timeline\" data-process=\"" + process + "\"");
        return begin == std::string::npos ? std::string() : page.substr(begin, page.find("</svg>", begin) - begin);
    };
    const std::string first = drawing("1"), second = drawing("2");
    EXPECT_EQ(1u, Count(first, "<rect class=\"scope ")) << first;
    EXPECT_EQ(2u, Count(first, "<g class=\"failmark\">")) << first;
    EXPECT_EQ(1u, Count(first, "<title>0x80004005 E_FAIL in CBaseConverter::Convert</title>")) << first;
    EXPECT_EQ(1u, Count(first, "<title>0x80070005 E_ACCESSDENIED in CBaseConverter::Convert</title>")) << first;
    EXPECT_EQ(2u, Count(second, "<rect class=\"scope ")) << second;
    EXPECT_EQ(1u, Count(second, "<g class=\"failmark\">")) << second;
    EXPECT_EQ(1u, Count(second, "<title>0x80004003 E_POINTER in CBaseConverter::Convert &gt; "
                                "CConverter3::do_Convert</title>"))
        << second;
}

// The page must not reach out: no script, no link, no resource from anywhere.
TEST(NvtraceHtmlTest, PageIsSelfContained)
{
    const std::string page = Lower(Page(ThreeUsers()));
    EXPECT_NE(std::string::npos, page.find("<meta http-equiv=\"content-security-policy\" content=\"default-src 'none'; "
                                           "style-src 'unsafe-inline'\">"));
    for (const char* outside : {"http:", "https:", "//", "<script", "<link", "<img", "<iframe", "src=", "href=",
                                "url(", "@import", "@font-face"})
        EXPECT_EQ(std::string::npos, page.find(outside)) << outside;
}

TEST(NvtraceHtmlTest, TraceTextIsShownEscaped)
{
    SampleTrace s;
    s.Add(1, '>', "<script>alert(1)</script>")
        .Add(1, 'U', "Conversion process began for '<img src=x onerror=alert(2)>'")
        .Add(1, 'U', "Conversion process is over for '<img src=x onerror=alert(2)>', 0x80004005")
        .Add(1, 'E', "-2147467259 \"><svg onload=alert(3)>").Add(1, '<');
    const std::string page = Page(s, "evil\"<b>.trc3");
    EXPECT_EQ(std::string::npos, Lower(page).find("<script"));
    EXPECT_EQ(std::string::npos, Lower(page).find("<img"));
    EXPECT_EQ(std::string::npos, Lower(page).find("<svg onload"));
    EXPECT_EQ(std::string::npos, page.find("<b>"));
    EXPECT_NE(std::string::npos, page.find("<td class=\"path\">&lt;script&gt;alert(1)&lt;/script&gt;</td>")) << page;
    EXPECT_NE(std::string::npos, page.find("<td class=\"sid\">&lt;img src=x onerror=alert(2)&gt;</td>")) << page;
    EXPECT_NE(std::string::npos, page.find("<td>&quot;&gt;&lt;svg onload=alert(3)&gt;</td>")) << page;
    EXPECT_NE(std::string::npos, page.find("<title>Trace evil&quot;&lt;b&gt;.trc3</title>")) << page;
    // In the drawing too: the scope's label and its tooltip.
    EXPECT_NE(std::string::npos, page.find("<title>&lt;script&gt;alert(1)&lt;/script&gt;\n")) << page;
}

TEST(NvtraceHtmlTest, EscapingOfMarkupControlCharactersAndBrokenUtf8)
{
    EXPECT_EQ("a&amp;b &lt;i&gt; &quot;q&quot; &#39;s&#39;", nvtrace::HtmlEscape("a&b <i> \"q\" 's'"));
    EXPECT_EQ("bell\\x07 del\\x7F tab\\x09 line\n", nvtrace::HtmlEscape("bell\x07 del\x7F tab\t line\n"));
    EXPECT_EQ("\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", nvtrace::HtmlEscape("\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"));
    const std::string bad = "\xEF\xBF\xBD";
    EXPECT_EQ(bad + "(", nvtrace::HtmlEscape("\xC3("));               // lead byte without continuation
    EXPECT_EQ(bad + bad, nvtrace::HtmlEscape("\xC0\xAF"));            // overlong '/'
    EXPECT_EQ(bad + bad + bad, nvtrace::HtmlEscape("\xED\xA0\x80")); // a surrogate
    EXPECT_EQ(bad + bad, nvtrace::HtmlEscape("\xE2\x82"));           // cut at the end
}

// ---- the command line -------------------------------------------------------

namespace {

std::string Read(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

} // namespace

TEST(NvtraceTimelineCliTest, WritesBothFilesAndSaysSo)
{
    TempFolder dir;
    const std::string trace = dir.Write("t.trc3", ThreeUsers().bytes());
    std::ostringstream out, err;
    ASSERT_EQ(0, nvtrace::RunCli({"--chrome-trace", dir.Path("t.json"), "--html", dir.Path("t.html"), trace}, out, err));
    EXPECT_EQ("", err.str());
    EXPECT_EQ("wrote " + dir.Path("t.json") + ": trace events, 1 process, 3 scopes (0 never left), 2 failing results\n"
              "wrote " + dir.Path("t.html") + ": page, 1 process, 3 scopes (0 never left), 2 failing results\n",
              out.str());
    const nlohmann::json doc = nlohmann::json::parse(Read(dir.Path("t.json")));
    EXPECT_EQ(3u + 3u + 11u, doc.at("traceEvents").size()); // names, scopes, lines and failures
    EXPECT_NE(std::string::npos, Read(dir.Path("t.html")).find("<h2>Conversion failed</h2>"));
}

// What the tool says it wrote, the page and --summary count the same failing
// results: here one that arose and was passed on once, and three users the guard
// caught.
TEST(NvtraceTimelineCliTest, TheWrittenFilesCountTheFailuresAsTheSummaryDoes)
{
    SampleTrace s;
    s.Add(4, '>', "CBaseConverter::Convert").Add(4, '>', "CNVDBRegSet::ReadAnyField").Add(4, 'E', "-2147024894 ")
        .Add(4, '<').Add(4, 'E', "-2147024894 ");
    for (const char* sid : {"S-1-5-21-8-1001", "S-1-5-21-8-1002", "S-1-5-21-8-1003"})
        s.Add(4, 'U', std::string("Conversion process began for '") + sid + "'")
            .Add(4, 'U', std::string("Conversion process is over for '") + sid + "', 0x80004003");
    s.Add(4, '<');
    TempFolder dir;
    const std::string trace = dir.Write("t.trc3", s.bytes());
    std::ostringstream out, err, summary, summaryErr;
    // (Convert's own E is the callee's failure passed on: counted once, where it arose.)
    ASSERT_EQ(0, nvtrace::RunCli({"--chrome-trace", dir.Path("t.json"), "--html", dir.Path("t.html"), trace}, out, err));
    EXPECT_EQ("wrote " + dir.Path("t.json") + ": trace events, 1 process, 2 scopes (0 never left), 4 failing results\n"
              "wrote " + dir.Path("t.html") + ": page, 1 process, 2 scopes (0 never left), 4 failing results\n",
              out.str());
    ASSERT_EQ(0, nvtrace::RunCli({"--summary", trace}, summary, summaryErr));
    EXPECT_NE(std::string::npos, summary.str().find("\nfailing results: 4 (each counted where it arose)\n"))
        << summary.str();
    const std::string page = Read(dir.Path("t.html"));
    EXPECT_NE(std::string::npos, page.find("<h2 id=\"failures\">Failing results: 4</h2>")) << page;
    EXPECT_EQ(4u, Count(page, "class=\"failmark\""));
}

// With --summary (or --raw, --json) the text output still goes to standard output.
TEST(NvtraceTimelineCliTest, GoesWithTheTextOutputs)
{
    TempFolder dir;
    const std::string trace = dir.Write("t.trc3", ThreeUsers().bytes());
    std::ostringstream out, err;
    ASSERT_EQ(0, nvtrace::RunCli({"--summary", "--html", dir.Path("t.html"), trace}, out, err));
    // The summary as always: its verdict first, then the processes.
    EXPECT_EQ(0u, out.str().find("verdict: process 1, ")) << out.str();
    EXPECT_NE(std::string::npos, out.str().find("\nprocesses: 1\n")) << out.str();
    EXPECT_NE(std::string::npos, out.str().find("\nwrote " + dir.Path("t.html") + ": page, ")) << out.str();
    std::ostringstream raw, err2;
    ASSERT_EQ(0, nvtrace::RunCli({"--raw", "--chrome-trace", dir.Path("t.json"), trace}, raw, err2));
    EXPECT_EQ(0u, raw.str().find("t\t7\t11/15/26\nT\t7\t09:30:00.125\n")) << raw.str();
    EXPECT_NE(std::string::npos, Read(dir.Path("t.json")).find("\"traceEvents\""));
}

TEST(NvtraceTimelineCliTest, StandardOutputThreadFilterAndDamage)
{
    TempFolder dir;
    SampleTrace s = ThreeUsers();
    s.Add(5, '>', "Other thread").Add(5, '<');
    const std::string trace = dir.Write("t.trc3", s.bytes());
    std::ostringstream out, err;
    ASSERT_EQ(0, nvtrace::RunCli({"--thread", "5", "--chrome-trace", "-", trace}, out, err));
    const nlohmann::json doc = nlohmann::json::parse(out.str());
    std::size_t scopes = 0;
    for (const nlohmann::json& e : doc.at("traceEvents"))
        if (e.at("ph") == "X") {
            ++scopes;
            EXPECT_EQ("Other thread", e.at("name"));
        }
    EXPECT_EQ(1u, scopes);

    // A cut file: what was read is written, then the damage is reported.
    const std::string cut = dir.Write("cut.trc3", s.Truncated(s.size() - 3));
    std::ostringstream out2, err2;
    EXPECT_EQ(3, nvtrace::RunCli({"--html", dir.Path("cut.html"), cut}, out2, err2));
    EXPECT_NE(std::string::npos, err2.str().find(": truncated record at byte offset ")) << err2.str();
    const std::string page = Read(dir.Path("cut.html"));
    EXPECT_NE(std::string::npos, page.find("<li class=\"damage\">the file is damaged: truncated record at byte offset "))
        << page;
    EXPECT_NE(std::string::npos, page.find("<h3>Process 1, started 11/15/26 09:30:00.125, 1000 ms <span class=\"damage\">"
                                           "ended inside 1 scope</span></h3>"))
        << page;
}

TEST(NvtraceTimelineCliTest, UsageAndUnwritableOutput)
{
    std::ostringstream out, err;
    EXPECT_EQ(1, nvtrace::RunCli({"--html"}, out, err));
    EXPECT_EQ(0u, err.str().find("nvtrace: --html needs an output file (\"-\": standard output)\n")) << err.str();
    std::ostringstream out2, err2;
    EXPECT_EQ(1, nvtrace::RunCli({"--chrome-trace", "", "x.trc3"}, out2, err2));
    EXPECT_EQ(0u, err2.str().find("nvtrace: --chrome-trace needs an output file")) << err2.str();

    TempFolder dir;
    const std::string trace = dir.Write("t.trc3", ThreeUsers().bytes());
    std::ostringstream out3, err3;
    EXPECT_EQ(2, nvtrace::RunCli({"--html", "/nonexistent/dir/t.html", trace}, out3, err3));
    EXPECT_EQ("nvtrace: cannot write '/nonexistent/dir/t.html'\n", err3.str());
}
