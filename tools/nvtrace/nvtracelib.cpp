#include "nvtracelib.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/stat.h>
#endif
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include "common/teacfb.h"
#include "rollup.h"
#include "summary.h"
#include "timeline_cli.h"
#include "trace/tracekeys.h"

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

// The longest well-formed UTF-8 prefix of text[from, to): the end of the last whole
// character. Surrogate halves encoded on their own pass: a wide text cut between
// the two halves of a pair converts so on some systems.
std::size_t Utf8End(const std::string& text, std::size_t from, std::size_t to)
{
    std::size_t i = from;
    while (i < to) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        std::size_t n;
        unsigned lowest;
        if (c < 0x80) {
            ++i;
            continue;
        }
        if (c >= 0xC2 && c <= 0xDF) {
            n = 2;
            lowest = 0x80;
        } else if (c >= 0xE0 && c <= 0xEF) {
            n = 3;
            lowest = 0x800;
        } else if (c >= 0xF0 && c <= 0xF4) {
            n = 4;
            lowest = 0x10000;
        } else {
            return i;
        }
        if (to - i < n)
            return i;
        unsigned value = c & (0xFFu >> (n + 1));
        for (std::size_t k = 1; k < n; ++k) {
            const unsigned char t = static_cast<unsigned char>(text[i + k]);
            if ((t & 0xC0) != 0x80)
                return i;
            value = (value << 6) | (t & 0x3Fu);
        }
        if (value < lowest || value > 0x10FFFF)
            return i;
        i += n;
    }
    return i;
}

// The bytes from `at` to the end begin a character that the end cut off.
bool IsCutCharacter(const std::string& text, std::size_t at)
{
    const unsigned char c = static_cast<unsigned char>(text[at]);
    const std::size_t need = c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
    if (need == 0 || text.size() - at >= need)
        return false;
    for (std::size_t k = at + 1; k < text.size(); ++k) {
        if ((static_cast<unsigned char>(text[k]) & 0xC0) != 0x80)
            return false;
    }
    return true;
}

bool HasControl(const std::string& text, std::size_t from)
{
    for (std::size_t i = from; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7F)
            return true;
    }
    return false;
}

bool InRange(const std::string& text, std::size_t at, int low, int high)
{
    const int v = (text[at] - '0') * 10 + (text[at + 1] - '0');
    return v >= low && v <= high;
}

// A result as the library formats it ("%d"): an optional minus, no leading zero,
// within 32 bits, and a code the library traces at all: a failure, or a success of
// facility 9. Sets end to where the number stops.
bool ResultNumber(const std::string& text, std::size_t& end)
{
    std::size_t i = (!text.empty() && text[0] == '-') ? 1 : 0;
    const std::size_t first = i;
    long long v = 0;
    while (i < text.size() && IsDigit(text[i]) && i - first < 11) {
        v = v * 10 + (text[i] - '0');
        ++i;
    }
    const std::size_t digits = i - first;
    if (digits == 0 || (digits > 1 && text[first] == '0') || (i < text.size() && IsDigit(text[i])))
        return false;
    if (first == 1)
        v = -v;
    if (v < -2147483648LL || v > 2147483647LL)
        return false;
    end = i;
    if (v < 0)
        return true;
    return (static_cast<unsigned long long>(v) & 0x1FFF0000u) == 0x00090000u;
}

