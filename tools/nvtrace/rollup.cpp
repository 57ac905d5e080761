#include "rollup.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>
#include <system_error>

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
// prefixed with an apostrophe: machine names and paths come from the files.
void AppendCsvField(std::string& out, std::string_view text)
{
    const bool formula = !text.empty() && (text[0] == '=' || text[0] == '+' || text[0] == '-' || text[0] == '@');
    const bool quoted = text.find_first_of(",\"\r\n") != std::string_view::npos;
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

TraceRow RowOf(const std::string& file, const TraceView& trace, std::map<std::uint32_t, std::size_t>* codes)
{
    TraceRow row;
    row.file = file;
    row.machine = HeaderValue(trace.header, "Machine name: ");
    row.version = HeaderValue(trace.header, "FileVersion: ");
    RowSummary summary = SummarizeRow(trace);
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
              << Padded(row.machine.empty() ? "-" : row.machine, 15) << "  "
              << Padded(row.version.empty() ? "-" : row.version, 10) << "  " << RightAligned(row.moved, 5) << ' '
              << RightAligned(row.movedWithGaps, 5) << ' ' << RightAligned(row.held, 5) << ' '
              << RightAligned(row.failed, 7) << "  " << Padded(row.hasFailure ? CodeAndName(row.firstFailure) : "-", 52)
              << "  " << row.file;
        if (row.state != TraceState::Decoded)
            m_out << "  (" << StateWord(row.state) << ": " << row.problem << ')';
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
              << CsvField(std::to_string(totals.traces) + " traces, " + std::to_string(totals.damaged) + " damaged, " +
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

// Reads, decodes and rolls up one file, then lets it go.
class Rollup {
public:
    Rollup(RollupFormat format, std::ostream& out, std::ostream& err) : m_writer(format, out), m_err(err) {}

    void Begin() { m_writer.Begin(); }

    void File(const std::string& path)
    {
        std::map<std::uint32_t, std::size_t> codes;
        TraceRow row;
        std::string error;
        if (!ReadWholeFile(path, m_data, error)) {
            row.file = path;
            row.state = TraceState::Unreadable;
            row.problem = error;
            m_err << "nvtrace: " << error << '\n';
        } else {
            const TraceView& trace = m_decoder.Decode(m_data.data(), m_data.size());
            row = RowOf(path, trace, &codes);
            if (!trace.ok)
                m_err << "nvtrace: " << path << ": " << trace.error << '\n';
        }
        m_totals.Add(row, codes);
        m_writer.Row(row);
    }

    // Every *.trc3 file under the folder, in name order, one folder level held at a time.
    void Folder(const fs::path& folder)
    {
        std::error_code ec;
        // The entries keep the kind the listing gave: no extra look at each file.
        std::vector<fs::directory_entry> entries;
        for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec))
            entries.push_back(*it);
        if (ec) {
            m_err << "nvtrace: cannot list '" << folder.string() << "'\n";
            m_listingFailed = true;
            return;
        }
        // The entries share the folder's text, so their paths' text orders them as
        // their paths do, without splitting each into its parts.
        std::sort(entries.begin(), entries.end(), [](const fs::directory_entry& a, const fs::directory_entry& b) {
            return a.path().native() < b.path().native();
        });
        for (const fs::directory_entry& entry : entries) {
            std::error_code kind;
            if (entry.is_directory(kind))
                Folder(entry.path());
            else if (HasTraceExtension(entry.path()) && entry.is_regular_file(kind))
                File(entry.path().string());
        }
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

    std::size_t traces() const { return m_totals.traces; }

private:
    RollupWriter m_writer;
    std::ostream& m_err;
    RollupTotals m_totals;
    bool m_listingFailed = false;
    // Reused from file to file: the file's bytes and the decoder's buffers.
    std::vector<std::uint8_t> m_data;
    TraceDecoder m_decoder;
};

} // namespace

int RunRollup(const std::vector<std::string>& paths, RollupFormat format, std::ostream& out, std::ostream& err)
{
    Rollup rollup(format, out, err);
    rollup.Begin();
    for (const std::string& path : paths) {
        if (IsFolder(path)) {
            const std::size_t before = rollup.traces();
            rollup.Folder(fs::path(path));
            if (rollup.traces() == before)
                err << "nvtrace: no " << kTraceExtension << " file in '" << path << "'\n";
        } else {
            rollup.File(path);
        }
    }
    const int code = rollup.End();
    out.flush();
    return code;
}

} // namespace nvtrace
