// The batched record cipher and the reusable decoder that reads with it: every kernel
// this CPU runs against the one-block cipher on random blocks of many counts, whole
// traces (whole, cut and damaged) decoded alike by every kernel, and the step cache
// holding only true pairs while a decoder reads trace after trace.
#include <gtest/gtest.h>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "cipher_batch.h"
#include "common/teacfb.h"
#include "nvtracelib.h"
#include "sample_trace.h"
#include "summary.h"
#include "trace/tracekeys.h"

using nvtrace::CipherKernel;
using nvtrace_test::SampleTrace;

namespace {

const CipherKernel kKernels[] = {CipherKernel::Portable, CipherKernel::Avx2, CipherKernel::Avx512};

const char* Name(CipherKernel k)
{
    return k == CipherKernel::Avx512 ? "avx512" : k == CipherKernel::Avx2 ? "avx2" : "portable";
}

std::vector<CipherKernel> KernelsHere()
{
    std::vector<CipherKernel> here;
    for (CipherKernel k : kKernels)
        if (nvtrace::CipherKernelRuns(k))
            here.push_back(k);
    return here;
}

// A trace of random records of every kind and length, each text one the library
// could write.
SampleTrace RandomTrace(std::mt19937& rng, std::size_t records)
{
    SampleTrace s;
    auto below = [&rng](std::size_t n) { return static_cast<std::size_t>(rng() % n); };
    for (std::size_t i = 0; i < records; ++i) {
        const std::uint32_t thread = static_cast<std::uint32_t>(rng());
        std::string text;
        switch (below(6)) {
        case 0: s.Add(thread, 'T', "09:30:00.125"); continue;
        case 1: s.Add(thread, '<'); continue;
        case 2:
            for (std::size_t n = 1 + below(99); text.size() < n;)
                text += static_cast<char>(0x20 + below(0x5F));
            s.Add(thread, '>', text);
            continue;
        case 3: s.Add(thread, 'E', "-2147024891 " + std::string(below(40), 'x')); continue;
        default:
            for (std::size_t n = below(400); text.size() < n;)
                text += static_cast<char>(0x20 + below(0x5F));
            s.Add(thread, 'U', text);
        }
    }
    return s;
}

// Every field of a decoded trace, as one text, for comparing two decodes.
std::string Dump(const nvtrace::TraceView& t)
{
    std::ostringstream out;
    out << t.ok << '|' << t.errorOffset << '|' << t.error << '|' << t.bodyOffset << '\n';
    for (const std::string& line : t.header)
        out << line << '\n';
    for (const nvtrace::RecordView& r : t.records)
        out << r.offset << ' ' << r.thread << ' ' << r.kind << ' ' << r.text << '\n';
    return out.str();
}

// The reference for a record's text: its bytes in the file on their own through the
// one-block cipher (nvtrace::UnscrambleText), not through any decoder.
std::string ReferenceText(const std::vector<std::uint8_t>& file, std::uint64_t offset, std::size_t length)
{
    const auto from = file.begin() + static_cast<std::ptrdiff_t>(offset + nvtrace::kRecordHeadSize);
    std::vector<std::uint8_t> text(from, from + static_cast<std::ptrdiff_t>(length));
    nvtrace::UnscrambleText(text.data(), text.size());
    return std::string(text.begin(), text.end());
}

std::string SummaryOf(const nvtrace::TraceSummary& summary)
{
    std::ostringstream out;
    nvtrace::WriteSummary(summary, out);
    return out.str();
}

} // namespace

TEST(CipherBatchTest, EveryKernelEnciphersAsTheBlockCipherForEveryCount)
{
    std::uint32_t key[4];
    NVTraceNS::TraceKey(key);
    std::mt19937 rng(29);
    constexpr std::uint32_t kSentinel = 0xDEADBEEFu;
    std::vector<std::size_t> counts;
    for (std::size_t n = 0; n <= 70; ++n)
        counts.push_back(n);
    counts.insert(counts.end(), {255, 256, 1000, 1001});
    for (std::size_t n : counts) {
        std::vector<std::uint32_t> y(n + 16, kSentinel), z(n + 16, kSentinel);
        for (std::size_t i = 0; i < n; ++i) {
            y[i] = static_cast<std::uint32_t>(rng());
            z[i] = static_cast<std::uint32_t>(rng());
        }
        std::vector<std::uint32_t> wantY = y, wantZ = z;
        for (std::size_t i = 0; i < n; ++i)
            nvcipher::TeaEncryptBlock(wantY[i], wantZ[i], key);
        for (CipherKernel k : KernelsHere()) {
            std::vector<std::uint32_t> gotY = y, gotZ = z;
            nvtrace::EncipherBlocks(k, key, gotY.data(), gotZ.data(), n);
            // Blocks past n (the sentinels) stay as they were.
            EXPECT_EQ(wantY, gotY) << Name(k) << ", " << n << " blocks";
            EXPECT_EQ(wantZ, gotZ) << Name(k) << ", " << n << " blocks";
        }
    }
}

