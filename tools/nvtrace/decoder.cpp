#include "decoder.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/stat.h>
#endif
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "common/teacfb.h"
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

} // namespace nvtrace
