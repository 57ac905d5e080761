#include "nvtracelib.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/stat.h>
#endif
#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include "common/tea_cfb.h"
#include "summary.h"
#include "timeline_cli.h"
#include "trace/trace_keys.h"

namespace nvtrace {

namespace {

constexpr char kHeaderMark[] = "trace3";
constexpr char kHeaderEnd[] = ".";
// No header line the library writes comes near this; longer means this is no header.
constexpr std::size_t kMaxHeaderLine = 4096;

// The longest text each kind can carry.
std::size_t MaxTextLength(char kind)
{
    switch (kind) {
    case '>': return 99;
    case '<': return 0;
    case 'U': return 399;
    case 'E': return 260;
    case 't': return 8;
    case 'T': return 12;
    case 'N': return 10;
    default: return 0;
    }
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// pattern: 'd' a digit, anything else itself.
bool Matches(const std::string& text, const char* pattern)
{
    if (text.size() != std::strlen(pattern))
        return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (pattern[i] == 'd' ? !IsDigit(text[i]) : text[i] != pattern[i])
            return false;
    }
    return true;
}

// An empty string when the text suits the kind, else why not.
std::string CheckText(char kind, const std::string& text)
{
    if (text.find('\0') != std::string::npos)
        return "its text holds a NUL byte";
    switch (kind) {
    case 't':
        return Matches(text, "dd/dd/dd") ? "" : "the date record is not mm/dd/yy";
    case 'T':
        return Matches(text, "dd:dd:dd.ddd") ? "" : "the time record is not hh:mm:ss.mmm";
    case 'N':
        return Matches(text, "dd-dd-dddd") ? "" : "the reopen record is not mm-dd-yyyy";
    case 'E': {
        std::size_t i = (!text.empty() && text[0] == '-') ? 1 : 0;
        const std::size_t digits = i;
        while (i < text.size() && IsDigit(text[i]))
            ++i;
        return (i > digits && i < text.size() && text[i] == ' ') ? "" : "the result record does not start with a number";
    }
    default:
        return "";
    }
}

std::string Hex2(unsigned v)
{
    static const char digits[] = "0123456789ABCDEF";
    return std::string{digits[(v >> 4) & 15], digits[v & 15]};
}

void Fail(DecodedTrace& trace, std::uint64_t offset, const std::string& what, const std::string& detail)
{
    trace.ok = false;
    trace.errorOffset = offset;
    trace.error = what + " at byte offset " + std::to_string(offset) + ": " + detail;
}

// Control characters shown as escapes, so one record stays one line.
std::string Printable(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '\n')
            out += "\\n";
        else if (c == '\r')
            out += "\\r";
        else if (c == '\t')
            out += "\\t";
        else if (u < 0x20 || u == 0x7F)
            out += "\\x" + Hex2(u);
        else
            out += c;
    }
    return out;
}

void TraceKeyAndBlock(std::uint32_t key[4]) { NVTraceNS::TraceKey(key); }

} // namespace

bool IsKnownKind(char kind)
{
    return kind == 'N' || kind == 't' || kind == 'T' || kind == '>' || kind == '<' || kind == 'U' || kind == 'E';
}

void ScrambleText(std::uint8_t* text, std::size_t size)
{
    std::uint32_t key[4];
    TraceKeyAndBlock(key);
    nvcipher::CfbEncrypt(key, NVTraceNS::kTraceStartBlock, text, text, size);
}

void UnscrambleText(std::uint8_t* text, std::size_t size)
{
    std::uint32_t key[4];
    TraceKeyAndBlock(key);
    nvcipher::CfbDecrypt(key, NVTraceNS::kTraceStartBlock, text, text, size);
}

