// The trace decoder: reads the binary trace files that the library writes (a plain
// header, then scrambled records), unscrambles and parses the records. Portable
// C++17: builds on Linux and for Windows. Bad input never throws or crashes: the
// decoder keeps what it could read and says at which byte offset it stopped.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cipher_batch.h"

namespace nvtrace {

constexpr std::size_t kRecordHeadSize = 7;

// One record of the file's body.
struct Record {
    std::uint64_t offset = 0; // byte offset of the record's head in the file
    std::uint32_t thread = 0;
    char kind = 0;            // 'N', 't', 'T', '>', '<', 'U' or 'E'
    std::string text;         // unscrambled
};

// The same record with its text held elsewhere (in a TraceDecoder's buffer).
struct RecordView {
    std::uint64_t offset = 0;
    std::uint32_t thread = 0;
    char kind = 0;
    std::string_view text;
};

template <class RecordType>
struct BasicTrace {
    std::vector<std::string> header; // header lines without CR LF, "trace3" first, "." last
    std::vector<RecordType> records;
    std::uint64_t bodyOffset = 0;    // where the first record starts
    bool ok = true;
    std::uint64_t errorOffset = 0;   // where decoding stopped, when !ok
    std::string error;               // what was wrong there, naming the offset
};

using DecodedTrace = BasicTrace<Record>;
using TraceView = BasicTrace<RecordView>;

// Whole records' texts by their ciphertext. Cipher feedback restarted for every
// record turns the same text into the same ciphertext, and a fleet's traces repeat
// most of their records (scope names, the fixed lines): a record found here needs
// neither its key stream nor its checks, and its text is not copied. Each text is
// kept with its ciphertext in one fixed block of memory, which never moves, so the
// texts handed out hold until the cache is emptied; that happens only between files,
// once the block is half used. A text is kept the second time it is read (unless
// another text of its slot was read in between); the first time only its hash is
// noted, so that the lines one trace alone has (those naming its users) cost no copy.
// One slot per hash, the newest kept; the ciphertext is compared whole, so a hash
// that collides (a crafted trace) costs only a miss. The block is taken at the first
// text kept: a decoder made for one small file need not take it.
class TextCache {
public:
    static constexpr unsigned kBits = 12;                 // 4,096 slots
    static constexpr std::size_t kBlock = std::size_t(1) << 20; // the texts' memory

    TextCache();

    // The hash a record's ciphertext is found by: its kind, its length, and its first
    // and last eight bytes (every later step depends on all the text before it).
    // `end` is the end of the file image, which no read passes. The slot it is kept in
    // is Index(hash).
    static std::uint64_t Hash(char kind, const std::uint8_t* text, std::size_t n, const std::uint8_t* end);

    // The kept text of a record of this kind and ciphertext, or null.
    const char* Find(std::uint64_t hash, char kind, const std::uint8_t* text, std::size_t n) const
    {
        const Slot& slot = m_slots[Index(hash)];
        if (slot.hash != hash || slot.n != n || slot.kind != kind || n == 0 ||
            !SameBytes(m_block.get() + slot.at, text, n))
            return nullptr;
        return m_block.get() + slot.at + n;
    }

    // Keeps a text the decoder read and checked, if it was read before (since the hash
    // last noted in its slot), while the block has room.
    void Keep(std::uint64_t hash, char kind, const std::uint8_t* cipher, std::string_view text);

    // Between files: empties the cache once its block is half used.
    void EmptyWhenHalfUsed();

    // Whether a text lies in the cache's block: a text it gave.
    bool Holds(const char* text) const
    {
        const std::less<const char*> before;
        return m_block && !before(text, m_block.get()) && before(text, m_block.get() + kBlock);
    }

    std::size_t Used() const { return m_used; } // for tests
    static std::size_t Index(std::uint64_t hash) { return static_cast<std::size_t>(hash >> (64 - kBits)); }

private:
    struct Slot {
        std::uint64_t hash = 0;
        std::uint32_t at = 0; // in the block: the ciphertext, then the text
        std::uint16_t n = 0;  // 0: free
        char kind = 0;
    };

    // memcmp's answer for the kept ciphertext, eight bytes at a time in place: most
    // texts are a few words, and the call cost more than the comparing.
    static bool SameBytes(const char* kept, const std::uint8_t* text, std::size_t n)
    {
        std::uint64_t a, b;
        if (n < 8)
            return std::memcmp(kept, text, n) == 0;
        for (std::size_t i = 0; i + 8 < n; i += 8) {
            std::memcpy(&a, kept + i, 8);
            std::memcpy(&b, text + i, 8);
            if (a != b)
                return false;
        }
        std::memcpy(&a, kept + n - 8, 8);
        std::memcpy(&b, text + n - 8, 8);
        return a == b;
    }

