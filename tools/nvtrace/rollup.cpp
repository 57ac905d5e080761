#include "rollup.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <condition_variable>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

#ifdef _WIN32
#include <windows.h>
#elif defined(__linux__)
#include <sched.h>
#endif

#include "counted.h"

namespace nvtrace {

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

constexpr char kTraceExtension[] = ".trc3";
constexpr std::size_t kMostFrequentShown = 5;

std::string HeaderValue(const std::vector<std::string>& header, const std::string& lead)
{
    for (const std::string& line : header)
        if (line.compare(0, lead.size(), lead) == 0)
            return line.substr(lead.size());
    return std::string();
}

const char* StateWord(TraceState state)
{
    switch (state) {
    case TraceState::Decoded: return "decoded";
    case TraceState::Damaged: return "damaged";
    case TraceState::Unreadable: return "unreadable";
    }
    return "";
}

std::string Padded(const std::string& text, std::size_t width)
{
    return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::string RightAligned(std::size_t value, std::size_t width)
{
    const std::string text = std::to_string(value);
    return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

std::string CodeAndName(std::uint32_t code)
{
    const std::string name = DescribeCode(code).name;
    return name.empty() ? Hex8(code) : Hex8(code) + " " + name;
}

// One CSV field (RFC 4180). Text that a spreadsheet would run as a formula is
// prefixed with an apostrophe: machine names and paths come from the files. That is
// text opening with = + - @, or with a tab or CR, which spreadsheets skip before
// looking for a formula.
void AppendCsvField(std::string& out, std::string_view text)
{
    const bool formula = !text.empty() && (text[0] == '=' || text[0] == '+' || text[0] == '-' || text[0] == '@' ||
                                           text[0] == '\t' || text[0] == '\r');
    // Byte by byte with the four compares inline: find_first_of searched the set of
    // four once per byte of every path.
    const bool quoted = std::any_of(text.begin(), text.end(),
                                    [](char c) { return c == ',' || c == '"' || c == '\r' || c == '\n'; });
    if (quoted)
        out += '"';
    if (formula)
        out += '\'';
    if (!quoted) {
        out.append(text);
        return;
    }
    for (const char c : text) {
        out += c;
        if (c == '"')
            out += '"';
    }
    out += '"';
}

std::string CsvField(const std::string& text)
{
    std::string field;
    AppendCsvField(field, text);
    return field;
}

std::string JsonText(const Json& value) { return value.dump(-1, ' ', false, Json::error_handler_t::replace); }

Json CodeJson(std::uint32_t code)
{
    const CodeText text = DescribeCode(code);
    Json j = Json::object();
    j["code"] = Hex8(code);
    j["name"] = text.name.empty() ? Json(nullptr) : Json(text.name);
    j["message"] = text.message.empty() ? Json(nullptr) : Json(text.message);
    return j;
}

// A folder entry's name ends in the extension, case aside, as path::extension() finds
// it (a name that is only the extension has none), without building the extension.
bool HasTraceExtension(const fs::path& path)
{
    const auto& name = path.native();
    constexpr std::size_t n = sizeof(kTraceExtension) - 1;
    if (name.size() <= n)
        return false;
    const auto before = name[name.size() - n - 1];
    if (before == '/' || before == fs::path::preferred_separator)
        return false;
    for (std::size_t i = 0; i < n; ++i) {
        const auto c = name[name.size() - n + i];
        if ((c >= 'A' && c <= 'Z' ? c + 32 : c) != kTraceExtension[i])
            return false;
    }
    return true;
}

} // namespace

bool IsFolder(const std::string& path)
{
    std::error_code ec;
    return fs::is_directory(fs::path(path), ec);
}

TraceRow RowOf(const std::string& file, const TraceView& trace, RowSummaries& rows,
               std::map<std::uint32_t, std::size_t>* codes)
{
    TraceRow row;
    row.file = file;
    row.machine = HeaderValue(trace.header, "Machine name: ");
    row.version = HeaderValue(trace.header, "FileVersion: ");
    RowSummary summary = rows.Of(trace);
    static_cast<RowFigures&>(row) = std::move(summary);
    if (codes) {
        for (const auto& [code, count] : summary.codes)
            (*codes)[code] += count;
    }
    if (!trace.ok) {
        row.state = TraceState::Damaged;
        row.problem = trace.error;
    }
    return row;
}

void RollupTotals::Add(const TraceRow& row, const std::map<std::uint32_t, std::size_t>& codes)
{
    ++traces;
    damaged += row.state == TraceState::Damaged ? 1 : 0;
    unreadable += row.state == TraceState::Unreadable ? 1 : 0;
    moved += row.moved;
    movedWithGaps += row.movedWithGaps;
    held += row.held;
    failed += row.failed;
    for (const auto& [code, count] : codes) {
        failures += count;
        auto it = m_codes.find(code);
        if (it != m_codes.end())
            it->second += count;
        else if (m_codes.size() < kMaxCodes)
            m_codes.emplace(code, count);
        else
            otherFailures += count;
    }
}

std::vector<std::pair<std::uint32_t, std::size_t>> RollupTotals::MostFrequent(std::size_t count) const
{
    std::vector<std::pair<std::uint32_t, std::size_t>> all(m_codes.begin(), m_codes.end());
    std::stable_sort(all.begin(), all.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
    if (all.size() > count)
        all.resize(count);
    return all;
}

void RollupWriter::Begin()
{
    if (m_format == RollupFormat::Csv) {
        m_out << "file,machine,version,started,moved,moved_with_gaps,held,failed,first_failure,first_failure_name,state,"
                 "problem\n";
    } else if (m_format == RollupFormat::Summary) {
        m_out << Padded("started", 23) << "  " << Padded("machine", 15) << "  " << Padded("version", 10)
              << "  moved  gaps  held  failed  " << Padded("first failure", 52) << "  trace\n";
    }
}

void RollupWriter::Row(const TraceRow& row)
{
    switch (m_format) {
    case RollupFormat::Csv: {
        // One write per row, the line built in a buffer kept from row to row.
        std::string& line = m_line;
        line.clear();
        for (const std::string* field : {&row.file, &row.machine, &row.version, &row.started}) {
            AppendCsvField(line, *field);
            line += ',';
        }
        for (const std::size_t count : {row.moved, row.movedWithGaps, row.held, row.failed})
            line.append(std::to_string(count)).append(1, ',');
        if (row.hasFailure) {
            line.append(Hex8(row.firstFailure)).append(1, ',');
            AppendCsvField(line, DescribeCode(row.firstFailure).name);
        } else {
            line += ',';
        }
        line.append(1, ',').append(StateWord(row.state)).append(1, ',');
        AppendCsvField(line, row.problem);
        line += '\n';
        m_out.write(line.data(), static_cast<std::streamsize>(line.size()));
        break;
    }
    case RollupFormat::Json: {
        Json j = Json::object();
        j["file"] = row.file;
        j["machine"] = row.machine;
        j["version"] = row.version;
        j["started"] = row.started.empty() ? Json(nullptr) : Json(row.started);
        j["moved"] = row.moved;
        j["movedWithGaps"] = row.movedWithGaps;
        j["held"] = row.held;
        j["failed"] = row.failed;
        j["firstFailure"] = row.hasFailure ? CodeJson(row.firstFailure) : Json(nullptr);
        j["state"] = StateWord(row.state);
        j["problem"] = row.problem.empty() ? Json(nullptr) : Json(row.problem);
        m_out << JsonText(j) << '\n';
        break;
    }
    case RollupFormat::Summary:
        m_out << Padded(row.started.empty() ? "-" : row.started, 23) << "  "
              << Padded(row.machine.empty() ? "-" : Printable(row.machine), 15) << "  "
              << Padded(row.version.empty() ? "-" : Printable(row.version), 10) << "  "
              << RightAligned(row.moved, 5) << ' '
              << RightAligned(row.movedWithGaps, 5) << ' ' << RightAligned(row.held, 5) << ' '
              << RightAligned(row.failed, 7) << "  " << Padded(row.hasFailure ? CodeAndName(row.firstFailure) : "-", 52)
              << "  " << Printable(row.file);
        if (row.state != TraceState::Decoded)
            m_out << "  (" << StateWord(row.state) << ": " << Printable(row.problem) << ')';
        m_out << '\n';
        break;
    }
}

void RollupWriter::End(const RollupTotals& totals)
{
    const auto top = totals.MostFrequent(kMostFrequentShown);
    switch (m_format) {
    case RollupFormat::Csv: {
        std::string most;
        for (const auto& [code, count] : top)
            most += (most.empty() ? "most frequent: " : "; ") + Hex8(code) + " x" + std::to_string(count);
        m_out << "(total)," << ",," << ',' << totals.moved << ',' << totals.movedWithGaps << ',' << totals.held << ','
              << totals.failed << ',' << (top.empty() ? "" : Hex8(top.front().first)) << ','
              << CsvField(top.empty() ? "" : DescribeCode(top.front().first).name) << ','
              << CsvField(Counted(totals.traces, "trace") + ", " + std::to_string(totals.damaged) + " damaged, " +
                          std::to_string(totals.unreadable) + " unreadable")
              << ',' << CsvField(most) << '\n';
        break;
    }
    case RollupFormat::Json: {
        Json t = Json::object();
        t["traces"] = totals.traces;
        t["damaged"] = totals.damaged;
        t["unreadable"] = totals.unreadable;
        t["moved"] = totals.moved;
        t["movedWithGaps"] = totals.movedWithGaps;
        t["held"] = totals.held;
        t["failed"] = totals.failed;
        t["failures"] = totals.failures;
        Json most = Json::array();
        for (const auto& [code, count] : top) {
            Json c = CodeJson(code);
            c["count"] = count;
            most.push_back(c);
        }
        t["mostFrequent"] = most;
        Json j = Json::object();
        j["totals"] = t;
        m_out << JsonText(j) << '\n';
        break;
    }
    case RollupFormat::Summary:
        m_out << "\ntraces: " << totals.traces << ", " << totals.damaged << " damaged, " << totals.unreadable
              << " unreadable\nusers: " << totals.moved << " moved, " << totals.movedWithGaps << " moved with gaps, "
              << totals.held << " held, " << totals.failed << " failed\nfailing results: " << totals.failures
              << " (each counted where it arose)\n";
        if (!top.empty()) {
            m_out << "most frequent failure codes:\n";
            for (const auto& [code, count] : top)
                m_out << "  " << RightAligned(count, 6) << "  " << DescribeResult(code) << '\n';
        }
        break;
    }
}

namespace {

// What reading one file gives, kept until it is written in its turn.
struct FileOutcome {
    TraceRow row;
    std::map<std::uint32_t, std::size_t> codes;
    std::string complaint; // the line for err, none when the file decoded
};

// Reads, decodes and summarizes one file after another, reusing its buffers: the
// file's bytes and the decoder's.
class FileReader {
public:
    void Read(const std::string& path, FileOutcome& outcome)
    {
        outcome.codes.clear();
        outcome.complaint.clear();
        std::string error;
        if (!ReadWholeFile(path, m_data, error)) {
            Unreadable(path, error, outcome);
            return;
        }
        try {
            const TraceView& trace = m_decoder.Decode(m_data.data(), m_data.size());
            outcome.row = RowOf(path, trace, m_rows, &outcome.codes);
            if (!trace.ok)
                outcome.complaint = "nvtrace: " + Printable(path + ": " + trace.error) + '\n';
        } catch (const std::bad_alloc&) {
            // A file within the size limit whose records need more memory than there
            // is: that file is unreadable here, the others are still read.
            outcome.codes.clear();
            Unreadable(path, "not enough memory to decode '" + path + "'", outcome);
        }
    }

private:
    static void Unreadable(const std::string& path, const std::string& why, FileOutcome& outcome)
    {
        outcome.row = TraceRow();
        outcome.row.file = path;
        outcome.row.state = TraceState::Unreadable;
        outcome.row.problem = why;
        outcome.complaint = "nvtrace: " + Printable(why) + '\n';
    }

    std::vector<std::uint8_t> m_data;
    TraceDecoder m_decoder;
    RowSummaries m_rows;
};

// Writes the files' rows and the walk's notes in the order they are given, and keeps
// the totals and the exit code.
class RollupOutput {
public:
    RollupOutput(RollupFormat format, std::ostream& out, std::ostream& err) : m_writer(format, out), m_err(err) {}

    void Begin() { m_writer.Begin(); }

    void File(const FileOutcome& outcome)
    {
        if (!outcome.complaint.empty())
            m_err << outcome.complaint;
        m_totals.Add(outcome.row, outcome.codes);
        m_writer.Row(outcome.row);
    }

    void Note(const std::string& text, bool listingFailed)
    {
        m_err << text;
        m_listingFailed = m_listingFailed || listingFailed;
    }

    int End()
    {
        m_writer.End(m_totals);
        if (m_totals.damaged)
            return 3;
        if (m_totals.unreadable || m_listingFailed || m_totals.traces == 0)
            return 2;
        return 0;
    }

private:
    RollupWriter m_writer;
    std::ostream& m_err;
    RollupTotals m_totals;
    bool m_listingFailed = false;
};

// Where the walk sends the trace files it finds and what it has to say, in order.
class RollupSink {
public:
    virtual ~RollupSink() = default;
    virtual void File(std::string path) = 0;
    virtual void Note(std::string text, bool listingFailed) = 0;
};

// Every file named, every *.trc3 file under every folder named (in name order, one
// folder level held at a time; links followed to files, not to folders), and a note
// for a folder that cannot be listed, holds no trace or is reached through a link.
class RollupWalk {
public:
    RollupWalk(RollupSink& sink, RollupStats* stats) : m_sink(sink), m_stats(stats) {}

    void Path(const std::string& path)
    {
        if (!IsFolder(path)) {
            ++m_files;
            m_sink.File(path);
            return;
        }
        const std::size_t before = m_files;
        Folder(fs::path(path));
        if (m_files == before)
            m_sink.Note(std::string("nvtrace: no ") + kTraceExtension + " file in '" + Printable(path) + "'\n", false);
    }

private:
    void Folder(const fs::path& folder)
    {
        std::error_code ec;
        // The entries keep the kind the listing gave: no extra look at each file. Only
        // what may be read is kept: a folder of other files costs no memory.
        std::vector<fs::directory_entry> entries;
        for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
            std::error_code kind;
            if (HasTraceExtension(it->path()) || it->is_directory(kind))
                entries.push_back(*it);
        }
        if (m_stats)
            m_stats->peakListed = std::max(m_stats->peakListed, entries.size());
        if (ec) {
            m_sink.Note("nvtrace: cannot list '" + Printable(folder.string()) + "'\n", true);
            return;
        }
        // The entries share the folder's text, so their paths' text orders them as
        // their paths do, without splitting each into its parts.
        std::sort(entries.begin(), entries.end(), [](const fs::directory_entry& a, const fs::directory_entry& b) {
            return a.path().native() < b.path().native();
        });
        for (const fs::directory_entry& entry : entries) {
            std::error_code kind;
            if (entry.is_directory(kind)) {
                // A link is followed to a file, never to a folder: a folder may hold a
                // link to itself or to an ancestor (a Wine prefix links its drive Z:
                // to /), and the walk would go round it, or through the whole disk.
                if (entry.is_symlink(kind)) {
                    m_sink.Note("nvtrace: '" + Printable(entry.path().string()) +
                                    "' is a link to a folder: not followed (name it to read the folder)\n",
                                false);
                    continue;
                }
                Folder(entry.path());
            } else if (HasTraceExtension(entry.path()) && entry.is_regular_file(kind)) {
                ++m_files;
                m_sink.File(entry.path().string());
            }
        }
    }

    RollupSink& m_sink;
    RollupStats* m_stats;
    std::size_t m_files = 0;
};

// One file at a time, in this thread: read, decoded, written, let go.
class SerialRollup : public RollupSink {
public:
    explicit SerialRollup(RollupOutput& output) : m_output(output) {}
    void File(std::string path) override
    {
        m_reader.Read(path, m_outcome);
        m_output.File(m_outcome);
    }
    void Note(std::string text, bool listingFailed) override { m_output.Note(text, listingFailed); }

private:
    RollupOutput& m_output;
    FileReader m_reader;
    FileOutcome m_outcome;
};

// Several files at a time: workers read and decode the files the walk hands over,
// each with its own buffers, while this thread walks the folders and writes the
// rows in the walk's order. The files between the walk and the output sit in a ring
// of kRollupWindow entries (a row each, no file's bytes); when it is full the walk
// waits for the oldest to be written, so memory does not grow with the files.
//
// The hand-overs are atomic counters and flags, so a file costs no lock: a thread
// sleeps only when it has nothing to do (a worker with no file, the writer waiting
// for a batch), and is woken through the mutex only when the other side sees it
// asleep. Each side stores its own flag or counter, then reads the other's, all
// sequentially consistent: of a sleeper and a waker, one always sees the other.
class ParallelRollup : public RollupSink {
public:
    ParallelRollup(RollupOutput& output, unsigned workers, RollupStats* stats)
        : m_output(output), m_ring(new Entry[kRollupWindow]), m_stats(stats)
    {
        m_workers.reserve(workers);
        for (unsigned i = 0; i < workers; ++i)
            m_workers.emplace_back([this] { Work(); });
    }

    ~ParallelRollup() override
    {
        m_stop = true;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
        }
        m_work.notify_all();
        for (std::thread& worker : m_workers)
            worker.join();
    }

    void File(std::string path) override
    {
        Entry& entry = Claim();
        entry.path = std::move(path);
        entry.isNote = false;
        Hand();
    }

    void Note(std::string text, bool listingFailed) override
    {
        Entry& entry = Claim();
        entry.note = std::move(text);
        entry.listingFailed = listingFailed;
        entry.isNote = true;
        Hand();
    }

    // Writes what is still in flight, in order.
    void Finish()
    {
        while (m_head != m_tail)
            WriteDone(m_tail - m_head);
    }

private:
    struct Entry {
        bool isNote = false, listingFailed = false; // the walk's, before the entry is handed out
        std::atomic<bool> done{false};
        std::string path, note;
        FileOutcome outcome;
    };

    Entry& At(std::size_t index) { return m_ring[index % kRollupWindow]; }

    // The next free entry, after writing the oldest ones when the ring is full.
    Entry& Claim()
    {
        if (m_tail - m_head == kRollupWindow)
            WriteDone(kWriteBatch);
        return At(m_tail);
    }

    void Hand()
    {
        m_tail.store(m_tail + 1);
        if (m_stats)
            m_stats->peakInFlight = std::max(m_stats->peakInFlight, m_tail - m_head);
        if (m_idle.load() > 0) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_work.notify_one();
        }
    }

    // Waits until the oldest entry and `want` entries in all (or every one in flight)
    // are done, then writes every done entry from the oldest on. Waiting for several
    // at once keeps the hand-overs between threads few.
    void WriteDone(std::size_t want)
    {
        m_want = std::min(want, m_tail - m_head);
        if (!ReadyToWrite()) {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_writerWaits = true;
            m_written.wait(lock, [this] { return ReadyToWrite(); });
            m_writerWaits = false;
        }
        // The done entries are the writer's until it moves the head past them.
        std::size_t ready = 0;
        for (; m_head + ready != m_tail && At(m_head + ready).done.load(); ++ready) {
            Entry& entry = At(m_head + ready);
            if (entry.isNote)
                m_output.Note(entry.note, entry.listingFailed);
            else
                m_output.File(entry.outcome);
            entry.done.store(false);
        }
        m_doneUnwritten -= ready;
        m_head.store(m_head + ready);
    }

    bool ReadyToWrite() const
    {
        const std::size_t head = m_head.load();
        return head != m_tail.load() && m_ring[head % kRollupWindow].done.load() && m_doneUnwritten.load() >= m_want;
    }

    // The next entry no worker has taken, or false when the walk has handed out none.
    bool Take(std::size_t& index)
    {
        index = m_next.load();
        while (index != m_tail.load()) {
            if (m_next.compare_exchange_weak(index, index + 1))
                return true;
        }
        return false;
    }

    void Work()
    {
        FileReader reader;
        for (;;) {
            std::size_t index;
            if (!Take(index)) {
                std::unique_lock<std::mutex> lock(m_mutex);
                ++m_idle;
                m_work.wait(lock, [this] { return m_stop || m_next.load() != m_tail.load(); });
                --m_idle;
                if (m_next.load() == m_tail.load())
                    return; // stopped, nothing left
                continue;
            }
            Entry& entry = At(index);
            if (!entry.isNote)
                reader.Read(entry.path, entry.outcome);
            entry.done.store(true);
            ++m_doneUnwritten;
            if (m_writerWaits.load() && ReadyToWrite()) {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_written.notify_one();
            }
        }
    }

    static constexpr std::size_t kWriteBatch = kRollupWindow / 4;

    RollupOutput& m_output;
    std::unique_ptr<Entry[]> m_ring;
    RollupStats* m_stats;
    std::vector<std::thread> m_workers;
    std::mutex m_mutex; // only to sleep and to wake
    std::condition_variable m_work, m_written;
    // Entries in walk order: [m_head, m_tail) in flight, from m_next on not yet taken.
    // The walk moves m_tail, the writer m_head (the same thread), the workers m_next.
    std::atomic<std::size_t> m_head{0}, m_next{0}, m_tail{0};
    std::atomic<std::size_t> m_doneUnwritten{0};
    std::atomic<std::size_t> m_want{0};
    std::atomic<unsigned> m_idle{0};
    std::atomic<bool> m_writerWaits{false}, m_stop{false};
};

} // namespace