std::vector<std::uint8_t> EncodeRecord(std::uint32_t thread, char kind, const std::string& text)
{
    const std::size_t n = text.size() > 0xFFFF ? 0xFFFF : text.size();
    std::vector<std::uint8_t> record(kRecordHeadSize + n);
    record[0] = static_cast<std::uint8_t>(thread);
    record[1] = static_cast<std::uint8_t>(thread >> 8);
    record[2] = static_cast<std::uint8_t>(thread >> 16);
    record[3] = static_cast<std::uint8_t>(thread >> 24);
    record[4] = static_cast<std::uint8_t>(kind);
    record[5] = static_cast<std::uint8_t>(n);
    record[6] = static_cast<std::uint8_t>(n >> 8);
    std::memcpy(record.data() + kRecordHeadSize, text.data(), n);
    ScrambleText(record.data() + kRecordHeadSize, n);
    return record;
}

DecodedTrace Decode(const std::vector<std::uint8_t>& data) { return Decode(data.data(), data.size()); }

DecodedTrace Decode(const std::uint8_t* data, std::size_t size)
{
    DecodedTrace trace;
    if (size == 0 || data == nullptr) {
        Fail(trace, 0, "not a trace file", "the file is empty");
        return trace;
    }

    // Header: CR LF terminated lines, "trace3" first, up to the line ".".
    std::size_t pos = 0;
    for (;;) {
        if (pos >= size) {
            Fail(trace, pos, "truncated header", "the file ends before the header's closing \".\" line");
            return trace;
        }
        std::size_t end = pos;
        while (end + 1 < size && !(data[end] == '\r' && data[end + 1] == '\n') && end - pos <= kMaxHeaderLine)
            ++end;
        if (end - pos > kMaxHeaderLine) {
            Fail(trace, pos, "corrupt header", "a header line runs on for more than " + std::to_string(kMaxHeaderLine) +
                                                   " bytes without CR LF");
            return trace;
        }
        if (end + 1 >= size) {
            Fail(trace, pos, "truncated header", "the last header line has no CR LF and no closing \".\" line follows");
            return trace;
        }
        std::string line(reinterpret_cast<const char*>(data + pos), end - pos);
        if (trace.header.empty() && line != kHeaderMark) {
            Fail(trace, 0, "not a trace file", "it does not begin with the line \"trace3\"");
            return trace;
        }
        trace.header.push_back(line);
        pos = end + 2;
        if (line == kHeaderEnd)
            break;
    }
    trace.bodyOffset = pos;

    // Body: records.
    while (pos < size) {
        const std::size_t left = size - pos;
        if (left < kRecordHeadSize) {
            Fail(trace, pos, "truncated record",
                 "the record head needs " + std::to_string(kRecordHeadSize) + " bytes, " + std::to_string(left) + " left");
            return trace;
        }
        Record record;
        record.offset = pos;
        record.thread = std::uint32_t(data[pos]) | (std::uint32_t(data[pos + 1]) << 8) |
                        (std::uint32_t(data[pos + 2]) << 16) | (std::uint32_t(data[pos + 3]) << 24);
        record.kind = static_cast<char>(data[pos + 4]);
        const std::size_t n = std::size_t(data[pos + 5]) | (std::size_t(data[pos + 6]) << 8);
        if (!IsKnownKind(record.kind)) {
            Fail(trace, pos, "corrupt record", "unknown record kind 0x" + Hex2(data[pos + 4]));
            return trace;
        }
        if (n > MaxTextLength(record.kind)) {
            Fail(trace, pos, "corrupt record",
                 std::string("a '") + record.kind + "' record cannot carry " + std::to_string(n) + " bytes of text");
            return trace;
        }
        if (left - kRecordHeadSize < n) {
            Fail(trace, pos, "truncated record",
                 "the text needs " + std::to_string(n) + " bytes, " + std::to_string(left - kRecordHeadSize) + " left");
            return trace;
        }
        std::vector<std::uint8_t> text(data + pos + kRecordHeadSize, data + pos + kRecordHeadSize + n);
        UnscrambleText(text.data(), text.size());
        record.text.assign(text.begin(), text.end());
        const std::string problem = CheckText(record.kind, record.text);
        if (!problem.empty()) {
            Fail(trace, pos, "corrupt record", problem);
            return trace;
        }
        trace.records.push_back(std::move(record));
        pos += kRecordHeadSize + n;
    }
    return trace;
}

