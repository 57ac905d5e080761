// nvtrace --chrome-trace and the timeline behind it and the page: every scope once,
// nested per thread, in the file's time; scopes a killed process left open end at
// its last record and are marked; failing results and progress lines as instants.
#include <gtest/gtest.h>
#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "chrome_trace.h"
#include "nvtracelib.h"
#include "sample_trace.h"
#include "summary.h"
#include "timeline.h"

using nvtrace_test::SampleTrace;
using Json = nlohmann::json;

namespace {

// Two processes (the second after an 'N' record), two threads in the first, a
// failing user and a failing backup; every scope is left.
SampleTrace TwoProcesses()
{
    const std::string first = "S-1-5-21-1-2-3-1001", second = "S-1-5-21-1-2-3-1002";
    SampleTrace s;
    s.ConversionStarts(7).UserBegins(7, first).Add(9, '>', "CFPSecurityContext::FinalConstruct");
    s.Add(7, 'T', "09:30:00.250").OldKeyDeleted(7, first).Add(9, '<').UserEnds(7, first, "0x00000000");
    s.UserBegins(7, second).Add(7, '>', "CConverter3::ConvertUser").Add(7, 'E', "-2147467261 ").Add(7, '<');
    s.Add(7, 'E', "-2147467261 ").UserEnds(7, second, "0x80004003");
    s.Add(7, 'T', "09:30:01.125").Add(7, '<').Add(7, '<');
    return s.NextProcessFailsItsBackup(12);
}

// The first process is killed inside three scopes on two threads; the file then
// goes on with a second process that finishes.
SampleTrace KilledProcess()
{
    SampleTrace s;
    s.Add(4, 't', "11/15/26").Add(4, 'T', "09:00:00.000").Add(4, '>', "CBaseConverter::Convert")
        .Add(4, '>', "CConverter3::do_Convert").Add(5, '>', "CFPSecurityContext::FinalConstruct")
        .Add(5, '>', "CFPSecurityContext::Verify").Add(5, '<')
        .Add(4, 'T', "09:00:02.500").Add(4, 'U', "Conversion process began for 'S-1-5-21-7-1001'");
    s.Add(0, 'N', "11-15-2026").Add(6, 'T', "09:05:00.000").Add(6, '>', "CBaseConverter::Rollback").Add(6, '<');
    return s;
}

Json ChromeTrace(const SampleTrace& sample)
{
    const nvtrace::DecodedTrace trace = nvtrace::Decode(sample.bytes());
    std::ostringstream out;
    nvtrace::WriteChromeTrace(trace, nvtrace::BuildTimeline(trace), out);
    return Json::parse(out.str()); // throws, failing the test, when it is no JSON
}

std::vector<Json> EventsOf(const Json& doc, const std::string& ph)
{
    std::vector<Json> events;
    for (const Json& e : doc.at("traceEvents"))
        if (e.at("ph") == ph)
            events.push_back(e);
    return events;
}

std::vector<std::string> ScopeNamesEntered(const SampleTrace& sample)
{
    std::vector<std::string> names;
    for (const nvtrace::Record& r : nvtrace::Decode(sample.bytes()).records)
        if (r.kind == '>')
            names.push_back(r.text);
    return names;
}

// Per process and thread, each complete event lies inside the one it was entered
// in: sorted by start (longer first), every event ends before the enclosing one does.
void ExpectProperNesting(const std::vector<Json>& scopes)
{
    std::map<std::pair<int, int>, std::vector<const Json*>> perThread;
    for (const Json& e : scopes)
        perThread[{e.at("pid").get<int>(), e.at("tid").get<int>()}].push_back(&e);
    for (auto& [key, events] : perThread) {
        std::stable_sort(events.begin(), events.end(), [](const Json* a, const Json* b) {
            return std::make_tuple(a->at("ts").get<long long>(), -a->at("dur").get<long long>()) <
                   std::make_tuple(b->at("ts").get<long long>(), -b->at("dur").get<long long>());
        });
        std::vector<const Json*> open;
        for (const Json* e : events) {
            const long long ts = e->at("ts"), end = ts + e->at("dur").get<long long>();
            while (!open.empty() && open.back()->at("ts").get<long long>() + open.back()->at("dur").get<long long>() < ts)
                open.pop_back();
            if (!open.empty()) {
                const long long parentEnd = open.back()->at("ts").get<long long>() + open.back()->at("dur").get<long long>();
                EXPECT_LE(end, parentEnd) << e->dump() << " overlaps " << open.back()->dump();
            }
            EXPECT_EQ(open.size(), e->at("args").at("depth").get<std::size_t>()) << e->dump();
            open.push_back(e);
        }
    }
}

} // namespace