TEST(CipherBatchTest, TheVectorKernelsRunWhereTheCpuHasThem)
{
    EXPECT_TRUE(nvtrace::CipherKernelRuns(CipherKernel::Portable));
    EXPECT_TRUE(nvtrace::CipherKernelRuns(nvtrace::FastestCipherKernel()));
#if defined(__x86_64__) && defined(__GNUC__) && !defined(_WIN32)
    // Linux x86-64 builds them: the CPU decides.
    EXPECT_EQ(__builtin_cpu_supports("avx2") != 0, nvtrace::CipherKernelRuns(CipherKernel::Avx2));
    EXPECT_EQ(__builtin_cpu_supports("avx512f") != 0, nvtrace::CipherKernelRuns(CipherKernel::Avx512));
    const CipherKernel fastest = __builtin_cpu_supports("avx512f") ? CipherKernel::Avx512
                                 : __builtin_cpu_supports("avx2") ? CipherKernel::Avx2
                                                                    : CipherKernel::Portable;
    EXPECT_EQ(fastest, nvtrace::FastestCipherKernel());
#else
    EXPECT_FALSE(nvtrace::CipherKernelRuns(CipherKernel::Avx2));
    EXPECT_FALSE(nvtrace::CipherKernelRuns(CipherKernel::Avx512));
#endif
}

TEST(CipherBatchTest, EveryKernelDecodesRandomTracesAsTheRecordByRecordCipher)
{
    std::mt19937 rng(2029);
    for (int round = 0; round < 20; ++round) {
        const SampleTrace s = RandomTrace(rng, 1 + rng() % 300);
        // The reference: each record on its own through the one-block cipher.
        const nvtrace::DecodedTrace want = nvtrace::Decode(s.bytes());
        ASSERT_TRUE(want.ok) << want.error;
        for (const nvtrace::Record& r : want.records)
            ASSERT_EQ(ReferenceText(s.bytes(), r.offset, r.text.size()), r.text) << "record at " << r.offset;
        for (CipherKernel k : KernelsHere()) {
            nvtrace::TraceDecoder decoder(k);
            const nvtrace::TraceView& got = decoder.Decode(s.bytes().data(), s.bytes().size());
            ASSERT_EQ(want.records.size(), got.records.size()) << Name(k);
            for (std::size_t i = 0; i < got.records.size(); ++i) {
                EXPECT_EQ(want.records[i].offset, got.records[i].offset) << Name(k);
                EXPECT_EQ(want.records[i].text, got.records[i].text) << Name(k) << ", record " << i;
            }
        }
    }
}

TEST(CipherBatchTest, EveryKernelStopsCutAndDamagedTracesAtTheSameOffset)
{
    std::mt19937 rng(7);
    const SampleTrace s = RandomTrace(rng, 200);
    nvtrace::TraceDecoder portable(CipherKernel::Portable);
    for (int round = 0; round < 200; ++round) {
        std::vector<std::uint8_t> bytes = s.bytes();
        if (round % 2)
            bytes.resize(rng() % bytes.size());
        else
            bytes[rng() % bytes.size()] ^= static_cast<std::uint8_t>(1u << (rng() % 8));
        const std::string want = Dump(portable.Decode(bytes.data(), bytes.size()));
        for (CipherKernel k : KernelsHere()) {
            nvtrace::TraceDecoder decoder(k);
            EXPECT_EQ(want, Dump(decoder.Decode(bytes.data(), bytes.size()))) << Name(k) << ", round " << round;
        }
    }
}

TEST(CipherBatchTest, ALineThatIsNotUtf8StopsTheDecodeAtItsRecord)
{
    SampleTrace s;
    s.Add(5, 'U', std::string(30, 'a')).Add(5, '>', "CBaseConverter::Convert");
    const std::size_t bad = s.size();
    s.Add(5, 'U', std::string(20, 'b') + "\xFF" + std::string(20, 'c')).Add(5, '<');
    for (CipherKernel k : KernelsHere()) {
        nvtrace::TraceDecoder decoder(k);
        const nvtrace::TraceView& t = decoder.Decode(s.bytes().data(), s.bytes().size());
        EXPECT_FALSE(t.ok) << Name(k);
        EXPECT_EQ(bad, t.errorOffset) << Name(k);
        EXPECT_EQ("corrupt record at byte offset " + std::to_string(bad) + ": the line is not UTF-8", t.error);
        ASSERT_EQ(2u, t.records.size()) << Name(k);
        EXPECT_EQ("CBaseConverter::Convert", t.records[1].text);
    }
}

