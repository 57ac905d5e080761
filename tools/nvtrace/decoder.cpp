#include "decoder.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <new>

#include "counted.h"
#include "common/teacfb.h"
#include "trace/tracekeys.h"

namespace nvtrace {

namespace {

constexpr char kHeaderMark[] = "trace3\r\n"; // the first line, CR LF and all
constexpr char kHeaderEnd[] = ".";
// No header line the library writes comes near this; longer means this is no header.
constexpr std::size_t kMaxHeaderLine = 4096;

// The longest text each kind can carry; kNoKind for a byte that is no record kind.
// One look-up per record head, as a table: a fleet's traces hold millions of heads.
constexpr std::uint16_t kNoKind = 0xFFFF;

struct KindTable {
    std::uint16_t longest[256];
    constexpr KindTable() : longest{}
    {
        for (std::uint16_t& n : longest)
            n = kNoKind;
        longest[static_cast<unsigned char>('>')] = 99;
        longest[static_cast<unsigned char>('<')] = 0;
        longest[static_cast<unsigned char>('U')] = 399;
        longest[static_cast<unsigned char>('E')] = 260;
        longest[static_cast<unsigned char>('t')] = 8;
        longest[static_cast<unsigned char>('T')] = 12;
        longest[static_cast<unsigned char>('N')] = 10;
    }
};
constexpr KindTable kKinds;

std::size_t MaxTextLength(char kind) { return kKinds.longest[static_cast<unsigned char>(kind)]; }

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// pattern: 'd' a digit, anything else itself.
bool Matches(std::string_view text, const char* pattern)
{
    if (text.size() != std::strlen(pattern))
        return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (pattern[i] == 'd' ? !IsDigit(text[i]) : text[i] != pattern[i])
            return false;
    }
    return true;
}

// The UTF-8 character at `at`, which ends before `to`: its length, 0 when there is
// none (a stray byte, an overlong form, past U+10FFFF, cut by `to`), and its code
// point. An encoded surrogate half counts only when `surrogates` says so.
std::size_t Utf8Char(std::string_view text, std::size_t at, std::size_t to, bool surrogates, std::uint32_t* codePoint)
{
    const unsigned char c = static_cast<unsigned char>(text[at]);
    std::size_t n;
    std::uint32_t lowest;
    if (c < 0x80) {
        n = 1;
        lowest = 0;
    } else if (c >= 0xC2 && c <= 0xDF) {
        n = 2;
        lowest = 0x80;
    } else if (c >= 0xE0 && c <= 0xEF) {
        n = 3;
        lowest = 0x800;
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4;
        lowest = 0x10000;
    } else {
        return 0;
    }
    if (to - at < n)
        return 0;
    std::uint32_t value = n == 1 ? c : c & (0xFFu >> (n + 1));
    for (std::size_t k = 1; k < n; ++k) {
        const unsigned char t = static_cast<unsigned char>(text[at + k]);
        if ((t & 0xC0) != 0x80)
            return 0;
        value = (value << 6) | (t & 0x3Fu);
    }
    if (value < lowest || value > 0x10FFFF || (!surrogates && value >= 0xD800 && value <= 0xDFFF))
        return 0;
    if (codePoint)
        *codePoint = value;
    return n;
}

// The longest well-formed UTF-8 prefix of text[from, to): the end of the last whole
// character. Surrogate halves encoded on their own pass: a wide text cut between
// the two halves of a pair converts so on some systems.
std::size_t Utf8End(std::string_view text, std::size_t from, std::size_t to)
{
    std::size_t i = from;
    while (i < to) {
        // Most text is ASCII: eight bytes at a time while no byte has its top bit.
        std::uint64_t eight;
        while (to - i >= 8 && (std::memcpy(&eight, text.data() + i, 8), (eight & 0x8080808080808080u) == 0))
            i += 8;
        if (i == to)
            break;
        const std::size_t n = Utf8Char(text, i, to, true, nullptr);
        if (n == 0)
            return i;
        i += n;
    }
    return i;
}

// The bytes from `at` to the end begin a character that the end cut off.
bool IsCutCharacter(std::string_view text, std::size_t at)
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

bool HasControl(std::string_view text, std::size_t from)
{
    for (std::size_t i = from; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7F)
            return true;
    }
    return false;
}

