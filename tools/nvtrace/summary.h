// What a support engineer wants first from a trace: the processes and threads in
// it, every failing result with the scopes it passed through, the per-user outcome
// of a 2.0 -> 3.0 conversion, and where the time went. Also the records as JSON
// lines, for scripts. Portable, like the decoder.
#pragma once
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <optional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "decoder.h"

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
    std::string started; // "2026-11-21 12:20:44.512", or the date alone
    std::vector<SummaryThread> threads;
    // The library's operations it ran ("Convert", "Rollback", "Cleanup"), in order.
    // A process with none and no failing result only loaded the library (a status
    // query, a version check).
    std::vector<std::string> operations;
    std::size_t failures = 0; // failing results that arose in it
};

// A failing result, counted once at the scope where it arose. Each scope that only
// passed it on to its caller (its own result record carries the code a scope it
// called ended with) adds to passedUp instead of counting again. A user's failure
// that left no result record of its own (the per-user guard caught it) is one too,
// at the conversion's scope, with the user's SID.
struct SummaryFailure {
    unsigned process = 0;
    std::uint32_t thread = 0;
    std::string path;  // "CBaseConverter::Convert > CConverter3::do_Convert"
    std::int32_t code = 0;
    std::string text;  // the text after the code, usually empty
    std::size_t count = 0; // identical results in a row (same process, thread, path, code)
    std::size_t passedUp = 0;  // enclosing scopes that passed it on
    std::string reached;       // the outermost scope it reached, when passed up
    std::string user;          // the SID, for a user's failure without a result record
    std::vector<std::uint64_t> offsets; // where it arose, each time: its record's offset
};

// One user of a 2.0 -> 3.0 conversion, from "Conversion process began/is over for",
// "Incomplete user '<SID>' ..." and "DeleteKey('<SID>'), 0x..." lines.
struct SummaryUser {
    unsigned process = 0;
    std::size_t conversion = 0;   // index into TraceSummary::conversions
    std::string sid;
    bool over = false;            // the "is over" line was seen
    std::uint32_t status = 0;     // from the "is over" line
    bool deleteSeen = false;
    std::uint32_t deleteResult = 0;
    // What did not reach the store: "... moved with gaps: <parts>" (default policy,
    // the user moved without them) or "... keeps its old key: <parts>" (strict).
    std::string gaps;
    std::string heldFor;
    // "Retrieve payload" was traced: the store had no public key for the user yet,
    // and the format leaves that lookup's failure in the user's status.
    bool payloadRetrieved = false;
    std::uint32_t previousStatus = 0; // the status the user before it ended with
    bool hasPrevious = false;
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

// One run of a library operation that converts: a CBaseConverter::Convert scope
// (or a format step's do_Convert traced without one).
struct SummaryConversion {
    unsigned process = 0;
    std::string started;  // as SummaryProcess::started
    std::string fromVersion; // "2.0", from the "wszVersion = " line; empty when not traced
    std::string step;     // "2.0 -> 3.0", "1.0 -> 2.0"; empty when no format step ran
    bool strict = false;  // "Conversion policy: strict" was traced
    bool ended = true;    // its scope was left before the file ended
    bool failed = false;  // its own result was a failure
    std::uint32_t result = 0;
    std::string failedIn; // where that failure arose
};

struct TraceSummary {
    std::vector<std::string> header;     // the file's header lines
    std::vector<SummaryProcess> processes;
    std::vector<SummaryConversion> conversions;
    std::vector<SummaryFailure> failures;
    std::vector<SummaryUser> users;
    std::vector<SummaryScope> scopes; // by total time, longest first
    std::size_t unclosedScopes = 0;   // entered but never left (process ended or file cut)
    // Values the backup refused, from "value "<name>" of <key> is empty: ..." lines,
    // as "<key>: value "<name>" is empty; the backup cannot copy empty values".
    std::vector<std::string> emptyValues;
    // Set by the caller when the trace was cut down to one thread's records (the
    // clock's and the processes' records kept): what is said of it is said of that
    // thread alone.
    std::optional<std::uint32_t> onlyThread;
};

TraceSummary Summarize(const DecodedTrace& trace);
TraceSummary Summarize(const TraceView& trace);

// The failing results, each counted every time it arose (the sum of their counts).
std::size_t FailingResults(const TraceSummary& summary);

// What a roll-up row and its totals read of a trace, and nothing else: the first
// process's start, the users by outcome, the first failing result and how often
// each failure code arose (each counted where it arose).
struct RowFigures {
    std::string started; // the first process's start, "2026-11-15 09:30:00.125"
    std::size_t moved = 0, movedWithGaps = 0, held = 0, failed = 0;
    bool hasFailure = false;
    std::uint32_t firstFailure = 0; // the first failing result, counted where it arose
};
struct RowSummary : RowFigures {
    std::map<std::uint32_t, std::size_t> codes;
};

// The row's figures built straight from the records, without the full summary's
// per-user, per-failure and per-scope texts; they are the ones RowSummaryOf reads
// from the full summary (both read the lines through RecognizeLine).
RowSummary SummarizeRow(const TraceView& trace);
RowSummary RowSummaryOf(const TraceSummary& summary);

// SummarizeRow one trace after another: the lists it follows a trace's threads,
// scopes and users with keep their room for the next trace.
class RowSummaries {
public:
    RowSummaries();
    ~RowSummaries();
    RowSummaries(const RowSummaries&) = delete;
    RowSummaries& operator=(const RowSummaries&) = delete;
    RowSummary Of(const TraceView& trace);