TEST(CipherBatchTest, AReusedDecoderGivesWhatAFreshOneGives)
{
    std::mt19937 rng(11);
    SampleTrace shortHeader(std::vector<std::string>{"trace3", "Machine name: PC-1", "."});
    shortHeader.Add(3, 'U', "one line");
    const std::vector<std::vector<std::uint8_t>> files = {
        RandomTrace(rng, 250).bytes(), shortHeader.bytes(), RandomTrace(rng, 3).Truncated(300),
        std::vector<std::uint8_t>(), RandomTrace(rng, 40).bytes()};
    nvtrace::TraceDecoder reused;
    for (std::size_t i = 0; i < files.size(); ++i) {
        nvtrace::TraceDecoder fresh;
        EXPECT_EQ(Dump(fresh.Decode(files[i].data(), files[i].size())),
                  Dump(reused.Decode(files[i].data(), files[i].size())))
            << "file " << i;
    }
}

TEST(CipherBatchTest, TheSummaryOfADecoderViewIsTheSummaryOfTheDecodedTrace)
{
    SampleTrace s;
    s.ConversionStarts(9).UserMoved(9, "S-1-5-21-1-2-3-1001", "0x8009000D");
    s.UserBegins(9, "S-1-5-21-1-2-3-1002").Add(9, '>', "CNVSecret::GetContent").Add(9, 'E', "-2146893819 ").Add(9, '<');
    s.UserEnds(9, "S-1-5-21-1-2-3-1002", "0x80090005").Add(9, 'E', "-2147024882 ").Add(9, '<').Add(9, '<');
    nvtrace::TraceDecoder decoder;
    const nvtrace::TraceView& view = decoder.Decode(s.bytes().data(), s.bytes().size());
    const std::string want = SummaryOf(nvtrace::Summarize(nvtrace::Decode(s.bytes())));
    EXPECT_EQ(want, SummaryOf(nvtrace::Summarize(view)));
    EXPECT_NE(std::string::npos, want.find("1 moved, 0 moved with gaps, 0 held, 1 failed")) << want;
}

namespace {

// Whether a slot's stream is the cipher of its ciphertext step.
bool TruePair(const nvtrace::StepCache::Slot& slot, const std::uint32_t key[4])
{
    std::uint8_t bytes[8];
    std::memcpy(bytes, &slot.ciphertext, 8);
    std::uint32_t y = nvcipher::LoadLe32(bytes), z = nvcipher::LoadLe32(bytes + 4);
    nvcipher::TeaEncryptBlock(y, z, key);
    return nvtrace::StepCache::Bytes(y, z) == slot.stream;
}

std::size_t FalsePairs(const nvtrace::StepCache& cache, const std::uint32_t key[4])
{
    std::size_t wrong = 0;
    for (const nvtrace::StepCache::Slot& slot : cache.Slots())
        wrong += TruePair(slot, key) ? 0 : 1;
    return wrong;
}

// Records drawn from a small pool of texts, several sharing their first steps (the
// cache's hits), mixed with random ones (its misses, more than it has slots).
SampleTrace RepetitiveTrace(std::mt19937& rng, std::size_t records)
{
    static const char* const kPool[] = {
        "CBaseConverter::Convert", "CConverter3::do_Convert", "CConverter3::MoveUser", "CConverter3::MoveUsers",
        "Conversion process began for 'S-1-5-21-1-2-3-1001'", "Conversion process began for 'S-1-5-21-1-2-3-1002'",
        "Conversion process is over for 'S-1-5-21-1-2-3-1001', 0x00000000", "Retrieve payload"};
    SampleTrace s;
    for (std::size_t i = 0; i < records; ++i) {
        const std::size_t pick = rng() % 12;
        if (pick < 4) {
            s.Add(1, '>', kPool[pick]);
        } else if (pick < 8) {
            s.Add(1, 'U', kPool[pick]);
        } else {
            std::string text = kPool[4 + rng() % 3];
            for (std::size_t n = text.size() + rng() % 300; text.size() < n && text.size() < 399;)
                text += static_cast<char>(0x20 + rng() % 0x5F);
            s.Add(1, 'U', text);
        }
    }
    return s;
}

} // namespace