bool InRange(std::string_view text, std::size_t at, int low, int high)
{
    const int v = (text[at] - '0') * 10 + (text[at + 1] - '0');
    return v >= low && v <= high;
}

// Whether the month (two digits at monthAt, 1 to 12) of `year` has the day at dayAt:
// the library writes the clock's date, never February 30th.
bool RealDay(std::string_view text, std::size_t monthAt, std::size_t dayAt, int year)
{
    static constexpr int kDays[12] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const int month = (text[monthAt] - '0') * 10 + (text[monthAt + 1] - '0');
    const int day = (text[dayAt] - '0') * 10 + (text[dayAt + 1] - '0');
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return day <= (month == 2 && !leap ? 28 : kDays[month - 1]);
}

int YearOf(std::string_view text, std::size_t at, std::size_t digits)
{
    int year = 0;
    for (std::size_t i = 0; i < digits; ++i)
        year = year * 10 + (text[at + i] - '0');
    return year;
}

// A result as the library formats it ("%d"): an optional minus, no leading zero,
// within 32 bits, and a code the library traces at all: a failure, or a success of
// facility 9. Sets end to where the number stops.
bool ResultNumber(std::string_view text, std::size_t& end)
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

// A word with a byte that is not printable ASCII (0x20 to 0x7E): it has a byte below
// 0x20 when (w - 0x20..) & ~w & 0x80.. is not zero, and one above 0x7E when
// ((w + 0x01..) | w) & 0x80.. is not zero.
bool NotPrintable(std::uint64_t w)
{
    constexpr std::uint64_t ones = 0x0101010101010101u, high = 0x8080808080808080u;
    return ((((w - 0x20 * ones) & ~w) | (w + ones) | w) & high) != 0;
}

// Every byte printable ASCII, eight at a time.
bool PrintableAscii(std::string_view text)
{
    std::size_t i = 0;
    for (std::uint64_t w; i + 8 <= text.size(); i += 8) {
        std::memcpy(&w, text.data() + i, 8);
        if (NotPrintable(w))
            return false;
    }
    for (; i < text.size(); ++i) {
        if (text[i] < 0x20 || text[i] > 0x7E)
            return false;
    }
    return true;
}

// Null when the text is one the library writes for the kind, else why not.
const char* CheckText(char kind, std::string_view text)
{
    // Most scope names and lines are printable ASCII: no NUL, a valid name, a valid
    // line. Anything else takes the checks below.
    if ((kind == '>' || kind == 'U') && !text.empty() && PrintableAscii(text))
        return nullptr;
    if (text.find('\0') != std::string::npos)
        return "its text holds a NUL byte";
    switch (kind) {
    case 't':
        if (!Matches(text, "dd/dd/dd") || !InRange(text, 0, 1, 12) || !InRange(text, 3, 1, 31))
            return "the date record is not mm/dd/yy";
        // Two digits of a year of this century, as the library's clock gives it.
        return RealDay(text, 0, 3, 2000 + YearOf(text, 6, 2)) ? nullptr
                                                               : "the date record names a day its month does not have";
    case 'T':
        return Matches(text, "dd:dd:dd.ddd") && InRange(text, 0, 0, 23) && InRange(text, 3, 0, 59) &&
                       InRange(text, 6, 0, 59)
                   ? nullptr
                   : "the time record is not hh:mm:ss.mmm";
    case 'N':
        if (!Matches(text, "dd-dd-dddd") || !InRange(text, 0, 1, 12) || !InRange(text, 3, 1, 31))
            return "the reopen record is not mm-dd-yyyy";
        return RealDay(text, 0, 3, YearOf(text, 6, 4)) ? nullptr
                                                        : "the reopen record names a day its month does not have";
    case '>':
        // Scope names are the library's own: plain ASCII, never empty.
        if (text.empty())
            return "the scope record has no name";
        for (const char c : text) {
            if (c < 0x20 || c > 0x7E)
                return "the scope name is not printable ASCII";
        }
        return nullptr;
    case 'U':
        // A line is UTF-8, cut only at a character's end; control characters can
        // come from the names it quotes.
        return Utf8End(text, 0, text.size()) == text.size() ? nullptr : "the line is not UTF-8";
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
        return nullptr;
    }
    default:
        return nullptr;
    }
}

std::string Hex2(unsigned v)
{
    static const char digits[] = "0123456789ABCDEF";
    return std::string{digits[(v >> 4) & 15], digits[v & 15]};
}

