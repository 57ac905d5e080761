// Coverage-guided fuzz target for the trace decoder (clang's libFuzzer).
//
// Every input is decoded, listed in both modes and checked against what the decoder
// promises: it stops at an offset inside the file, every record it keeps re-encodes
// to exactly the bytes it was read from, and the records follow each other without
// gaps up to the end or the damage. A broken promise aborts, which libFuzzer reports
// with the input that caused it. A decoder kept from input to input must read each
// one as a fresh decoder does.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include <nlohmann/json.hpp>

#include "chrome_trace.h"
#include "html_report.h"
#include "nvtracelib.h"
#include "summary.h"
#include "timeline.h"

namespace {

void Require(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "decoder promise broken: %s\n", what);
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const nvtrace::DecodedTrace trace = nvtrace::Decode(data, size);

    if (!trace.ok) {
        Require(trace.errorOffset <= size, "the error offset lies inside the file");
        Require(!trace.error.empty(), "a failure says what was wrong");
        Require(trace.error.find(std::to_string(trace.errorOffset)) != std::string::npos,
                "the message names the byte offset");
    }
    if (!trace.records.empty()) {
        Require(!trace.header.empty() && trace.header.front() == "trace3" && trace.header.back() == ".",
                "records follow a complete header");
    }

    // A decoder that has read every input before this one, its step cache holding
    // their steps, gives what a fresh one gives.
    static nvtrace::TraceDecoder reused;
    const nvtrace::TraceView& again = reused.Decode(data, size);
    Require(again.ok == trace.ok && again.errorOffset == trace.errorOffset && again.error == trace.error &&
                again.records.size() == trace.records.size(),
            "a reused decoder stops where a fresh one does");
    for (std::size_t i = 0; i < again.records.size(); ++i)
        Require(again.records[i].text == trace.records[i].text, "a reused decoder reads each text as a fresh one");

    std::uint64_t next = trace.bodyOffset;
    for (const nvtrace::Record& record : trace.records) {
        Require(record.offset == next, "records follow each other without gaps");
        Require(nvtrace::IsKnownKind(record.kind), "only known kinds are kept");
        const std::vector<std::uint8_t> encoded = nvtrace::EncodeRecord(record.thread, record.kind, record.text);
        Require(record.offset + encoded.size() <= size, "a record lies inside the file");
        Require(std::memcmp(encoded.data(), data + record.offset, encoded.size()) == 0,
                "a kept record re-encodes to the bytes it was read from");
        next = record.offset + encoded.size();
    }
    if (trace.ok && !trace.header.empty())
        Require(next == size, "a file decoded without error is read to its end");
    if (!trace.ok && !trace.header.empty() && trace.header.back() == "." && trace.errorOffset >= trace.bodyOffset)
        Require(trace.errorOffset == next, "decoding stops right after the last record it kept");

    for (int raw = 0; raw < 2; ++raw) {
        nvtrace::FormatOptions options;
        options.raw = raw != 0;
        if (!trace.records.empty()) {
            options.filterThread = (size & 1) != 0;
            options.thread = trace.records.front().thread;
        }
        std::ostringstream listing;
        nvtrace::WriteListing(trace, options, listing);
        if (options.raw && !options.filterThread) {
            std::size_t lines = 0;
            for (char c : listing.str())
                lines += c == '\n';
            Require(lines == trace.records.size(), "the raw listing has one line per record");
        }
    }

    // The timeline: every scope ends after it begins and inside its parent; it marks
    // as many failures where they arose as the summary counts; both of its outputs
    // are written, and the trace event file parses as JSON.
    const nvtrace::TraceSummary summary = nvtrace::Summarize(trace);
    const nvtrace::Timeline timeline = nvtrace::BuildTimeline(trace, summary);
    Require(nvtrace::AroseFailures(timeline) == nvtrace::FailingResults(summary),
            "the timeline marks every failure the summary counts, once");
    for (const nvtrace::TimelineScope& scope : timeline.scopes) {
        Require(scope.beginUs <= scope.endUs, "a scope ends after it begins");
        if (scope.parent >= 0) {
            const nvtrace::TimelineScope& parent = timeline.scopes[static_cast<std::size_t>(scope.parent)];
            Require(parent.beginUs <= scope.beginUs && scope.endUs <= parent.endUs, "a scope lies inside its parent");
        }
    }
    std::ostringstream events, page;
    nvtrace::WriteChromeTrace(trace, timeline, events);
    Require(nlohmann::json::accept(events.str()), "the trace event file is JSON");
    nvtrace::WriteHtmlReport(trace, summary, timeline, "fuzz", page);
    return 0;
}