TEST(StepCacheTest, EverySlotOfAFreshCacheIsATruePair)
{
    std::uint32_t key[4];
    NVTraceNS::TraceKey(key);
    const std::uint32_t other[4] = {0x01234567u, 0x89ABCDEFu, 0xFEDCBA98u, 0x76543210u};
    for (const std::uint32_t* k : {static_cast<const std::uint32_t*>(key), other}) {
        const nvtrace::StepCache cache(k);
        EXPECT_EQ(std::size_t(1) << nvtrace::StepCache::kBits, cache.Slots().size());
        EXPECT_EQ(0u, FalsePairs(cache, k));
        // The all-zero step is found, with its stream.
        EXPECT_EQ(0u, cache.At(0).ciphertext);
        EXPECT_TRUE(TruePair(cache.At(0), k));
    }
}

TEST(StepCacheTest, AReadingDecoderKeepsOnlyTruePairsAndGivesEveryTextAsTheRecordCipherDoes)
{
    std::uint32_t key[4];
    NVTraceNS::TraceKey(key);
    std::mt19937 rng(4096);
    for (CipherKernel k : KernelsHere()) {
        nvtrace::TraceDecoder decoder(k);
        const std::vector<nvtrace::StepCache::Slot> fresh = decoder.Steps().Slots();
        for (int round = 0; round < 40; ++round) {
            const SampleTrace s = RepetitiveTrace(rng, 200);
            const nvtrace::TraceView& got = decoder.Decode(s.bytes().data(), s.bytes().size());
            ASSERT_TRUE(got.ok) << Name(k) << ", round " << round << ": " << got.error;
            for (const nvtrace::RecordView& r : got.records) {
                ASSERT_EQ(ReferenceText(s.bytes(), r.offset, r.text.size()), r.text)
                    << Name(k) << ", round " << round << ", record at " << r.offset;
            }
            ASSERT_EQ(0u, FalsePairs(decoder.Steps(), key)) << Name(k) << ", round " << round;
        }
        // The traces' steps outnumber the slots: nearly every slot was written.
        std::size_t changed = 0;
        for (std::size_t i = 0; i < fresh.size(); ++i)
            changed += decoder.Steps().Slots()[i].ciphertext != fresh[i].ciphertext ? 1 : 0;
        EXPECT_GT(changed, fresh.size() * 9 / 10) << Name(k);
    }
}

TEST(StepCacheTest, ATraceReadAgainNeedsNoCipherAndAFileWithoutLaterStepsNone)
{
    // One text of three steps, and one of one step and a half, again and again: the
    // first read enciphers each distinct later step once (a file's misses are kept
    // only once its batch is read, and their repeats within it share one block), the
    // second finds them all.
    SampleTrace s;
    for (int i = 0; i < 20; ++i)
        s.Add(1, '>', "CBaseConverter::Convert").Add(1, 'U', "Retrieve payload").Add(1, '<');
    for (CipherKernel k : KernelsHere()) {
        nvtrace::TraceDecoder decoder(k);
        ASSERT_TRUE(decoder.Decode(s.bytes().data(), s.bytes().size()).ok) << Name(k);
        EXPECT_EQ(2u + 1u, decoder.StepsEnciphered()) << Name(k);
        const nvtrace::TraceView& again = decoder.Decode(s.bytes().data(), s.bytes().size());
        ASSERT_TRUE(again.ok) << Name(k);
        EXPECT_EQ(0u, decoder.StepsEnciphered()) << Name(k);
        ASSERT_EQ(60u, again.records.size());
        EXPECT_EQ("CBaseConverter::Convert", again.records[57].text);
        EXPECT_EQ("Retrieve payload", again.records[58].text);

        // Texts of up to eight bytes, a header alone, an empty file: nothing to
        // encipher, and nothing read past what is there.
        SampleTrace shortTexts;
        shortTexts.Add(2, 't', "11/26/26").Add(2, '<').Add(2, 'U', "12345678");
        const std::vector<std::uint8_t> headerOnly = SampleTrace().bytes();
        for (const std::vector<std::uint8_t>* file : {&shortTexts.bytes(), &headerOnly}) {
            nvtrace::TraceDecoder fresh(k);
            EXPECT_TRUE(fresh.Decode(file->data(), file->size()).ok) << Name(k);
            EXPECT_EQ(0u, fresh.StepsEnciphered()) << Name(k);
        }
        nvtrace::TraceDecoder fresh(k);
        EXPECT_FALSE(fresh.Decode(nullptr, 0).ok);
        EXPECT_EQ(0u, fresh.StepsEnciphered()) << Name(k);
    }
}