TEST(NvtraceChromeTraceTest, EveryScopeAppearsOnceAsACompleteEventNestedPerThread)
{
    const SampleTrace sample = TwoProcesses();
    const Json doc = ChromeTrace(sample);
    const std::vector<Json> scopes = EventsOf(doc, "X");

    std::vector<std::string> names, expected = ScopeNamesEntered(sample);
    for (const Json& e : scopes) {
        names.push_back(e.at("name"));
        EXPECT_GE(e.at("dur").get<long long>(), 0) << e.dump();
        EXPECT_EQ(false, e.at("args").at("unfinished")) << e.dump();
    }
    std::sort(names.begin(), names.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, names);
    ASSERT_EQ(7u, scopes.size());
    ExpectProperNesting(scopes);

    // Processes as the file has them: 1, then 2 after the 'N' record.
    std::map<std::pair<int, int>, std::string> threadNames;
    std::map<int, std::string> processNames;
    for (const Json& m : EventsOf(doc, "M")) {
        if (m.at("name") == "thread_name")
            threadNames[{m.at("pid"), m.at("tid")}] = m.at("args").at("name");
        else if (m.at("name") == "process_name")
            processNames[m.at("pid")] = m.at("args").at("name");
    }
    EXPECT_EQ((std::map<int, std::string>{{1, "process 1, started 11/15/26 09:30:00.125"},
                                          {2, "process 2, started 11/15/26 10:00:00.000"}}),
              processNames);
    EXPECT_EQ((std::map<std::pair<int, int>, std::string>{
                  {{1, 7}, "thread 7"}, {{1, 9}, "thread 9"}, {{2, 12}, "thread 12"}}),
              threadNames);
    for (const Json& e : scopes)
        EXPECT_EQ(e.at("tid") == 12 ? 2 : 1, e.at("pid").get<int>()) << e.dump();
}

// Microseconds after the first clock reading: the clock's millisecond readings,
// each further record of the same reading 1 µs later.
TEST(NvtraceChromeTraceTest, TimesAreMicrosecondsOfTheFilesClock)
{
    const Json doc = ChromeTrace(TwoProcesses());
    std::map<std::string, std::vector<std::pair<long long, long long>>> byName;
    for (const Json& e : EventsOf(doc, "X"))
        byName[e.at("name")].push_back({e.at("ts"), e.at("dur")});
    ASSERT_EQ(2u, byName["CBaseConverter::Convert"].size());
    // Entered at 09:30:00.125 (time 0), left as the second record at 09:30:01.125.
    EXPECT_EQ(std::make_pair(0LL, 1000001LL), byName["CBaseConverter::Convert"][0]);
    EXPECT_EQ(std::make_pair(1LL, 999999LL), byName["CConverter3::do_Convert"][0]);
    // Entered at 09:30:00.125 as the fourth record; left at 09:30:00.250 as the second
    // record of that reading.
    EXPECT_EQ(std::make_pair(3LL, 125001LL - 3), byName["CFPSecurityContext::FinalConstruct"][0]);
    // The second process: 10:00:00.000 is 1799.875 s after the origin.
    EXPECT_EQ(1799875000LL, byName["CBaseConverter::Convert"][1].first);
    EXPECT_EQ(40000LL, byName["CBaseConverter::Convert"][1].second);
    EXPECT_EQ("11/15/26 09:30:00.125", doc.at("otherData").at("origin"));
}