void Fail(TraceView& trace, std::uint64_t offset, const std::string& what, const std::string& detail)
{
    trace.ok = false;
    trace.errorOffset = offset;
    trace.error = what + " at byte offset " + std::to_string(offset) + ": " + detail;
}

// Fills key and returns it, so that members can be built from it.
const std::uint32_t* FilledTraceKey(std::uint32_t key[4])
{
    NVTraceNS::TraceKey(key);
    return key;
}

// One step of up to eight bytes: in XOR the key stream. Eight bytes at once where
// the input has them; the output always has room (the text buffer is padded, and a
// step that writes past its record's end is overwritten by the next record's).
void XorStep(const std::uint8_t* in, const std::uint8_t* end, std::uint64_t stream, std::size_t n, char* out)
{
    if (end - in >= 8) {
        std::uint64_t text;
        std::memcpy(&text, in, 8);
        text ^= stream;
        std::memcpy(out, &text, 8);
        return;
    }
    std::uint8_t key[8];
    std::memcpy(key, &stream, 8);
    for (std::size_t i = 0; i < n; ++i)
        out[i] = static_cast<char>(in[i] ^ key[i]);
}

} // namespace

TraceDecoder::TraceDecoder(CipherKernel kernel) : m_kernel(kernel), m_steps(FilledTraceKey(m_key))
{
    // The first step of every record enciphers the same starting block.
    std::memcpy(m_firstStep, NVTraceNS::kTraceStartBlock, sizeof(m_firstStep));
    nvcipher::TeaEncryptRegister(m_firstStep, m_key);
}

const TraceView& TraceDecoder::Decode(const std::uint8_t* data, std::size_t size)
{
    m_trace.records.clear();
    m_trace.bodyOffset = 0;
    m_trace.ok = true;
    m_trace.errorOffset = 0;
    m_trace.error.clear();
    m_misses = 0;
    m_enciphered = 0;
    m_texts.EmptyWhenHalfUsed();
    std::size_t pos = 0;
    if (size == 0 || data == nullptr) {
        m_trace.header.clear();
        Fail(m_trace, 0, "not a trace file", "the file is empty");
    } else if (ReadHeader(data, size, pos)) {
        m_trace.bodyOffset = pos;
        const std::size_t textSize = ReadHeads(data, size, pos);
        // Room for the last step's eight-byte store.
        m_text.resize(textSize + 8);
        UnscrambleAndCheck(data + size);
    }
    return m_trace;
}

// Header: CR LF terminated lines, "trace3" first, up to the line ".". The header's
// strings are reused from file to file: only the lines read stay.
bool TraceDecoder::ReadHeader(const std::uint8_t* data, std::size_t size, std::size_t& pos)
{
    std::size_t lines = 0;
    const bool whole = ReadHeaderLines(data, size, pos, lines);
    m_trace.header.resize(lines);
    return whole;
}

bool TraceDecoder::ReadHeaderLines(const std::uint8_t* data, std::size_t size, std::size_t& pos, std::size_t& lines)
{
    std::vector<std::string>& header = m_trace.header;
    // A file that does not start as a trace is told so at once, whatever follows
    // (a text file's lines end in LF alone; a picture has no line at all). One that
    // stops inside the first line's bytes is a trace cut short.
    if (pos == 0 && std::memcmp(data, kHeaderMark, std::min(size, sizeof(kHeaderMark) - 1)) != 0) {
        Fail(m_trace, 0, "not a trace file", "it does not begin with the line \"trace3\"");
        return false;
    }
    for (;;) {
        if (pos >= size) {
            Fail(m_trace, pos, "truncated header", "the file ends before the header's closing \".\" line");
            return false;
        }
        // The line's CR LF, looked for no further than the file's last byte but one and
        // the longest line allowed: end stops at that limit when there is none.
        const std::size_t limit = std::min(size - 1, pos + kMaxHeaderLine + 1);
        std::size_t end = pos;
        while (end < limit) {
            const void* cr = std::memchr(data + end, '\r', limit - end);
            if (!cr) {
                end = limit;
                break;
            }
            end = static_cast<std::size_t>(static_cast<const std::uint8_t*>(cr) - data);
            if (data[end + 1] == '\n')
                break;
            ++end;
        }
        if (end - pos > kMaxHeaderLine) {
            Fail(m_trace, pos, "corrupt header",
                 "a header line runs on for more than " + std::to_string(kMaxHeaderLine) + " bytes without CR LF");
            return false;
        }
        if (end + 1 >= size) {
            Fail(m_trace, pos, "truncated header", "the last header line has no CR LF and no closing \".\" line follows");
            return false;
        }
        const std::string_view line(reinterpret_cast<const char*>(data + pos), end - pos);
        if (lines < header.size())
            header[lines].assign(line);
        else
            header.emplace_back(line);
        ++lines;
        pos = end + 2;
        if (line == kHeaderEnd)
            return true;
    }
}