TEST(StepCacheTest, ALongFileFindsTheStepsOfItsEarlierRecords)
{
    // One later step a record, the same in each: the first batch of misses is one
    // block, enciphered and kept, and every record after it finds its step (were it
    // kept only at the file's end, each of the three batches would take its block).
    const std::size_t batch = nvtrace::TraceDecoder::kMissBatch;
    SampleTrace s;
    for (std::size_t i = 0; i < 3 * batch; ++i)
        s.Add(4, 'U', "Retrieve payload");
    std::uint32_t key[4];
    NVTraceNS::TraceKey(key);
    // And a long file of repeated and random texts: batches that end inside it, each
    // with repeats and steps that share a slot.
    std::mt19937 rng(1024);
    const SampleTrace mixed = RepetitiveTrace(rng, 6000);
    for (CipherKernel k : KernelsHere()) {
        nvtrace::TraceDecoder decoder(k);
        const nvtrace::TraceView& t = decoder.Decode(s.bytes().data(), s.bytes().size());
        ASSERT_TRUE(t.ok) << Name(k) << ": " << t.error;
        EXPECT_EQ(1u, decoder.StepsEnciphered()) << Name(k);
        ASSERT_EQ(3 * batch, t.records.size());
        for (const nvtrace::RecordView& r : t.records)
            ASSERT_EQ("Retrieve payload", r.text) << Name(k) << ", record at " << r.offset;
        EXPECT_EQ(0u, FalsePairs(decoder.Steps(), key)) << Name(k);

        const nvtrace::TraceView& m = decoder.Decode(mixed.bytes().data(), mixed.bytes().size());
        ASSERT_TRUE(m.ok) << Name(k) << ": " << m.error;
        // More than two batches of distinct steps: at least three batches of misses.
        EXPECT_GT(decoder.StepsEnciphered(), 2 * batch) << Name(k);
        for (const nvtrace::RecordView& r : m.records)
            ASSERT_EQ(ReferenceText(mixed.bytes(), r.offset, r.text.size()), r.text)
                << Name(k) << ", record at " << r.offset;
        EXPECT_EQ(0u, FalsePairs(decoder.Steps(), key)) << Name(k);
    }
}

namespace {

// The first ciphertext step of a text, as the record cipher writes it: the step its
// second step's stream is looked up by.
std::uint64_t FirstStep(const std::string& text)
{
    const std::vector<std::uint8_t> record = nvtrace::EncodeRecord(1, 'U', text);
    std::uint64_t step;
    std::memcpy(&step, record.data() + nvtrace::kRecordHeadSize, 8);
    return step;
}

} // namespace

TEST(StepCacheTest, ABatchEnciphersEachDistinctStepOnceUnlessAnotherTookItsSlotInBetween)
{
    // Two texts of one later step each whose steps share a slot, found by trying.
    std::uint32_t key[4];
    NVTraceNS::TraceKey(key);
    const nvtrace::StepCache probe(key);
    std::vector<std::string> texts;
    std::string a, b;
    for (int i = 0; a.empty() && i < 100000; ++i) {
        char prefix[16];
        std::snprintf(prefix, sizeof(prefix), "%08d", i);
        const std::string text = std::string(prefix) + " payload";
        for (const std::string& other : texts) {
            if (&probe.At(FirstStep(other)) == &probe.At(FirstStep(text))) {
                a = other;
                b = text;
                break;
            }
        }
        texts.push_back(text);
    }
    ASSERT_FALSE(a.empty()) << "no two steps share a slot";
    ASSERT_NE(FirstStep(a), FirstStep(b));

    struct Case {
        std::vector<const std::string*> order;
        std::size_t enciphered; // the blocks the batch needs
    };
    const Case cases[] = {
        {{&a, &a, &b, &b, &a}, 3}, // a, its repeat, b (takes the slot), its repeat, a again
        {{&a, &b, &a, &b, &a}, 5}, // each takes the slot from the other: five blocks
        {{&a, &a, &a, &a}, 1},
    };
    for (CipherKernel k : KernelsHere()) {
        for (const Case& c : cases) {
            SampleTrace s;
            for (const std::string* text : c.order)
                s.Add(2, 'U', *text);
            nvtrace::TraceDecoder decoder(k);
            const nvtrace::TraceView& t = decoder.Decode(s.bytes().data(), s.bytes().size());
            ASSERT_TRUE(t.ok) << Name(k) << ": " << t.error;
            EXPECT_EQ(c.enciphered, decoder.StepsEnciphered()) << Name(k);
            ASSERT_EQ(c.order.size(), t.records.size());
            for (std::size_t i = 0; i < c.order.size(); ++i)
                EXPECT_EQ(*c.order[i], t.records[i].text) << Name(k) << ", record " << i;
            // The slot holds the last text's step, with its true stream.
            EXPECT_EQ(0u, FalsePairs(decoder.Steps(), key)) << Name(k);
            EXPECT_EQ(FirstStep(*c.order.back()), decoder.Steps().At(FirstStep(a)).ciphertext) << Name(k);
        }
    }
}