namespace {

// False for what opens but is no file: a device such as CON or /dev/tty, a pipe or a
// folder. Reading one of those would wait for input that never comes (or fail
// oddly), so the decoder refuses it by name. A path that does not open at all is left
// to the reader, which says so.
bool NotAPlainFile(const std::string& path)
{
#ifdef _WIN32
    HANDLE h = ::CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                             nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return false;
    BY_HANDLE_FILE_INFORMATION info{};
    const bool plain = ::GetFileType(h) == FILE_TYPE_DISK && ::GetFileInformationByHandle(h, &info) &&
                       !(info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY);
    ::CloseHandle(h);
    return !plain;
#else
    struct stat st{};
    return ::stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode);
#endif
}

} // namespace

bool ReadWholeFile(const std::string& path, std::vector<std::uint8_t>& data, std::string& error)
{
    if (NotAPlainFile(path)) {
        error = "'" + path + "' is not a file";
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot open '" + path + "'";
        return false;
    }
    data.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (in.bad()) {
        error = "cannot read '" + path + "'";
        return false;
    }
    return true;
}

std::string CanonicalLine(const Record& record)
{
    if (record.kind == '<' && record.text.empty())
        return "<";
    return std::string(1, record.kind) + " " + record.text;
}

namespace {

struct ThreadDepth {
    std::uint32_t thread;
    int depth;
};

int& DepthOf(std::vector<ThreadDepth>& depths, std::uint32_t thread)
{
    for (ThreadDepth& d : depths) {
        if (d.thread == thread)
            return d.depth;
    }
    depths.push_back({thread, 0});
    return depths.back().depth;
}

} // namespace

void WriteListing(const DecodedTrace& trace, const FormatOptions& options, std::ostream& out)
{
    if (!options.raw) {
        for (const std::string& line : trace.header)
            out << line << '\n';
    }
    std::string date = "--/--/--", time = "--:--:--.---";
    std::vector<ThreadDepth> depths;
    for (const Record& record : trace.records) {
        // The clock is the file's, whichever thread wrote the timestamp.
        if (record.kind == 't')
            date = record.text;
        else if (record.kind == 'T')
            time = record.text;
        else if (record.kind == 'N') {
            // mm-dd-yyyy: a new process's records follow; its clock is not known yet.
            if (record.text.size() == 10)
                date = record.text.substr(0, 2) + "/" + record.text.substr(3, 2) + "/" + record.text.substr(8, 2);
            time = "--:--:--.---";
            depths.clear(); // another process: its threads start at the left margin
        }
        if (options.filterThread && record.thread != options.thread)
            continue;
        if (options.raw) {
            out << record.kind << '\t' << record.thread << '\t' << Printable(record.text) << '\n';
            continue;
        }
        if (record.kind == 't' || record.kind == 'T')
            continue;
        int& depth = DepthOf(depths, record.thread);
        if (record.kind == '<' && depth > 0)
            --depth;
        std::ostringstream line;
        line << date << ' ' << time << ' ';
        std::string thread = std::to_string(record.thread);
        if (thread.size() < 6)
            line << std::string(6 - thread.size(), ' ');
        line << thread << "  " << std::string(static_cast<std::size_t>(depth) * 2, ' ') << record.kind;
        if (!record.text.empty())
            line << ' ' << Printable(record.text);
        out << line.str() << '\n';
        if (record.kind == '>')
            ++depth;
    }
}