// The records' heads, which are not scrambled, up to the end or the first head that
// cannot be valid (the trace then fails there, unless a text before it fails first).
// Each record's text is left as its scrambled bytes in the file; returns the sum of
// their lengths. On the way, the key stream of every step after a record's first is
// looked up by the ciphertext step before it; those the cache lacks are enciphered a
// batch at a time.
std::size_t TraceDecoder::ReadHeads(const std::uint8_t* data, std::size_t size, std::size_t pos)
{
    // A step after the first follows eight bytes of text: at most one per eight bytes.
    const std::size_t most = (size - pos) / 8 + 1;
    if (m_streams.size() < most)
        m_streams.resize(most);
    std::uint64_t* streams = m_streams.data();
    std::size_t steps = 0;
    std::size_t textSize = 0;
    while (pos < size) {
        const std::size_t left = size - pos;
        if (left < kRecordHeadSize) {
            Fail(m_trace, pos, "truncated record",
                 "the record head needs " + Counted(kRecordHeadSize, "byte") + ", " + std::to_string(left) + " left");
            break;
        }
        const std::uint8_t* head = data + pos;
        const char kind = static_cast<char>(head[4]);
        const std::size_t n = std::size_t(head[5]) | (std::size_t(head[6]) << 8);
        const std::size_t longest = MaxTextLength(kind);
        if (longest == kNoKind) {
            Fail(m_trace, pos, "corrupt record", "unknown record kind 0x" + Hex2(head[4]));
            break;
        }
        if (n > longest) {
            Fail(m_trace, pos, "corrupt record",
                 std::string("a '") + kind + "' record cannot carry " + Counted(n, "byte") + " of text");
            break;
        }
        if (left - kRecordHeadSize < n) {
            Fail(m_trace, pos, "truncated record",
                 "the text needs " + Counted(n, "byte") + ", " + std::to_string(left - kRecordHeadSize) + " left");
            break;
        }
        const std::uint8_t* text = head + kRecordHeadSize;
        // Field by field into place: a record built aside and copied in stalled on
        // reading back the narrow stores just made.
        RecordView& record = m_trace.records.emplace_back();
        record.offset = pos;
        record.thread = nvcipher::LoadLe32(head);
        record.kind = kind;
        record.text = std::string_view(reinterpret_cast<const char*>(text), n);
        pos += kRecordHeadSize + n;
        if (n > 0) {
            if (const char* known = m_texts.Find(TextCache::Hash(kind, text, n, data + size), kind, text, n)) {
                record.text = std::string_view(known, n);
                continue;
            }
        }
        for (std::size_t at = 8; at < n; at += 8) {
            // Without a branch: a miss is always written down, and counted only when
            // the slot holds another ciphertext; it leaves its ciphertext in place of
            // the stream.
            std::uint64_t ciphertext; // the step before, as the bytes lie
            std::memcpy(&ciphertext, text + at - 8, 8);
            const StepCache::Slot& slot = m_steps.At(ciphertext);
            const bool found = slot.ciphertext == ciphertext;
            streams[steps] = found ? slot.stream : ciphertext;
            m_missAt[m_misses] = steps;
            m_misses += found ? 0 : 1;
            ++steps;
            if (m_misses == kMissBatch)
                EncipherMisses(streams);
        }
        textSize += n;
    }
    EncipherMisses(streams);
    return textSize;
}