namespace {

// A trace of `count` distinct lines of `length` printable bytes each, each line
// `times` times in a row.
SampleTrace DistinctLines(std::mt19937& rng, std::size_t count, std::size_t length, int times = 2)
{
    SampleTrace s;
    for (std::size_t i = 0; i < count; ++i) {
        std::string text;
        while (text.size() < length)
            text += static_cast<char>(0x20 + rng() % 0x5F);
        for (int k = 0; k < times; ++k)
            s.Add(7, 'U', text);
    }
    return s;
}

void ExpectReferenceTexts(const SampleTrace& s, const nvtrace::TraceView& t, const char* what)
{
    ASSERT_TRUE(t.ok) << what << ": " << t.error;
    for (const nvtrace::RecordView& r : t.records)
        ASSERT_EQ(ReferenceText(s.bytes(), r.offset, r.text.size()), r.text) << what << ", record at " << r.offset;
}

// The text cache's slot for a record of this kind and text.
std::size_t SlotOf(char kind, const std::string& text)
{
    const std::vector<std::uint8_t> record = nvtrace::EncodeRecord(1, kind, text);
    const std::uint8_t* cipher = record.data() + nvtrace::kRecordHeadSize;
    return nvtrace::TextCache::Index(nvtrace::TextCache::Hash(kind, cipher, text.size(), cipher + text.size()));
}

// How many of the trace's texts (those not empty) the decoder's text cache gave.
std::size_t FromTheCache(const nvtrace::TraceDecoder& decoder, const nvtrace::TraceView& t)
{
    std::size_t n = 0;
    for (const nvtrace::RecordView& r : t.records)
        n += !r.text.empty() && decoder.Texts().Holds(r.text.data()) ? 1 : 0;
    return n;
}

std::size_t NotEmpty(const nvtrace::TraceView& t)
{
    std::size_t n = 0;
    for (const nvtrace::RecordView& r : t.records)
        n += r.text.empty() ? 0 : 1;
    return n;
}

} // namespace

TEST(TextCacheTest, ATraceReadAgainTakesEveryTextFromTheCacheAndKeepsNothingMore)
{
    // Five texts, each many times over: the first read keeps each once (its repeats
    // in the same file are read before any is kept), the second finds them all.
    const std::string texts[] = {"CBaseConverter::Convert", "Retrieve payload", "11/25/26", "09:30:00.125",
                                 "Conversion process began for 'S-1-5-21-1-2-3-1001'"};
    const char kinds[] = {'>', 'U', 't', 'T', 'U'};
    std::set<std::size_t> slots;
    for (std::size_t i = 0; i < 5; ++i)
        slots.insert(SlotOf(kinds[i], texts[i]));
    ASSERT_EQ(5u, slots.size()) << "two of the texts share a slot";
    SampleTrace s;
    std::size_t bytes = 0;
    for (int round = 0; round < 30; ++round) {
        for (std::size_t i = 0; i < 5; ++i) {
            s.Add(1, kinds[i], texts[i]).Add(1, '<');
            bytes += round == 0 ? 2 * texts[i].size() : 0;
        }
    }
    nvtrace::TraceDecoder decoder;
    EXPECT_EQ(0u, decoder.Texts().Used());
    const nvtrace::TraceView& first = decoder.Decode(s.bytes().data(), s.bytes().size());
    ExpectReferenceTexts(s, first, "first read");
    EXPECT_EQ(0u, FromTheCache(decoder, first));
    EXPECT_EQ(bytes, decoder.Texts().Used());
    const nvtrace::TraceView& again = decoder.Decode(s.bytes().data(), s.bytes().size());
    ExpectReferenceTexts(s, again, "second read");
    EXPECT_EQ(150u, NotEmpty(again));
    EXPECT_EQ(150u, FromTheCache(decoder, again));
    EXPECT_EQ(bytes, decoder.Texts().Used());
    ASSERT_EQ(300u, again.records.size());
    EXPECT_EQ(texts[4], again.records[299 - 1].text);
}

TEST(TextCacheTest, TheSameCiphertextAsAnotherKindIsCheckedAsThatKind)
{
    // A line may read "13/01/26"; a date record may not. Scrambling does not depend
    // on the kind, so both records have the same ciphertext.
    // The line comes twice, so that it is kept.
    SampleTrace line, date;
    line.Add(1, 'U', "13/01/26").Add(1, 'U', "13/01/26");
    const std::size_t at = date.size();
    date.Add(1, 't', "13/01/26");
    nvtrace::TraceDecoder decoder;
    ASSERT_TRUE(decoder.Decode(line.bytes().data(), line.bytes().size()).ok);
    ASSERT_EQ(16u, decoder.Texts().Used());
    const nvtrace::TraceView& t = decoder.Decode(date.bytes().data(), date.bytes().size());
    EXPECT_FALSE(t.ok);
    EXPECT_EQ(at, t.errorOffset);
    EXPECT_NE(std::string::npos, t.error.find("the date record is not mm/dd/yy")) << t.error;
}