unsigned DefaultRollupJobs()
{
    unsigned cpus = 0;
#if defined(__linux__)
    cpu_set_t set;
    if (::sched_getaffinity(0, sizeof(set), &set) == 0)
        cpus = static_cast<unsigned>(CPU_COUNT(&set));
#elif defined(_WIN32)
    DWORD_PTR process = 0, system = 0;
    if (::GetProcessAffinityMask(::GetCurrentProcess(), &process, &system))
        for (; process; process &= process - 1)
            ++cpus;
#endif
    if (cpus == 0)
        cpus = std::thread::hardware_concurrency();
    return std::clamp(cpus, 1u, kMaxRollupJobs);
}

int RunRollup(const std::vector<std::string>& paths, RollupFormat format, std::ostream& out, std::ostream& err,
              unsigned jobs, RollupStats* stats)
{
    RollupOutput output(format, out, err);
    output.Begin();
    if (jobs == 0)
        jobs = DefaultRollupJobs();
    if (jobs <= 1) {
        SerialRollup serial(output);
        RollupWalk walk(serial, stats);
        for (const std::string& path : paths)
            walk.Path(path);
    } else {
        ParallelRollup parallel(output, std::min(jobs, kMaxRollupJobs), stats);
        RollupWalk walk(parallel, stats);
        for (const std::string& path : paths)
            walk.Path(path);
        parallel.Finish();
    }
    const int code = output.End();
    out.flush();
    return code;
}

} // namespace nvtrace