// The batch of steps the cache lacked: each distinct ciphertext enciphered once, all
// side by side, and kept; each step then takes its stream. A file's misses are kept
// only in its batch, so the steps its lines share (a user's SID in each of its lines)
// would otherwise be enciphered once a line.
void TraceDecoder::EncipherMisses(std::uint64_t* streams)
{
    if (m_misses == 0)
        return;
    for (std::size_t j = 0; j < m_misses; ++j)
        m_missed[j] = streams[m_missAt[j]];
    const std::size_t distinct = m_steps.Distinct(m_missed, m_misses, m_distinctOf, m_distinct);
    for (std::size_t u = 0; u < distinct; ++u)
        StepCache::Words(m_distinct[u], m_y[u], m_z[u]);
    EncipherBlocks(m_kernel, m_key, m_y, m_z, distinct);
    for (std::size_t u = 0; u < distinct; ++u) {
        const std::uint64_t stream = StepCache::Bytes(m_y[u], m_z[u]);
        m_steps.Keep(m_distinct[u], stream);
        m_distinct[u] = stream;
    }
    for (std::size_t j = 0; j < m_misses; ++j)
        streams[m_missAt[j]] = m_distinct[m_distinctOf[j]];
    m_enciphered += distinct;
    m_misses = 0;
}

// Every record's text, with the key streams at hand: the first step's is known, each
// later step's is the cipher of the ciphertext step before. Each text is checked
// as it is unscrambled: the first that the library cannot have written ends the trace
// there, before any later head's failure.
void TraceDecoder::UnscrambleAndCheck(const std::uint8_t* end)
{
    std::uint64_t firstStep;
    std::memcpy(&firstStep, m_firstStep, 8);
    const std::uint64_t* stream = m_streams.data();
    char* out = &m_text[0];
    std::vector<RecordView>& records = m_trace.records;
    for (std::size_t i = 0; i < records.size(); ++i) {
        RecordView& r = records[i];
        // The records' texts are still the scrambled ones in the file, but for those
        // the text cache gave, checked when they were kept.
        if (m_texts.Holds(r.text.data()))
            continue;
        const std::uint8_t* in = reinterpret_cast<const std::uint8_t*>(r.text.data());
        const std::size_t n = r.text.size();
        // Whether the text is printable ASCII and not empty, as CheckText's first look
        // asks of scope names and lines, found word by word as it is unscrambled.
        bool printable = n > 0;
        std::uint64_t key = firstStep;
        for (std::size_t at = 0; at < n; at += 8) {
            if (at > 0)
                key = *stream++;
            if (n - at >= 8) {
                std::uint64_t text;
                std::memcpy(&text, in + at, 8);
                text ^= key;
                std::memcpy(out + at, &text, 8);
                printable &= !NotPrintable(text);
            } else {
                XorStep(in + at, end, key, n - at, out + at);
                printable &= PrintableAscii(std::string_view(out + at, n - at));
            }
        }
        r.text = std::string_view(out, n);
        out += n;
        if (!(printable && (r.kind == '>' || r.kind == 'U'))) {
            if (const char* problem = CheckText(r.kind, r.text)) {
                Fail(m_trace, r.offset, "corrupt record", problem);
                records.resize(i);
                return;
            }
        }
        if (n > 0)
            m_texts.Keep(TextCache::Hash(r.kind, in, n, end), r.kind, in, r.text);
    }
}

TextCache::TextCache() : m_slots(std::size_t(1) << kBits), m_seen(m_slots.size()) {}

std::uint64_t TextCache::Hash(char kind, const std::uint8_t* text, std::size_t n, const std::uint8_t* end)
{
    constexpr std::uint64_t k = 0x9E3779B97F4A7C15u;
    std::uint64_t first = 0, last = 0;
    if (n == 0) {
        // Nothing to read (and no mask of no bytes).
    } else if (n >= 8) {
        std::memcpy(&first, text, 8);
        std::memcpy(&last, text + n - 8, 8);
    } else if (end - text >= 8) {
        std::memcpy(&first, text, 8);
        first &= ~std::uint64_t(0) >> (64 - 8 * n);
    } else {
        std::memcpy(&first, text, n);
    }
    std::uint64_t h = ((std::uint64_t(n) << 8) | static_cast<unsigned char>(kind)) * k;
    h = (h ^ first) * k;
    h = (h ^ last) * k;
    return h ^ (h >> 29);
}