TEST(NvtraceChromeTraceTest, ScopesOfAKilledProcessEndAtItsLastRecordAndAreMarked)
{
    const SampleTrace sample = KilledProcess();
    const Json doc = ChromeTrace(sample);
    const std::vector<Json> scopes = EventsOf(doc, "X");
    ASSERT_EQ(ScopeNamesEntered(sample).size(), scopes.size());
    ExpectProperNesting(scopes);

    // The first process's last record: the line at 09:00:02.500.
    long long lastRecord = -1;
    for (const Json& e : EventsOf(doc, "i"))
        if (e.at("pid") == 1)
            lastRecord = std::max(lastRecord, e.at("ts").get<long long>());
    ASSERT_EQ(2500000LL, lastRecord);

    std::map<std::string, Json> byName;
    for (const Json& e : scopes)
        byName[e.at("name")] = e;
    for (const char* open : {"CBaseConverter::Convert", "CConverter3::do_Convert", "CFPSecurityContext::FinalConstruct"}) {
        const Json& e = byName.at(open);
        EXPECT_EQ(true, e.at("args").at("unfinished")) << open;
        EXPECT_EQ("scope,unfinished", e.at("cat")) << open;
        EXPECT_EQ(lastRecord, e.at("ts").get<long long>() + e.at("dur").get<long long>()) << open;
    }
    EXPECT_EQ(false, byName.at("CFPSecurityContext::Verify").at("args").at("unfinished"));
    EXPECT_EQ(false, byName.at("CBaseConverter::Rollback").at("args").at("unfinished"));
    EXPECT_EQ(2, byName.at("CBaseConverter::Rollback").at("pid").get<int>());
    bool named = false;
    for (const Json& m : EventsOf(doc, "M"))
        if (m.at("name") == "process_name" && m.at("pid") == 1) {
            EXPECT_EQ("process 1, started 11/15/26 09:00:00.000 (ended inside 3 scopes)", m.at("args").at("name"));
            named = true;
        }
    EXPECT_TRUE(named);
}

TEST(NvtraceChromeTraceTest, FailingResultsAndLinesAreInstantEvents)
{
    SampleTrace s;
    s.Add(3, 't', "11/15/26").Add(3, 'T', "08:00:00.000").Add(3, '>', "CNVDBRegSet::ReadAnyField")
        .Add(3, 'E', "-2147024894 ").Add(3, 'E', "-2128347136 odd text").Add(3, 'E', "590080 ")
        .Add(3, 'U', "m_dwVersion = 0x0").Add(3, '<').Add(3, 'E', "-2147467259 ");
    const Json doc = ChromeTrace(s);
    std::vector<Json> failures, lines;
    for (const Json& e : EventsOf(doc, "i"))
        (e.at("cat") == "failure" ? failures : lines).push_back(e);

    // A success of facility 9 (590080 = 0x00090100) is traced but is no failure.
    ASSERT_EQ(3u, failures.size());
    EXPECT_EQ("0x80070002 HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)", failures[0].at("name"));
    EXPECT_EQ("0x80070002", failures[0].at("args").at("code"));
    EXPECT_EQ("HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)", failures[0].at("args").at("name"));
    EXPECT_EQ("The system cannot find the file specified (a missing key or value)", failures[0].at("args").at("message"));
    EXPECT_EQ("CNVDBRegSet::ReadAnyField", failures[0].at("args").at("scope"));
    EXPECT_EQ("t", failures[0].at("s"));
    EXPECT_EQ(1, failures[0].at("pid"));
    EXPECT_EQ(3, failures[0].at("tid"));
    EXPECT_EQ(1, failures[0].at("ts"));
    // A code no table knows: the hex code alone, name and message null.
    EXPECT_EQ("0x81240000", failures[1].at("name"));
    EXPECT_TRUE(failures[1].at("args").at("name").is_null());
    EXPECT_TRUE(failures[1].at("args").at("message").is_null());
    EXPECT_EQ("odd text", failures[1].at("args").at("text"));
    EXPECT_EQ("(outside any scope)", failures[2].at("args").at("scope"));
    EXPECT_EQ("E_FAIL", failures[2].at("args").at("name"));

    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("m_dwVersion = 0x0", lines[0].at("name"));
    EXPECT_EQ("CNVDBRegSet::ReadAnyField", lines[0].at("args").at("scope"));

    // The scope knows it held failures.
    const std::vector<Json> scopes = EventsOf(doc, "X");
    ASSERT_EQ(1u, scopes.size());
    EXPECT_EQ(2, scopes[0].at("args").at("failures"));
}

