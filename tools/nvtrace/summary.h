// What a support engineer wants first from a trace: the processes and threads in
// it, every failing result with the scopes it passed through, the per-user outcome
// of a 2.0 -> 3.0 conversion, and where the time went. Also the records as JSON
// lines, for scripts. Portable, like the decoder.
#pragma once
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "nvtracelib.h"

namespace nvtrace {

// A result code's symbolic name and message, for the codes the library and its
// callers meet; both empty for any other code.
struct CodeText {
    std::string name;
    std::string message;
};
CodeText DescribeCode(std::uint32_t code);

struct SummaryThread {
    std::uint32_t id = 0;
    std::size_t records = 0;
};

// One process: the records between two 'N' records (the first one starts with the
// file). A process is known by its ordinal in the file and when it started.
struct SummaryProcess {
    unsigned ordinal = 0;
    std::string started; // "11/21/26 12:20:44.512", or the date alone
    std::vector<SummaryThread> threads;
};

struct SummaryFailure {
    unsigned process = 0;
    std::uint32_t thread = 0;
    std::string path;  // "CBaseConverter::Convert > CConverter3::do_Convert"
    std::int32_t code = 0;
    std::string text;  // the text after the code, usually empty
    std::size_t count = 0; // identical results in a row (same process, thread, path, code)
};

// One user of a 2.0 -> 3.0 conversion, from "Conversion process began/is over for",
// "Incomplete user '<SID>' ..." and "DeleteKey('<SID>'), 0x..." lines.
struct SummaryUser {
    unsigned process = 0;
    std::string sid;
    bool over = false;            // the "is over" line was seen
    std::uint32_t status = 0;     // from the "is over" line
    bool deleteSeen = false;
    std::uint32_t deleteResult = 0;
    // What did not reach the store: "... moved with gaps: <parts>" (default policy,
    // the user moved without them) or "... keeps its old key: <parts>" (strict).
    std::string gaps;
    std::string heldFor;
    // Moved: the user's old key was deleted after a complete run of its steps.
    bool moved() const { return deleteSeen && deleteResult == 0; }
    bool movedWithGaps() const { return moved() && !gaps.empty(); }
};

// The trace lines of a user who did not wholly reach the store: the same words
// under both policies, then what is missing.
inline constexpr const char kIncompleteUserLead[] = "Incomplete user '";
inline constexpr const char kMovedWithGapsTail[] = "' moved with gaps: ";
inline constexpr const char kKeepsOldKeyTail[] = "' keeps its old key: ";

struct SummaryScope {
    std::string name;
    std::size_t calls = 0;
    std::uint64_t totalMs = 0;
    std::uint64_t longestMs = 0;
};

struct TraceSummary {
    std::vector<SummaryProcess> processes;
    std::vector<SummaryFailure> failures;
    std::vector<SummaryUser> users;
    std::vector<SummaryScope> scopes; // by total time, longest first
    std::size_t unclosedScopes = 0;   // entered but never left (process ended or file cut)
    // Values the backup refused, from "value "<name>" of <key> is empty: ..." lines,
    // as "<key>: value "<name>" is empty; the backup cannot copy empty values".
    std::vector<std::string> emptyValues;
};

TraceSummary Summarize(const DecodedTrace& trace);

// The summary as text; at most `slowest` scopes are listed.
void WriteSummary(const TraceSummary& summary, std::ostream& out, std::size_t slowest = 10);

// One JSON object per record and line: offset, process, thread, kind, time (the
// file's clock when the record was written, or null), depth and text.
void WriteJsonLines(const DecodedTrace& trace, std::ostream& out);

} // namespace nvtrace