void TextCache::Keep(std::uint64_t hash, char kind, const std::uint8_t* cipher, std::string_view text)
{
    // A file's repeats of a text are all read before any is kept: one copy serves.
    const std::size_t n = text.size();
    if (kBlock - m_used < 2 * n || Find(hash, kind, cipher, n))
        return;
    std::uint64_t& seen = m_seen[Index(hash)];
    if (seen != hash) {
        seen = hash;
        return;
    }
    if (!m_block)
        m_block.reset(new char[kBlock]);
    char* at = m_block.get() + m_used;
    std::memcpy(at, cipher, n);
    std::memcpy(at + n, text.data(), n);
    m_slots[Index(hash)] = Slot{hash, static_cast<std::uint32_t>(m_used), static_cast<std::uint16_t>(n), kind};
    m_used += 2 * n;
}

void TextCache::EmptyWhenHalfUsed()
{
    if (m_used < kBlock / 2)
        return;
    std::fill(m_slots.begin(), m_slots.end(), Slot{});
    m_used = 0;
}

bool IsKnownKind(char kind) { return MaxTextLength(kind) != kNoKind; }

void ScrambleText(std::uint8_t* text, std::size_t size)
{
    std::uint32_t key[4];
    FilledTraceKey(key);
    nvcipher::CfbEncrypt(key, NVTraceNS::kTraceStartBlock, text, text, size);
}

void UnscrambleText(std::uint8_t* text, std::size_t size)
{
    std::uint32_t key[4];
    FilledTraceKey(key);
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
    TraceDecoder decoder;
    const TraceView& view = decoder.Decode(data, size);
    DecodedTrace trace;
    trace.header = view.header;
    trace.records.reserve(view.records.size());
    for (const RecordView& r : view.records)
        trace.records.push_back(Record{r.offset, r.thread, r.kind, std::string(r.text)});
    trace.bodyOffset = view.bodyOffset;
    trace.ok = view.ok;
    trace.errorOffset = view.errorOffset;
    trace.error = view.error;
    return trace;
}

namespace {

// Why a file is not read: larger than any trace (its size, or 0 for a file that told
// none and went on past the limit), or more than memory allows.
std::string TooLarge(const std::string& path, std::uint64_t size)
{
    const std::string limit = std::to_string(kMaxTraceFileBytes >> 20) + " MiB";
    return "'" + path + "' is too large for a trace: " +
           (size ? std::to_string(size) + " bytes" : "more than " + limit) + " (nvtrace reads files of up to " +
           limit + ")";
}

std::string OutOfMemory(const std::string& path) { return "not enough memory to read '" + path + "'"; }

} // namespace

#ifdef _WIN32
namespace {

// False for what opens but is no file: a device such as CON, a pipe or a folder.
// Reading one of those would wait for input that never comes (or fail oddly), so the
// decoder refuses it by name. A path that does not open at all is left to the
// reader, which says so.
bool NotAPlainFile(const std::string& path)
{
    HANDLE h = ::CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                             nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return false;
    BY_HANDLE_FILE_INFORMATION info{};
    const bool plain = ::GetFileType(h) == FILE_TYPE_DISK && ::GetFileInformationByHandle(h, &info) &&
                       !(info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY);
    ::CloseHandle(h);
    return !plain;
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
    // The size first, then one read; a file that tells no size is read in chunks.
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    in.seekg(0, std::ios::beg);
    if (size < 0 || !in) {
        error = "cannot read '" + path + "'";
        return false;
    }
    if (size > 0 && static_cast<std::uint64_t>(size) > kMaxTraceFileBytes) {
        error = TooLarge(path, static_cast<std::uint64_t>(size));
        return false;
    }
    try {
        if (size > 0) {
            data.resize(static_cast<std::size_t>(size));
            in.read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(size));
            data.resize(static_cast<std::size_t>(in.gcount()));
        } else {
            constexpr std::size_t kChunk = 64 * 1024;
            data.clear();
            while (in && data.size() <= kMaxTraceFileBytes) {
                const std::size_t have = data.size();
                data.resize(have + kChunk);
                in.read(reinterpret_cast<char*>(data.data() + have), static_cast<std::streamsize>(kChunk));
                data.resize(have + static_cast<std::size_t>(in.gcount()));
            }
            if (data.size() > kMaxTraceFileBytes) {
                error = TooLarge(path, 0);
                return false;
            }
        }
    } catch (const std::bad_alloc&) {
        error = OutOfMemory(path);
        return false;
    }
    if (in.bad()) {
        error = "cannot read '" + path + "'";
        return false;
    }
    return true;
}
#else
namespace {

// Closes the descriptor however the read ends.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : m_fd(fd) {}
    ~FileDescriptor()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

// Reads the file into data: `size` bytes (fewer if it ends sooner; one read when it
// does not), or, for a file that tells no size (size 0, as some system files), until
// its end or past kMaxTraceFileBytes. False on a read error.
bool ReadInto(int fd, std::vector<std::uint8_t>& data, std::size_t size)
{
    constexpr std::size_t kChunk = 64 * 1024;
    std::size_t have = 0;
    data.resize(size);
    while (size == 0 || have < size) {
        if (size == 0 && have > kMaxTraceFileBytes)
            break;
        if (size == 0 && data.size() - have < kChunk)
            data.resize(have + kChunk);
        const ssize_t n = ::read(fd, data.data() + have, data.size() - have);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            break;
        have += static_cast<std::size_t>(n);
    }
    data.resize(have);
    return true;
}

} // namespace

