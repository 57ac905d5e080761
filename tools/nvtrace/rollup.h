// Many traces at once, for a fleet: one row per trace file (machine, library
// version, start, users moved / moved with gaps / held / failed, first failure,
// whether the file was whole) and totals with the most frequent failure codes, as a
// text table, JSON lines or CSV. Files are read one at a time and only their row
// and the bounded totals are kept, so memory does not grow with their number.
#pragma once
#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "decoder.h"
#include "summary.h"

namespace nvtrace {

enum class TraceState { Decoded, Damaged, Unreadable };

// The row's figures (start, users by outcome, first failure) are the trace's RowFigures.
struct TraceRow : RowFigures {
    std::string file;
    std::string machine;  // "Machine name: " of the header
    std::string version;  // "FileVersion: " of the header
    TraceState state = TraceState::Decoded;
    std::string problem;  // why the file is damaged or unreadable
};

// The row of one decoded file, its figures made by rows; codes receives how often each
// failure code arose in it.
TraceRow RowOf(const std::string& file, const TraceView& trace, RowSummaries& rows,
               std::map<std::uint32_t, std::size_t>* codes);

enum class RollupFormat { Summary, Json, Csv };

// The totals over every row, and the failure codes that arose most often. At most
// kMaxCodes distinct codes are counted; the rest are counted together as "other".
class RollupTotals {
public:
    static constexpr std::size_t kMaxCodes = 4096;
    void Add(const TraceRow& row, const std::map<std::uint32_t, std::size_t>& codes);
    std::size_t traces = 0, damaged = 0, unreadable = 0;
    std::size_t moved = 0, movedWithGaps = 0, held = 0, failed = 0;
    std::size_t failures = 0, otherFailures = 0;
    // Most frequent first, then by code; at most `count`.
    std::vector<std::pair<std::uint32_t, std::size_t>> MostFrequent(std::size_t count) const;

private:
    std::map<std::uint32_t, std::size_t> m_codes;
};

// Writes the rows as they come and the totals at the end.
class RollupWriter {
public:
    RollupWriter(RollupFormat format, std::ostream& out) : m_format(format), m_out(out) {}
    void Begin();
    void Row(const TraceRow& row);
    void End(const RollupTotals& totals);

private:
    RollupFormat m_format;
    std::ostream& m_out;
    std::string m_line;
};

// How many files a roll-up reads at once: one (all in the calling thread) or more
// (that many worker threads, the calling thread walking the folders and writing).
// By default as many as the CPUs this process may run on, at most kMaxRollupJobs.
constexpr unsigned kMaxRollupJobs = 16;
unsigned DefaultRollupJobs();

// The files between the folder walk and the output, at most: each holds its row
// only, never its bytes (a worker holds the bytes of the one file it reads).
constexpr std::size_t kRollupWindow = 256;

// What a roll-up held at once (tests read it; peakInFlight with several jobs only).
struct RollupStats {
    std::size_t peakInFlight = 0; // files and notes handed out but not yet written
    std::size_t peakListed = 0;   // the most entries of one folder's listing held at once
};

// Every trace named: a file as it is, a folder by every *.trc3 file under it
// (subfolders included, in name order). Rows come in that order whatever the jobs.
// Returns the exit code: 0 when every file decoded, 3 when any was truncated or
// corrupt, else 2 when any could not be read (or no trace was found); each such file
// is named in its row and on err. jobs 0: DefaultRollupJobs().
int RunRollup(const std::vector<std::string>& paths, RollupFormat format, std::ostream& out, std::ostream& err,
              unsigned jobs = 0, RollupStats* stats = nullptr);

// True for a folder (the command line then rolls up).
bool IsFolder(const std::string& path);

} // namespace nvtrace