// An empty string when the text is one the library writes for the kind, else why not.
std::string CheckText(char kind, const std::string& text)
{
    if (text.find('\0') != std::string::npos)
        return "its text holds a NUL byte";
    switch (kind) {
    case 't':
        return Matches(text, "dd/dd/dd") && InRange(text, 0, 1, 12) && InRange(text, 3, 1, 31)
                   ? ""
                   : "the date record is not mm/dd/yy";
    case 'T':
        return Matches(text, "dd:dd:dd.ddd") && InRange(text, 0, 0, 23) && InRange(text, 3, 0, 59) &&
                       InRange(text, 6, 0, 59)
                   ? ""
                   : "the time record is not hh:mm:ss.mmm";
    case 'N':
        return Matches(text, "dd-dd-dddd") && InRange(text, 0, 1, 12) && InRange(text, 3, 1, 31)
                   ? ""
                   : "the reopen record is not mm-dd-yyyy";
    case '>':
        // Scope names are the library's own: plain ASCII, never empty.
        if (text.empty())
            return "the scope record has no name";
        for (const char c : text) {
            if (c < 0x20 || c > 0x7E)
                return "the scope name is not printable ASCII";
        }
        return "";
    case 'U':
        // A line is UTF-8, cut only at a character's end; control characters can
        // come from the names it quotes.
        return Utf8End(text, 0, text.size()) == text.size() ? "" : "the line is not UTF-8";
    case 'E': {
        std::size_t end = 0;
        if (!ResultNumber(text, end))
            return "the result record does not start with a result code the library traces";
        if (end >= text.size() || text[end] != ' ')
            return "the result record has no blank after its code";
        // The text after it is the caller's; a record at the longest length may have
        // been cut inside its last character.
        const std::size_t ok = Utf8End(text, end + 1, text.size());
        if (ok != text.size() && !(text.size() == MaxTextLength('E') && IsCutCharacter(text, ok)))
            return "the result text is not UTF-8";
        if (HasControl(text, end + 1))
            return "the result text holds a control character";
        return "";
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

// The record cipher, for reading many records fast. In cipher feedback each step's
// key stream is the cipher of the previous step's ciphertext, all of which is at
// hand when reading: the steps of a record are independent, and run side by side
// in lanes the compiler can vectorise. The first step of every record enciphers the
// same starting block, so its key stream is computed once.
class RecordReader {
public:
    RecordReader()
    {
        TraceKeyAndBlock(m_key);
        std::uint8_t start[8];
        std::memcpy(start, NVTraceNS::kTraceStartBlock, sizeof(start));
        nvcipher::TeaEncryptRegister(start, m_key);
        std::memcpy(m_firstStep, start, sizeof(start));
    }

    // Deciphers n bytes of a record's text from in into out.
    void Text(const std::uint8_t* in, std::size_t n, char* out) const
    {
        for (std::size_t i = 0; i < n && i < 8; ++i)
            out[i] = static_cast<char>(in[i] ^ m_firstStep[i]);
        for (std::size_t step = 8; step < n; step += kLanes * 8) {
            std::uint32_t y[kLanes] = {}, z[kLanes] = {};
            const std::size_t lanes = std::min(kLanes, (n - step + 7) / 8);
            for (std::size_t l = 0; l < lanes; ++l) {
                y[l] = nvcipher::LoadLe32(in + step + l * 8 - 8);
                z[l] = nvcipher::LoadLe32(in + step + l * 8 - 4);
            }
            Encipher(y, z);
            for (std::size_t l = 0; l < lanes; ++l) {
                std::uint8_t stream[8];
                nvcipher::StoreLe32(stream, y[l]);
                nvcipher::StoreLe32(stream + 4, z[l]);
                const std::size_t at = step + l * 8;
                for (std::size_t i = 0; i < 8 && at + i < n; ++i)
                    out[at + i] = static_cast<char>(in[at + i] ^ stream[i]);
            }
        }
    }

private:
    static constexpr std::size_t kLanes = 8;

    // The cipher's rounds over every lane, the shift right arithmetic as the
    // library's; the same arithmetic as nvcipher::TeaEncryptBlock.
    void Encipher(std::uint32_t (&y)[kLanes], std::uint32_t (&z)[kLanes]) const
    {
        const std::uint32_t k0 = m_key[0], k1 = m_key[1], k2 = m_key[2], k3 = m_key[3];
        std::uint32_t sum = 0;
        for (int round = 0; round < nvcipher::kTeaRounds; ++round) {
            sum += nvcipher::kTeaDelta;
            for (std::size_t l = 0; l < kLanes; ++l) {
                const std::uint32_t v = z[l];
                y[l] += ((v << 4) + k0) ^ (v + sum) ^ (((v >> 5) | ((0u - (v >> 31)) << 27)) + k1);
            }
            for (std::size_t l = 0; l < kLanes; ++l) {
                const std::uint32_t v = y[l];
                z[l] += ((v << 4) + k2) ^ (v + sum) ^ (((v >> 5) | ((0u - (v >> 31)) << 27)) + k3);
            }
        }
    }

    std::uint32_t m_key[4];
    std::uint8_t m_firstStep[8];
};

const RecordReader& Reader()
{
    static const RecordReader reader;
    return reader;
}

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
        record.text.resize(n);
        Reader().Text(data + pos + kRecordHeadSize, n, &record.text[0]);
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
    // The size first, then one read: a fleet's thousands of files are read here.
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    in.seekg(0, std::ios::beg);
    if (size > 0) {
        data.resize(static_cast<std::size_t>(size));
        in.read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(size));
        data.resize(static_cast<std::size_t>(in.gcount()));
    } else {
        data.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
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

// "0x80070002 HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)", then ": <text>" when the
// record has one: a result as a reader looks it up, not as a signed decimal.
std::string ResultShown(const std::string& text)
{
    const std::size_t blank = text.find(' ');
    const std::string number = text.substr(0, blank);
    char* end = nullptr;
    const long long code = std::strtoll(number.c_str(), &end, 10);
    if (number.empty() || *end != '\0')
        return text;
    const std::string rest = blank == std::string::npos ? std::string() : text.substr(blank + 1);
    const std::uint32_t value = static_cast<std::uint32_t>(code);
    char hex[16];
    std::snprintf(hex, sizeof(hex), "0x%08X", static_cast<unsigned>(value));
    std::string shown = hex;
    const std::string name = DescribeCode(value).name;
    if (!name.empty())
        shown += " " + name;
    if (!rest.empty())
        shown += ": " + rest;
    return shown;
}

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
        if (record.kind == 'E')
            line << ' ' << Printable(ResultShown(record.text));
        else if (!record.text.empty())
            line << ' ' << Printable(record.text);
        out << line.str() << '\n';
        if (record.kind == '>')
            ++depth;
    }
}

namespace {

const char kUsage[] =
    "usage: nvtrace [--raw | --summary | --json] [--thread N] FILE\n"
    "       nvtrace [--summary | --json | --csv] FILE|FOLDER...\n"
    "       nvtrace [--chrome-trace OUT.json] [--html OUT.html] [--thread N] FILE\n"
    "  Decodes a .trc3 trace file: the header as it stands, then one line per record\n"
    "  (date and time, thread id, indentation by scope depth, kind and text;\n"
    "  kinds: '>' scope entered, '<' scope left, 'U' line, 'E' result as hex code and\n"
    "  name, 'N' file reopened).\n"
    "  --raw       every record as kind, thread and text, tab-separated, no header\n"
    "  --summary   first the verdict on each conversion (format step, policy, users moved,\n"
    "              moved with gaps, held and failed, and every user not plainly moved),\n"
    "              then processes and threads, every failing result once with its scope\n"
    "              path, code name and message, the users of a 2.0 -> 3.0 conversion, and\n"
    "              the slowest scopes by total time\n"
    "  --json      every record as one JSON object per line (offset, process, thread, kind,\n"
    "              time, depth, text; results also code, name, message)\n"
    "  --csv       the roll-up below as CSV\n"
    "  --thread N  only the records of thread N (decimal, or hex with 0x)\n"
    "  --chrome-trace OUT  the scopes per process and thread as a timeline for chrome://tracing\n"
    "              and Perfetto (trace event JSON), with failing results and progress lines\n"
    "  --html OUT  one self-contained page: verdict, users, failing results, timeline\n"
    "              (OUT \"-\": standard output; either replaces the listing)\n"
    "  Several files, or a folder (every *.trc3 under it), with --summary, --json or\n"
    "  --csv: one row per trace (machine, version, start, users moved, with gaps, held,\n"
    "  failed, first failure, damage) and totals with the most frequent failure codes.\n"
    "  Exit codes: 0 decoded, 1 usage, 2 unreadable (or no trace found), 3 truncated or\n"
    "  corrupt (with many files: 3 if any was, else 2 if any could not be read).\n";

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

namespace {

enum class OutputMode { Listing, Raw, Summary, Json, Csv };

// What the command line asks for.
struct CliOptions {
    OutputMode mode = OutputMode::Listing;
    bool modeGiven = false;
    FormatOptions format;
    TimelineOutputs outputs; // --chrome-trace, --html
    std::vector<std::string> paths;
};

// The options that choose what is written to standard output; one at most.
struct ModeOption {
    const char* name;
    OutputMode mode;
};
constexpr ModeOption kModeOptions[] = {
    {"--raw", OutputMode::Raw},
    {"--summary", OutputMode::Summary},
    {"--json", OutputMode::Json},
    {"--csv", OutputMode::Csv},
};

// -1 when the command line is complete, else the exit code to return at once.
int ParseCli(const std::vector<std::string>& args, CliOptions& options, std::ostream& out, std::ostream& err)
{
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--help" || a == "-h") {
            out << kUsage;
            return 0;
        }
        const ModeOption* mode = nullptr;
        for (const ModeOption& m : kModeOptions)
            if (a == m.name)
                mode = &m;
        if (mode) {
            if (options.modeGiven) {
                err << "nvtrace: --raw, --summary, --json and --csv exclude each other\n" << kUsage;
                return 1;
            }
            options.modeGiven = true;
            options.mode = mode->mode;
            options.format.raw = mode->mode == OutputMode::Raw;
        } else if (a == "--chrome-trace" || a == "--html") {
            if (i + 1 >= args.size() || args[i + 1].empty()) {
                err << "nvtrace: " << a << " needs an output file (\"-\": standard output)\n" << kUsage;
                return 1;
            }
            (a == "--html" ? options.outputs.html : options.outputs.chromeTrace) = args[++i];
        } else if (a == "--thread") {
            if (i + 1 >= args.size() || !ParseThread(args[i + 1], options.format.thread)) {
                err << "nvtrace: --thread needs a thread id (decimal, or hex with 0x)\n" << kUsage;
                return 1;
            }
            options.format.filterThread = true;
            ++i;
        } else if (a.size() > 1 && a[0] == '-') {
            err << "nvtrace: unknown option '" << a << "'\n" << kUsage;
            return 1;
        } else {
            options.paths.push_back(a);
        }
    }
    if (options.paths.empty()) {
        err << kUsage;
        return 1;
    }
    return -1;
}

// Many files, a folder, or --csv: one row per trace instead of one trace in full.
bool WantsRollup(const CliOptions& options)
{
    if (options.mode == OutputMode::Csv || options.paths.size() > 1)
        return true;
    const bool rollable = options.mode == OutputMode::Summary || options.mode == OutputMode::Json;
    return rollable && IsFolder(options.paths.front());
}

int RunOneTrace(const CliOptions& options, std::ostream& out, std::ostream& err)
{
    const std::string& path = options.paths.front();
    std::vector<std::uint8_t> data;
    std::string error;
    if (!ReadWholeFile(path, data, error)) {
        err << "nvtrace: " << error << '\n';
        return 2;
    }
    DecodedTrace trace = Decode(data);
    // What could be decoded is shown even when the file is damaged further on.
    if (options.mode == OutputMode::Summary || options.mode == OutputMode::Json || options.outputs.any()) {
        if (options.format.filterThread) {
            auto other = [&](const Record& r) {
                return r.thread != options.format.thread && r.kind != 'N' && r.kind != 't' && r.kind != 'T';
            };
            trace.records.erase(std::remove_if(trace.records.begin(), trace.records.end(), other),
                                trace.records.end());
        }
        if (options.mode == OutputMode::Summary)
            WriteSummary(Summarize(trace), out);
        else if (options.mode == OutputMode::Json)
            WriteJsonLines(trace, out);
        else if (options.mode == OutputMode::Raw)
            WriteListing(trace, options.format, out);
        if (options.outputs.any() && !WriteTimelineOutputs(trace, options.outputs, path, out, err))
            return 2;
    } else {
        WriteListing(trace, options.format, out);
    }
    out.flush();
    if (!trace.ok) {
        err << "nvtrace: " << path << ": " << trace.error << '\n';
        return 3;
    }
    return 0;
}

} // namespace

int RunCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    CliOptions options;
    const int parsed = ParseCli(args, options, out, err);
    if (parsed >= 0)
        return parsed;
    if (!WantsRollup(options))
        return RunOneTrace(options, out, err);
    if (options.mode == OutputMode::Listing || options.mode == OutputMode::Raw) {
        err << "nvtrace: one trace file at a time\n" << kUsage;
        return 1;
    }
    if (options.format.filterThread) {
        err << "nvtrace: --thread takes one trace file\n" << kUsage;
        return 1;
    }
    if (options.outputs.any()) {
        err << "nvtrace: --chrome-trace and --html take one trace file\n" << kUsage;
        return 1;
    }
    const RollupFormat format = options.mode == OutputMode::Csv    ? RollupFormat::Csv
                                : options.mode == OutputMode::Json ? RollupFormat::Json
                                                                   : RollupFormat::Summary;
    return RunRollup(options.paths, format, out, err);
}

} // namespace nvtrace