// A fleet's thousands of files are read here, so each costs four system calls: open,
// the kind and size from the open file, one read, close. What opens but is no plain
// file (a device such as /dev/tty, a pipe, a folder) is refused by name and never
// read: it would wait for input that never comes, or fail oddly. It is opened without
// blocking, so that a pipe with no writer opens at once to be refused. What does not
// open at all is told apart by a look at its name: a socket is no file, anything else
// cannot be opened.
bool ReadWholeFile(const std::string& path, std::vector<std::uint8_t>& data, std::string& error)
{
    const FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat st{};
    if (fd.get() < 0) {
        const bool exists = ::stat(path.c_str(), &st) == 0;
        error = exists && !S_ISREG(st.st_mode) ? "'" + path + "' is not a file" : "cannot open '" + path + "'";
        return false;
    }
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        error = "'" + path + "' is not a file";
        return false;
    }
    if (static_cast<std::uint64_t>(st.st_size) > kMaxTraceFileBytes) {
        error = TooLarge(path, static_cast<std::uint64_t>(st.st_size));
        return false;
    }
    // One read of the size the file has now.
    try {
        if (!ReadInto(fd.get(), data, static_cast<std::size_t>(st.st_size))) {
            error = "cannot read '" + path + "'";
            return false;
        }
    } catch (const std::bad_alloc&) {
        error = OutOfMemory(path);
        return false;
    }
    if (data.size() > kMaxTraceFileBytes) {
        error = TooLarge(path, 0);
        return false;
    }
    return true;
}
#endif

std::string CanonicalLine(const Record& record)
{
    if (record.kind == '<' && record.text.empty())
        return "<";
    return std::string(1, record.kind) + " " + record.text;
}

std::size_t Utf8Length(std::string_view s, std::size_t at, std::uint32_t* codePoint)
{
    return Utf8Char(s, at, s.size(), false, codePoint);
}

bool HiddenCodePoint(std::uint32_t cp)
{
    return (cp >= 0x80 && cp <= 0x9F) ||                  // C1 controls (U+009B opens an escape sequence)
           cp == 0x061C || cp == 0x200E || cp == 0x200F || // the letter marks that set a direction
           cp == 0x200B || cp == 0xFEFF ||                 // zero-width space, zero-width no-break space
           (cp >= 0x2060 && cp <= 0x2064) ||               // word joiner and invisible operators
           cp == 0x2028 || cp == 0x2029 ||                 // line and paragraph separators
           (cp >= 0x202A && cp <= 0x202E) ||               // embeddings and overrides
           (cp >= 0x2066 && cp <= 0x2069);                 // isolates
}

std::string CodePointEscape(std::uint32_t cp)
{
    char buf[16];
    std::snprintf(buf, sizeof(buf), "\\u%04X", static_cast<unsigned>(cp));
    return buf;
}

std::string Printable(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const char c = text[i];
        const unsigned char u = static_cast<unsigned char>(c);
        if (u >= 0x80) {
            std::uint32_t codePoint = 0;
            const std::size_t n = Utf8Length(text, i, &codePoint);
            if (n == 0)
                out += "\\x" + Hex2(u); // a byte that is no UTF-8
            else if (HiddenCodePoint(codePoint))
                out += CodePointEscape(codePoint);
            else
                out.append(text, i, n);
            i += n == 0 ? 1 : n;
            continue;
        }
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
        ++i;
    }
    return out;
}

} // namespace nvtrace