namespace {

const char kUsage[] =
    "usage: nvtrace [--raw | --summary | --json] [--thread N] FILE\n"
    "       nvtrace [--chrome-trace OUT.json] [--html OUT.html] [--thread N] FILE\n"
    "  Decodes a .trc3 trace file: the header as it stands, then one line per record\n"
    "  (date and time, thread id, indentation by scope depth, kind and text;\n"
    "  kinds: '>' scope entered, '<' scope left, 'U' line, 'E' result, 'N' file reopened).\n"
    "  --raw       every record as kind, thread and text, tab-separated, no header\n"
    "  --summary   processes and threads, every failing result with its scope path, code name\n"
    "              and message, the users of a 2.0 -> 3.0 conversion with their final status,\n"
    "              and the slowest scopes by total time\n"
    "  --json      every record as one JSON object per line (offset, process, thread, kind,\n"
    "              time, depth, text; results also code, name, message)\n"
    "  --thread N  only the records of thread N (decimal, or hex with 0x)\n"
    "  --chrome-trace OUT  the scopes per process and thread as a timeline for chrome://tracing\n"
    "              and Perfetto (trace event JSON), with failing results and progress lines\n"
    "  --html OUT  one self-contained page: verdict, users, failing results, timeline\n"
    "              (OUT \"-\": standard output; either replaces the listing)\n";

bool ParseThread(const std::string& text, std::uint32_t& value)
{
    if (text.empty())
        return false;
    std::size_t i = 0;
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        i = 2;
    }
    std::uint64_t v = 0;
    for (; i < text.size(); ++i) {
        const char c = text[i];
        int digit;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (base == 16 && c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (base == 16 && c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        else
            return false;
        v = v * static_cast<std::uint64_t>(base) + static_cast<std::uint64_t>(digit);
        if (v > 0xFFFFFFFFu)
            return false;
    }
    value = static_cast<std::uint32_t>(v);
    return true;
}

} // namespace

int RunCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    FormatOptions options;
    std::string path;
    bool havePath = false;
    bool summary = false, json = false;
    TimelineOutputs outputs;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--help" || a == "-h") {
            out << kUsage;
            return 0;
        }
        if (a == "--raw" || a == "--summary" || a == "--json") {
            if (options.raw || summary || json) {
                err << "nvtrace: --raw, --summary and --json exclude each other\n" << kUsage;
                return 1;
            }
            options.raw = a == "--raw";
            summary = a == "--summary";
            json = a == "--json";
        } else if (a == "--chrome-trace" || a == "--html") {
            if (i + 1 >= args.size() || args[i + 1].empty()) {
                err << "nvtrace: " << a << " needs an output file (\"-\": standard output)\n" << kUsage;
                return 1;
            }
            (a == "--html" ? outputs.html : outputs.chromeTrace) = args[++i];
        } else if (a == "--thread") {
            if (i + 1 >= args.size() || !ParseThread(args[i + 1], options.thread)) {
                err << "nvtrace: --thread needs a thread id (decimal, or hex with 0x)\n" << kUsage;
                return 1;
            }
            options.filterThread = true;
            ++i;
        } else if (a.size() > 1 && a[0] == '-') {
            err << "nvtrace: unknown option '" << a << "'\n" << kUsage;
            return 1;
        } else if (!havePath) {
            path = a;
            havePath = true;
        } else {
            err << "nvtrace: one trace file at a time\n" << kUsage;
            return 1;
        }
    }
    if (!havePath) {
        err << kUsage;
        return 1;
    }
    std::vector<std::uint8_t> data;
    std::string error;
    if (!ReadWholeFile(path, data, error)) {
        err << "nvtrace: " << error << '\n';
        return 2;
    }
    DecodedTrace trace = Decode(data);
    // What could be decoded is shown even when the file is damaged further on.
    if (summary || json || outputs.any()) {
        if (options.filterThread) {
            auto other = [&](const Record& r) {
                return r.thread != options.thread && r.kind != 'N' && r.kind != 't' && r.kind != 'T';
            };
            trace.records.erase(std::remove_if(trace.records.begin(), trace.records.end(), other),
                                trace.records.end());
        }
        if (summary)
            WriteSummary(Summarize(trace), out);
        else if (json)
            WriteJsonLines(trace, out);
        else if (options.raw)
            WriteListing(trace, options, out);
        if (outputs.any() && !WriteTimelineOutputs(trace, outputs, path, out, err))
            return 2;
    } else {
        WriteListing(trace, options, out);
    }
    out.flush();
    if (!trace.ok) {
        err << "nvtrace: " << path << ": " << trace.error << '\n';
        return 3;
    }
    return 0;
}

} // namespace nvtrace