    // For tests: the room kept for the next trace, in entries of each list (the
    // scopes summed over the kept threads' stacks).
    struct Room {
        std::size_t threads = 0, scopes = 0, users = 0;
    };
    Room Kept() const;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

// The library's lines a summary reads, recognised in one place for the full summary
// and the row alike.
enum class LineKind {
    Other,
    Version,         // "wszVersion = <rest>"
    StrictPolicy,    // "Conversion policy: strict"
    RetrievePayload, // "Retrieve payload"
    UserBegan,       // "Conversion process began for '<sid>'"
    UserOver,        // "Conversion process is over for '<sid>', <code>"
    OldKeyDeleted,   // "DeleteKey('<sid>'), <code>"
    EmptyValue,      // "value "<name>" of <key> is empty: the backup cannot copy empty values"
    MovedWithGaps,   // "Incomplete user '<sid>' moved with gaps: <rest>"
    KeepsOldKey,     // "Incomplete user '<sid>' keeps its old key: <rest>"
};
struct TraceLine {
    LineKind kind = LineKind::Other;
    std::string_view sid, rest;
    std::uint32_t code = 0;
    std::string_view name, key; // of an empty value
};
TraceLine RecognizeLine(std::string_view text);

// A result record's text: "<decimal code> <text>". Only a negative code is a failure.
struct ResultRecord {
    bool failing = false;
    std::int32_t code = 0;
    std::string_view text;
};
ResultRecord RecognizeResult(std::string_view text);

// The scopes that open a conversion: an operation's (CBaseConverter::Convert), or a
// format step's do_Convert when no conversion encloses it.
enum class ConversionScope { None, Operation, FormatStep };
ConversionScope ConversionScopeOf(std::string_view name);

// The outcome of one user, as the verdict counts it.
enum class UserOutcome {
    Moved,         // the old key went after a complete run of its steps
    MovedWithGaps, // moved without part of it (default policy)
    Held,          // kept its old data: the strict policy found something missing
    Failed,        // kept its old data: a step failed, or the trace ends inside it
};

// How the verdict counts the user; the row counts it from the same facts.
UserOutcome OutcomeOf(const SummaryUser& user);
UserOutcome OutcomeOf(bool deleteSeen, bool hasGaps, bool isHeld);

// A user that is not plainly moved: held, failed, moved with gaps, or moved with a
// note (its old key stayed, or its status carries a result that is no failure).
struct VerdictUser {
    std::string sid;
    UserOutcome outcome = UserOutcome::Moved;
    bool hasCode = false;
    std::uint32_t code = 0;  // the user's status
    std::string missing;     // what did not reach the store, in the library's words
    std::string note;        // why a status that is no failure is there, or what else to know
};

// The verdict on one conversion: what it did and who is not plainly moved.
struct Verdict {
    unsigned process = 0;
    std::string started;
    std::string step;     // "2.0 -> 3.0"; empty when no format step ran
    std::string policy;   // "default" or "strict"; empty for a step without users
    bool ended = true;
    bool failed = false;  // the conversion's own result
    std::uint32_t result = 0;
    std::string failedIn;
    std::size_t users = 0, moved = 0, movedWithGaps = 0, held = 0, failedUsers = 0;
    std::vector<VerdictUser> notPlainlyMoved; // in trace order
};

std::vector<Verdict> ComputeVerdicts(const TraceSummary& summary);
std::vector<Verdict> ComputeVerdicts(const DecodedTrace& trace);

// The verdict lines: one "verdict: ..." line per conversion, each followed by one
// indented line per user not plainly moved; "verdict: no conversion" when none ran.
void WriteVerdicts(const std::vector<Verdict>& verdicts, std::ostream& out);

// "0x80070005": how every result code is shown.
std::string Hex8(std::uint32_t code);

// A scope path as every output shows it: "A > B > C", outermost first, `levels` names
// long, nameAt(0) the outermost. The library's scopes nest a few levels deep; a
// damaged or crafted file can nest thousands, and a whole path for every failure or
// line would make an output grow with the square of the file. So a path of more than
// kPathOuterScopes + kPathInnerScopes names shows the outermost and the innermost
// ones and how many lie between: "A > B > C > D > ... 7984 more ... > W > X". Only
// the names shown are asked for.
constexpr std::size_t kPathOuterScopes = 4, kPathInnerScopes = 12;
std::string ScopePathText(std::size_t levels, const std::function<std::string_view(std::size_t)>& nameAt);

// "0x80070005 E_ACCESSDENIED "Access is denied"": hex, then name and message when known.
std::string DescribeResult(std::uint32_t code);

// Date and time text of the records, shared by the summary and the timeline: the
// number in n decimal digits at `at` (-1 when they are not all digits), and the days
// since 1970-01-01 of a civil date.
int Digits(std::string_view s, std::size_t at, std::size_t n);
std::int64_t DaysFromCivil(int y, unsigned m, unsigned d);

// The summary as text; at most `slowest` scopes are listed.
void WriteSummary(const TraceSummary& summary, std::ostream& out, std::size_t slowest = 10);

// One JSON object per record and line: offset, process, thread, kind, time (the
// file's clock when the record was written, or null), depth and text.
// With onlyThread, only that thread's records are written (their time and process
// still read from every record).
void WriteJsonLines(const DecodedTrace& trace, std::ostream& out, const std::uint32_t* onlyThread = nullptr);

} // namespace nvtrace