// The failure events are the failing results the summary counts: a result passed on
// up the scopes is one failure, where it arose (the scope returning it again is an
// event of its own category), and a user whose failure the guard caught, with no
// result record, is one too, at its "is over" line.
TEST(NvtraceChromeTraceTest, FailureEventsAreTheFailuresTheSummaryCounts)
{
    SampleTrace s;
    s.Add(5, 't', "11/15/26").Add(5, 'T', "08:00:00.000").Add(5, '>', "CBaseConverter::Convert")
        .Add(5, '>', "CNVDBRegSet::ReadAnyField").Add(5, 'E', "-2147024894 ").Add(5, '<')
        .Add(5, 'E', "-2147024894 ")
        .Add(5, 'U', "Conversion process began for 'S-1-5-21-7-1001'")
        .Add(5, 'U', "Conversion process is over for 'S-1-5-21-7-1001', 0x80004003")
        .Add(5, '<');
    const nvtrace::DecodedTrace trace = nvtrace::Decode(s.bytes());
    ASSERT_TRUE(trace.ok) << trace.error;
    const nvtrace::TraceSummary summary = nvtrace::Summarize(trace);
    ASSERT_EQ(2u, nvtrace::FailingResults(summary));
    const Json doc = ChromeTrace(s);
    std::vector<Json> failures, passedOn;
    for (const Json& e : EventsOf(doc, "i")) {
        if (e.at("cat") == "failure")
            failures.push_back(e);
        else if (e.at("cat") == "passed-on")
            passedOn.push_back(e);
    }
    ASSERT_EQ(2u, failures.size());
    EXPECT_EQ("0x80070002 HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)", failures[0].at("name"));
    EXPECT_EQ("CBaseConverter::Convert > CNVDBRegSet::ReadAnyField", failures[0].at("args").at("scope"));
    EXPECT_FALSE(failures[0].at("args").contains("user"));
    EXPECT_EQ("0x80004003 E_POINTER", failures[1].at("name"));
    EXPECT_EQ("S-1-5-21-7-1001", failures[1].at("args").at("user"));
    EXPECT_EQ("CBaseConverter::Convert", failures[1].at("args").at("scope"));
    ASSERT_EQ(1u, passedOn.size());
    EXPECT_EQ("0x80070002 HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) (passed on)", passedOn[0].at("name"));
    EXPECT_EQ("CBaseConverter::Convert", passedOn[0].at("args").at("scope"));
    // The user's line is still a line; its failure lies at the same moment.
    std::size_t overLines = 0;
    for (const Json& e : EventsOf(doc, "i"))
        if (e.at("cat") == "line" && e.at("name") == "Conversion process is over for 'S-1-5-21-7-1001', 0x80004003") {
            ++overLines;
            EXPECT_EQ(failures[1].at("ts"), e.at("ts"));
        }
    EXPECT_EQ(1u, overLines);
    EXPECT_EQ("Conversion process is over for 'S-1-5-21-7-1001', 0x80004003", failures[1].at("args").at("text"));
    EXPECT_EQ(2u, nvtrace::AroseFailures(nvtrace::BuildTimeline(trace, summary)));
    // Each scope counts the failing results traced in it: Convert its own result and
    // the user's failure, the callee its own.
    const std::vector<Json> scopes = EventsOf(doc, "X");
    ASSERT_EQ(2u, scopes.size());
    EXPECT_EQ(2, scopes[0].at("args").at("failures"));
    EXPECT_EQ(1, scopes[1].at("args").at("failures"));
}