TEST(TextCacheTest, CiphertextsOfTheSameHashAreToldApart)
{
    // 17 bytes: the hash reads bytes 0 to 7 and 9 to 16, so a ciphertext that differs
    // in byte 8 alone has the same hash. Byte 8 is chosen so that both texts are
    // printable (the change reaches the text's bytes 8 and 16).
    const std::string text = "Retrieve payload!";
    const std::vector<std::uint8_t> a = nvtrace::EncodeRecord(3, 'U', text);
    const std::size_t head = nvtrace::kRecordHeadSize;
    std::vector<std::uint8_t> b;
    std::string other;
    for (unsigned v = 0; v < 256 && other.empty(); ++v) {
        std::vector<std::uint8_t> candidate = a;
        candidate[head + 8] = static_cast<std::uint8_t>(v);
        if (candidate == a)
            continue;
        std::vector<std::uint8_t> plain(candidate.begin() + head, candidate.end());
        nvtrace::UnscrambleText(plain.data(), plain.size());
        const std::string decoded(plain.begin(), plain.end());
        bool printable = true;
        for (char c : decoded)
            printable &= c >= 0x20 && c <= 0x7E;
        if (printable) {
            b = candidate;
            other = decoded;
        }
    }
    ASSERT_FALSE(other.empty()) << "no byte gives a printable text";
    ASSERT_NE(text, other);
    const std::uint8_t* ca = a.data() + head;
    const std::uint8_t* cb = b.data() + head;
    ASSERT_EQ(nvtrace::TextCache::Hash('U', ca, text.size(), ca + text.size()),
              nvtrace::TextCache::Hash('U', cb, text.size(), cb + text.size()));

    // The first file holds A twice, so that it is kept.
    SampleTrace first, second;
    first.AddRaw(a).AddRaw(a);
    second.AddRaw(b);
    nvtrace::TraceDecoder decoder;
    const nvtrace::TraceView& t1 = decoder.Decode(first.bytes().data(), first.bytes().size());
    ASSERT_TRUE(t1.ok) << t1.error;
    ASSERT_EQ(2u, t1.records.size());
    EXPECT_EQ(text, t1.records[1].text);
    EXPECT_EQ(2 * text.size(), decoder.Texts().Used());
    const nvtrace::TraceView& t2 = decoder.Decode(second.bytes().data(), second.bytes().size());
    ASSERT_TRUE(t2.ok) << t2.error;
    ASSERT_EQ(1u, t2.records.size());
    EXPECT_EQ(other, t2.records[0].text);
}

TEST(TextCacheTest, ItsMemoryIsBoundedAndEmptiedOnlyBetweenFiles)
{
    // Lines of 300 bytes, each twice, take 600 in the cache. The first file fills a
    // little under half of it; the second holds the first's lines (found in the
    // cache) and enough new ones to fill it: every text of the second, found or kept,
    // stays right to its end. The third file finds the cache emptied.
    std::mt19937 rng(2026);
    const std::size_t lines = nvtrace::TextCache::kBlock / 2 / 600 - 1;
    const SampleTrace first = DistinctLines(rng, lines, 300);
    SampleTrace second = first;
    const SampleTrace more = DistinctLines(rng, 2 * lines, 300);
    const std::ptrdiff_t header = static_cast<std::ptrdiff_t>(SampleTrace().size());
    second.AddRaw(std::vector<std::uint8_t>(more.bytes().begin() + header, more.bytes().end()));
    nvtrace::TraceDecoder decoder;
    ExpectReferenceTexts(first, decoder.Decode(first.bytes().data(), first.bytes().size()), "first file");
    const std::size_t afterFirst = decoder.Texts().Used();
    EXPECT_EQ(lines * 600, afterFirst);

    const nvtrace::TraceView& t = decoder.Decode(second.bytes().data(), second.bytes().size());
    ExpectReferenceTexts(second, t, "second file");
    EXPECT_EQ(6 * lines, t.records.size());
    EXPECT_LE(decoder.Texts().Used(), nvtrace::TextCache::kBlock);
    EXPECT_GT(decoder.Texts().Used(), nvtrace::TextCache::kBlock - 600);

    const SampleTrace third = DistinctLines(rng, 3, 300);
    ExpectReferenceTexts(third, decoder.Decode(third.bytes().data(), third.bytes().size()), "third file");
    EXPECT_EQ(3u * 600, decoder.Texts().Used());
}