    std::vector<Slot> m_slots;
    std::vector<std::uint64_t> m_seen; // per slot, the hash of the last text read once
    std::unique_ptr<char[]> m_block;
    std::size_t m_used = 0;
};

// Decodes one file image after another, reusing its buffers: what many files are
// read with. Its result holds until the next Decode.
class TraceDecoder {
public:
    explicit TraceDecoder(CipherKernel kernel = FastestCipherKernel());
    const TraceView& Decode(const std::uint8_t* data, std::size_t size);

    // The misses are enciphered this many at a time, and kept: a long file's later
    // records find the steps of its earlier ones.
    static constexpr std::size_t kMissBatch = 1024;

    // For tests: the step cache, and how many blocks the last file's steps needed
    // enciphered (the distinct ones of each batch of steps the cache lacked).
    const StepCache& Steps() const { return m_steps; }
    const TextCache& Texts() const { return m_texts; }
    std::size_t StepsEnciphered() const { return m_enciphered; }

private:
    bool ReadHeader(const std::uint8_t* data, std::size_t size, std::size_t& pos);
    bool ReadHeaderLines(const std::uint8_t* data, std::size_t size, std::size_t& pos, std::size_t& lines);
    std::size_t ReadHeads(const std::uint8_t* data, std::size_t size, std::size_t pos);
    void UnscrambleAndCheck(const std::uint8_t* end); // end: of the file image

    void EncipherMisses(std::uint64_t* streams);

    CipherKernel m_kernel;
    std::uint32_t m_key[4];      // before m_steps, which is built from it
    std::uint8_t m_firstStep[8]; // the key stream of every record's first step
    TraceView m_trace;
    std::string m_text;          // every record's text, one after another
    StepCache m_steps;
    TextCache m_texts;
    // Each later step's key stream, in file order; a step the cache lacked holds the
    // ciphertext step before it until its batch is enciphered.
    std::vector<std::uint64_t> m_streams;
    std::size_t m_missAt[kMissBatch];              // the batch's steps, by index in m_streams
    std::uint64_t m_missed[kMissBatch];            // and their ciphertexts
    std::uint32_t m_distinctOf[kMissBatch];        // each one's index among the distinct ones
    std::uint64_t m_distinct[kMissBatch];          // those, then their streams
    std::uint32_t m_y[kMissBatch], m_z[kMissBatch]; // and their cipher blocks
    std::size_t m_misses = 0;                      // in the batch
    std::size_t m_enciphered = 0;                  // in the last file
};

// Decodes a whole trace file image.
DecodedTrace Decode(const std::uint8_t* data, std::size_t size);
DecodedTrace Decode(const std::vector<std::uint8_t>& data);

// The largest file read as a trace. The library's trace grows by a few hundred bytes
// a user and a process, so no real trace comes near it; a larger file (a sparse one,
// say, planted among a fleet's traces) is refused unread, since reading it would take
// its whole size in memory and more again for its records.
constexpr std::uint64_t kMaxTraceFileBytes = std::uint64_t(256) << 20;

// Reads a whole file; false (and a message) when it cannot be read: it does not open,
// is no plain file, is larger than kMaxTraceFileBytes, or memory runs out.
bool ReadWholeFile(const std::string& path, std::vector<std::uint8_t>& data, std::string& error);

bool IsKnownKind(char kind);

// The record text scrambling (cipher feedback, restarted for every record).
void ScrambleText(std::uint8_t* text, std::size_t size);
void UnscrambleText(std::uint8_t* text, std::size_t size);

// A record as the library writes it, text scrambled (for tests and sample files).
std::vector<std::uint8_t> EncodeRecord(std::uint32_t thread, char kind, const std::string& text);

// The text form tests compare: "> name", "<", "U text", "E text"; other kinds "t text" etc.
std::string CanonicalLine(const Record& record);

// Text from a trace (or a file name) as outputs for people show it: one record stays
// one line and nothing in it acts on the terminal or reorders what is around it.
// Control characters as \n, \r, \t or \xNN; a byte that is no UTF-8 as \xNN; the
// hidden code points below as \uXXXX; every other character as it is.
std::string Printable(std::string_view text);

// The UTF-8 sequence at `at`: its length, 0 when it is none (a stray byte, an
// overlong form, a surrogate, a sequence cut by the end), and its code point.
std::size_t Utf8Length(std::string_view s, std::size_t at, std::uint32_t* codePoint = nullptr);

// A code point that acts on the text around it instead of showing: the C1 controls,
// the marks, embeddings, overrides and isolates that reorder text, and the line and
// paragraph separators.
bool HiddenCodePoint(std::uint32_t cp);

// "\u202E": how such a code point is shown.
std::string CodePointEscape(std::uint32_t cp);

} // namespace nvtrace
