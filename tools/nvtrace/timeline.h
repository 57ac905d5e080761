// The scopes of a trace laid out in time: one interval per scope entered, per
// process and thread, with the failing results and progress lines as points in
// them. The timeline event file (--chrome-trace) and the page (--html) both draw
// from it. Portable, like the decoder; hostile input gives a timeline, never a
// crash.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "decoder.h"

namespace nvtrace {

// Time on the timeline: microseconds after the trace's first clock reading. The
// file's clock has millisecond resolution and can jump back (a clock set back, a
// later process appended to the file), so every record that is not a timestamp
// gets its own instant: its clock reading, but at least 1 µs after the record
// before it. Records of one millisecond thus lie 1 µs apart in file order, every
// scope ends after it begins, and a scope's children lie inside it.
using TimelineUs = std::int64_t;

struct TimelineThread {
    std::uint32_t id = 0;
    std::size_t maxDepth = 0; // of its scopes, 0 when it has one level or none
};

// One process: the records from the file's start, or from an 'N' record, up to the
// next 'N' record.
struct TimelineProcess {
    unsigned ordinal = 0;           // 1 for the first process of the file
    std::string started;            // its first clock reading, "11/15/26 09:30:00.125"; may be empty
    std::vector<TimelineThread> threads; // in the order of their first records
    TimelineUs beginUs = 0;         // its first record
    TimelineUs endUs = 0;           // its last record
    std::size_t unfinishedScopes = 0;
};

struct TimelineScope {
    std::string name;
    unsigned process = 0;
    std::uint32_t thread = 0;
    std::size_t depth = 0;          // 0 for a thread's outermost scopes
    std::ptrdiff_t parent = -1;     // index in Timeline::scopes
    // Its ancestor at depth kPathOuterScopes - 1, or itself when it is not that deep:
    // where the head of a long path ends (ScopePath), found without walking the path.
    std::ptrdiff_t pathHead = -1;
    TimelineUs beginUs = 0;
    TimelineUs endUs = 0;
    // Entered but never left: the process ended (was killed) or the file was cut
    // inside it. It then ends at its process's last record.
    bool unfinished = false;
    // Failing results traced directly inside it: result records, whether the failure
    // arose there or was passed on from a callee, and users' failures.
    std::size_t failures = 0;
    std::uint64_t offset = 0;       // its '>' record in the file
};

enum class TimelineMarkKind { Failure, Line };

// A failing result or a progress line ('U'). A failing result is an 'E' record with
// a negative code, or a user's failure that left no result record of its own (its
// "Conversion process is over" line, which is a progress line as well). Which of them
// arose where they were traced, and which only passed on a callee's failure, is the
// summary's reading: the timeline counts the failures as the summary does.
struct TimelineMark {
    TimelineMarkKind kind = TimelineMarkKind::Line;
    unsigned process = 0;
    std::uint32_t thread = 0;
    TimelineUs atUs = 0;
    std::ptrdiff_t scope = -1;      // innermost scope open on its thread, -1 outside any
    std::uint32_t code = 0;         // failures: the HRESULT
    std::string text;               // lines: the line; failures: the text after the code (a user's: its line)
    std::uint64_t offset = 0;
    bool passedOn = false;          // failures: a callee's failure returned again
    std::string user;               // failures: the SID, for a user's failure
};

struct Timeline {
    std::vector<TimelineProcess> processes;
    std::vector<TimelineScope> scopes; // in the order they were entered
    std::vector<TimelineMark> marks;   // in file order
    std::string origin;                // clock reading at time 0; empty when the file has none
    TimelineUs endUs = 0;              // the last record
    bool complete = true;              // the whole file decoded
    std::string damage;                // the decoder's message when not complete
};

struct TraceSummary;

// The summary must be the trace's own (Summarize(trace)): it tells the failures that
// arose from those passed on. Without one, the trace is summarized first.
Timeline BuildTimeline(const DecodedTrace& trace, const TraceSummary& summary);
Timeline BuildTimeline(const DecodedTrace& trace);

// The failing results that arose (not passed on): as many as the summary counts.
std::size_t AroseFailures(const Timeline& timeline);

// "CBaseConverter::Convert > CConverter3::do_Convert"; "(outside any scope)" for -1.
// A deep path is shortened as ScopePathText says.
std::string ScopePath(const Timeline& timeline, std::ptrdiff_t scope);

// "0x80070002".
std::string HexCode(std::uint32_t code);

} // namespace nvtrace