TEST(TextCacheTest, ATextReadOnceIsNotKeptAndOneReadAgainIs)
{
    // Lines one trace alone has (a user's SID in them) are not copied: a text is kept
    // the second time it is read, and found from the third.
    // Fifty lines of 40 bytes, each in a slot of its own.
    std::mt19937 rng(11);
    SampleTrace once;
    std::set<std::size_t> slots;
    while (slots.size() < 50) {
        std::string text;
        while (text.size() < 40)
            text += static_cast<char>(0x20 + rng() % 0x5F);
        if (slots.insert(SlotOf('U', text)).second)
            once.Add(7, 'U', text);
    }
    nvtrace::TraceDecoder decoder;
    ExpectReferenceTexts(once, decoder.Decode(once.bytes().data(), once.bytes().size()), "first read");
    EXPECT_EQ(0u, decoder.Texts().Used());
    const nvtrace::TraceView& second = decoder.Decode(once.bytes().data(), once.bytes().size());
    ExpectReferenceTexts(once, second, "second read");
    EXPECT_EQ(0u, FromTheCache(decoder, second));
    EXPECT_EQ(50u * 80, decoder.Texts().Used());
    const nvtrace::TraceView& third = decoder.Decode(once.bytes().data(), once.bytes().size());
    ExpectReferenceTexts(once, third, "third read");
    EXPECT_EQ(50u, FromTheCache(decoder, third));
    EXPECT_EQ(50u * 80, decoder.Texts().Used());
}

TEST(TextCacheTest, AShortTextIsFoundWhereverItLies)
{
    // A text of fewer than eight bytes is hashed from a word that runs past it, masked,
    // where the file goes on, and from its own bytes at the file's very end: both give
    // the same hash. Kept in the middle of one file, it is found at the end of the
    // next, and kept at the end of a file, in the middle of the next.
    SampleTrace middle, last;
    middle.Add(2, 'U', "abc").Add(2, 'U', "abc").Add(2, '>', "CBaseConverter::Convert");
    last.Add(2, '<').Add(2, 'U', "abc");
    for (int keptAtTheEnd = 0; keptAtTheEnd < 2; ++keptAtTheEnd) {
        const SampleTrace& keep = keptAtTheEnd ? last : middle;
        const SampleTrace& find = keptAtTheEnd ? middle : last;
        nvtrace::TraceDecoder decoder;
        // The end file holds the text once: it is read twice to be kept.
        for (int read = 0; read < (keptAtTheEnd ? 2 : 1); ++read)
            ExpectReferenceTexts(keep, decoder.Decode(keep.bytes().data(), keep.bytes().size()), "keeping");
        ASSERT_EQ(6u, decoder.Texts().Used()) << keptAtTheEnd;
        const nvtrace::TraceView& t = decoder.Decode(find.bytes().data(), find.bytes().size());
        ExpectReferenceTexts(find, t, "finding");
        const std::size_t at = keptAtTheEnd ? 0 : 1;
        ASSERT_EQ("abc", t.records[at].text) << keptAtTheEnd;
        EXPECT_TRUE(decoder.Texts().Holds(t.records[at].text.data())) << keptAtTheEnd;
    }
}

TEST(TextCacheTest, ADamagedRecordAfterCachedOnesEndsTheTraceThere)
{
    SampleTrace good;
    for (int i = 0; i < 2; ++i)
        good.Add(1, '>', "CBaseConverter::Convert").Add(1, 'U', "Retrieve payload").Add(1, '<');
    SampleTrace damaged = good;
    const std::size_t at = damaged.size();
    damaged.Add(1, 't', "13/01/26").Add(1, 'U', "Retrieve payload");
    nvtrace::TraceDecoder decoder;
    ExpectReferenceTexts(good, decoder.Decode(good.bytes().data(), good.bytes().size()), "good");
    const nvtrace::TraceView& t = decoder.Decode(damaged.bytes().data(), damaged.bytes().size());
    EXPECT_FALSE(t.ok);
    EXPECT_EQ(at, t.errorOffset);
    EXPECT_NE(std::string::npos, t.error.find("the date record is not mm/dd/yy")) << t.error;
    ASSERT_EQ(6u, t.records.size());
    EXPECT_EQ(4u, FromTheCache(decoder, t));
    for (const nvtrace::RecordView& r : t.records)
        EXPECT_EQ(ReferenceText(damaged.bytes(), r.offset, r.text.size()), r.text) << "record at " << r.offset;
}