// Failures that arise in turn in one scope, one code between two of another: each is
// one that arose, however the summary lists them (one entry per code, each with the
// places it arose).
TEST(NvtraceChromeTraceTest, InterleavedFailuresAllArise)
{
    SampleTrace s;
    s.Add(5, '>', "CNVDBRegSet::ReadAnyField").Add(5, 'E', "-2147024894 ").Add(5, 'E', "-2147024891 ")
        .Add(5, 'E', "-2147024894 ").Add(5, '<');
    const Json doc = ChromeTrace(s);
    std::vector<std::string> failures;
    for (const Json& e : EventsOf(doc, "i")) {
        EXPECT_EQ("failure", e.at("cat")) << e.dump();
        failures.push_back(e.at("args").at("code"));
    }
    EXPECT_EQ((std::vector<std::string>{"0x80070002", "0x80070005", "0x80070002"}), failures);
}

// Trace text is any bytes: no UTF-8, control characters, quotes. The output stays
// JSON and keeps what it can.
TEST(NvtraceChromeTraceTest, HostileTextStaysValidJson)
{
    // The decoder stops at such records (text the library cannot write); the writer
    // still keeps any text a decoded trace may hold valid JSON.
    nvtrace::DecodedTrace trace;
    trace.records = {{0, 1, '>', std::string("bad \xC3\x28 utf8 \xFF \"quoted\"\\ \x01")},
                     {40, 1, 'U', "\xE2\x82"},
                     {50, 1, '<', ""}};
    std::ostringstream out;
    nvtrace::WriteChromeTrace(trace, nvtrace::BuildTimeline(trace), out);
    const Json doc = Json::parse(out.str());
    const std::vector<Json> scopes = EventsOf(doc, "X");
    ASSERT_EQ(1u, scopes.size());
    EXPECT_EQ("bad \xEF\xBF\xBD( utf8 \xEF\xBF\xBD \"quoted\"\\ \x01", scopes[0].at("name").get<std::string>());
}

// Clocks that jump back (set back, or an earlier time in an appended process) and
// records before any clock: still every scope ends after it begins, children inside.
TEST(NvtraceChromeTraceTest, ClockJumpingBackKeepsOrderAndNesting)
{
    SampleTrace s;
    s.Add(2, '>', "Before any clock").Add(2, 't', "11/15/26").Add(2, 'T', "12:00:00.000").Add(2, '>', "Inner")
        .Add(2, 'T', "11:00:00.000").Add(2, '<').Add(2, '<');
    s.Add(0, 'N', "11-14-2026").Add(2, 'T', "09:00:00.000").Add(2, '>', "Earlier day").Add(2, '<');
    const nvtrace::Timeline timeline = nvtrace::BuildTimeline(nvtrace::Decode(s.bytes()));
    ASSERT_EQ(3u, timeline.scopes.size());
    EXPECT_EQ(0, timeline.scopes[0].beginUs);
    for (const nvtrace::TimelineScope& scope : timeline.scopes)
        EXPECT_LT(scope.beginUs, scope.endUs) << scope.name;
    EXPECT_LE(timeline.scopes[0].beginUs, timeline.scopes[1].beginUs);
    EXPECT_LE(timeline.scopes[1].endUs, timeline.scopes[0].endUs);
    EXPECT_GT(timeline.scopes[2].beginUs, timeline.scopes[0].endUs);
    EXPECT_EQ("11/15/26 12:00:00.000", timeline.origin);
}
