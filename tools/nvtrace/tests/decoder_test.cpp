// Decoding trace files: header, records, and every way a file can be cut or damaged.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "nvtracelib.h"
#include "sample_trace.h"

using nvtrace::Decode;
using nvtrace::DecodedTrace;
using nvtrace_test::SampleTrace;
using nvtrace_test::StandardHeader;

namespace {

std::vector<std::string> Canonical(const DecodedTrace& trace)
{
    std::vector<std::string> lines;
    for (const nvtrace::Record& r : trace.records)
        lines.push_back(nvtrace::CanonicalLine(r));
    return lines;
}

std::vector<std::uint8_t> Bytes(const std::string& s) { return std::vector<std::uint8_t>(s.begin(), s.end()); }

} // namespace

TEST(TraceDecoderTest, DecodesHeaderAndEveryRecordKind)
{
    SampleTrace sample;
    const std::size_t body = sample.size();
    sample.Add(1200, 't', "11/15/26")
        .Add(1200, 'T', "09:30:00.125")
        .Add(1200, '>', "CBaseConverter::Backup")
        .Add(1200, 'U', "restoring database from backup key SOFTWARE\\Norvane\\DB-v2.0")
        .Add(1200, 'E', "-2147024894 ")
        .Add(1200, '<')
        .Add(77, 'N', "11-16-2026");
    const DecodedTrace trace = Decode(sample.bytes());
    ASSERT_TRUE(trace.ok) << trace.error;
    EXPECT_EQ(StandardHeader(), trace.header);
    EXPECT_EQ(body, trace.bodyOffset);
    EXPECT_EQ((std::vector<std::string>{"t 11/15/26", "T 09:30:00.125", "> CBaseConverter::Backup",
                                        "U restoring database from backup key SOFTWARE\\Norvane\\DB-v2.0",
                                        "E -2147024894 ", "<", "N 11-16-2026"}),
              Canonical(trace));
    ASSERT_EQ(7u, trace.records.size());
    EXPECT_EQ(1200u, trace.records[2].thread);
    EXPECT_EQ('>', trace.records[2].kind);
    EXPECT_EQ(77u, trace.records[6].thread);
    EXPECT_EQ(body, trace.records[0].offset);
    EXPECT_EQ(body + 7 + 8, trace.records[1].offset);
}

TEST(TraceDecoderTest, ThreadIdIsLittleEndian)
{
    SampleTrace sample;
    sample.AddRaw(nvtrace::EncodeRecord(0xA1B2C3D4u, '<', ""));
    const std::vector<std::uint8_t>& bytes = sample.bytes();
    const std::size_t at = bytes.size() - 7;
    EXPECT_EQ((std::vector<std::uint8_t>{0xD4, 0xC3, 0xB2, 0xA1, '<', 0, 0}),
              std::vector<std::uint8_t>(bytes.begin() + static_cast<long>(at), bytes.end()));
    const DecodedTrace trace = Decode(bytes);
    ASSERT_TRUE(trace.ok) << trace.error;
    EXPECT_EQ(0xA1B2C3D4u, trace.records.at(0).thread);
}

TEST(TraceDecoderTest, TextLengthIsLittleEndianAndTextIsScrambled)
{
    const std::string text(300, 'x');
    const std::vector<std::uint8_t> record = nvtrace::EncodeRecord(5, 'U', text);
    ASSERT_EQ(307u, record.size());
    EXPECT_EQ(0x2C, record[5]);
    EXPECT_EQ(0x01, record[6]);
    EXPECT_NE(std::string(record.begin() + 7, record.end()), text);
}

TEST(TraceDecoderTest, HeaderOnlyFileHasNoRecords)
{
    const DecodedTrace trace = Decode(SampleTrace().bytes());
    ASSERT_TRUE(trace.ok) << trace.error;
    EXPECT_TRUE(trace.records.empty());
    EXPECT_EQ(".", trace.header.back());
}

TEST(TraceDecoderTest, HeaderKeepsEmptyLinesAsTheyStand)
{
    // A machine name cut at the buffer's end leaves an empty line before the next one.
    SampleTrace sample({"trace3", "Machine name: X", "", "Trace Ver: 3.0.1", "."});
    sample.Add(1, '<');
    const DecodedTrace trace = Decode(sample.bytes());
    ASSERT_TRUE(trace.ok) << trace.error;
    EXPECT_EQ((std::vector<std::string>{"trace3", "Machine name: X", "", "Trace Ver: 3.0.1", "."}), trace.header);
}

TEST(TraceDecoderTest, EmptyFileIsNotATrace)
{
    const DecodedTrace trace = Decode(std::vector<std::uint8_t>{});
    EXPECT_FALSE(trace.ok);
    EXPECT_EQ(0u, trace.errorOffset);
    EXPECT_EQ("not a trace file at byte offset 0: the file is empty", trace.error);
}

TEST(TraceDecoderTest, FileWithoutTheMarkIsNotATrace)
{
    const DecodedTrace trace = Decode(Bytes("trace2\r\n.\r\n"));
    EXPECT_FALSE(trace.ok);
    EXPECT_EQ(0u, trace.errorOffset);
    EXPECT_EQ("not a trace file at byte offset 0: it does not begin with the line \"trace3\"", trace.error);
    EXPECT_TRUE(trace.header.empty());
}

// Text with lines ended by LF alone, a picture, a longer first word: not a trace,
// however long or short the first line; a file cut inside "trace3" CR LF is a trace
// cut short.
TEST(TraceDecoderTest, AnyOtherStartIsNotATrace)
{
    for (const std::string& text : {std::string("root:x:0:0:root:/root:/bin/bash\nbin:x:1:1\n"),
                                   std::string("\x89PNG\r\n\x1a\n"), std::string("trace30\r\n.\r\n"),
                                   std::string("trace3\n.\n"), std::string(9000, 'a')}) {
        const DecodedTrace trace = Decode(Bytes(text));
        EXPECT_FALSE(trace.ok) << nvtrace::Printable(text);
        EXPECT_EQ("not a trace file at byte offset 0: it does not begin with the line \"trace3\"", trace.error)
            << nvtrace::Printable(text);
        EXPECT_TRUE(trace.header.empty());
    }
    EXPECT_EQ("truncated header at byte offset 0: the last header line has no CR LF and no closing \".\" line follows",
              Decode(Bytes("tra")).error);
    const DecodedTrace cut = Decode(Bytes("trace3\r"));
    EXPECT_EQ("truncated header at byte offset 0: the last header line has no CR LF and no closing \".\" line follows",
              cut.error);
}

TEST(TraceDecoderTest, HeaderWithoutItsClosingLineIsTruncated)
{
    const DecodedTrace trace = Decode(Bytes("trace3\r\nOS: Windows7\r\n"));
    EXPECT_FALSE(trace.ok);
    EXPECT_EQ(22u, trace.errorOffset);
    EXPECT_EQ("truncated header at byte offset 22: the file ends before the header's closing \".\" line", trace.error);
    EXPECT_EQ((std::vector<std::string>{"trace3", "OS: Windows7"}), trace.header);
}

TEST(TraceDecoderTest, HeaderCutInsideALineIsTruncated)
{
    const DecodedTrace trace = Decode(Bytes("trace3\r\nOS: Win"));
    EXPECT_FALSE(trace.ok);
    EXPECT_EQ(8u, trace.errorOffset);
    EXPECT_EQ("truncated header at byte offset 8: the last header line has no CR LF and no closing \".\" line follows",
              trace.error);
}

TEST(TraceDecoderTest, EndlessHeaderLineIsCorrupt)
{
    std::string text = "trace3\r\n" + std::string(5000, 'a');
    const DecodedTrace trace = Decode(Bytes(text));
    EXPECT_FALSE(trace.ok);
    EXPECT_EQ(8u, trace.errorOffset);
    EXPECT_EQ("corrupt header at byte offset 8: a header line runs on for more than 4096 bytes without CR LF",
              trace.error);
}

TEST(TraceDecoderTest, HeaderLinesUpToTheLongestAllowedAndLoneCarriageReturnsRead)
{
    // A line of 4,096 bytes is the longest read; a CR without LF belongs to its line.
    const std::string longest(4096, 'a');
    const DecodedTrace read = Decode(Bytes("trace3\r\n" + longest + "\r\nA\rB\r\r\n.\r\n"));
    EXPECT_TRUE(read.ok) << read.error;
    EXPECT_EQ((std::vector<std::string>{"trace3", longest, "A\rB\r", "."}), read.header);

    const DecodedTrace tooLong = Decode(Bytes("trace3\r\n" + longest + "a\r\n.\r\n"));
    EXPECT_EQ("corrupt header at byte offset 8: a header line runs on for more than 4096 bytes without CR LF",
              tooLong.error);
    const DecodedTrace crs = Decode(Bytes("trace3\r\n" + std::string(5000, '\r') + "\r\n.\r\n"));
    EXPECT_EQ(tooLong.error, crs.error);

    // A file that ends on a CR, or on the CR LF of a line of the longest length.
    EXPECT_EQ("truncated header at byte offset 8: the last header line has no CR LF and no closing \".\" line follows",
              Decode(Bytes("trace3\r\n" + longest + "\r")).error);
    EXPECT_EQ("truncated header at byte offset 4106: the file ends before the header's closing \".\" line",
              Decode(Bytes("trace3\r\n" + longest + "\r\n")).error);
}

TEST(TraceDecoderTest, EveryCutInsideARecordHeadIsReportedAtTheRecordsOffset)
{
    SampleTrace sample;
    sample.Add(9, '>', "A::B");
    const std::size_t second = sample.size();
    sample.Add(9, '<');
    for (std::size_t keep = 1; keep < 7; ++keep) {
        const DecodedTrace trace = Decode(sample.Truncated(second + keep));
        EXPECT_FALSE(trace.ok) << keep;
        EXPECT_EQ(second, trace.errorOffset) << keep;
        EXPECT_EQ("truncated record at byte offset " + std::to_string(second) +
                      ": the record head needs 7 bytes, " + std::to_string(keep) + " left",
                  trace.error);
        // What came before the damage is kept.
        ASSERT_EQ(1u, trace.records.size()) << keep;
        EXPECT_EQ("> A::B", nvtrace::CanonicalLine(trace.records[0]));
    }
}

TEST(TraceDecoderTest, CutInsideARecordTextIsReportedWithTheMissingLength)
{
    SampleTrace sample;
    const std::size_t first = sample.size();
    sample.Add(9, 'U', "twelve bytes");
    for (std::size_t keep = 0; keep < 12; ++keep) {
        const DecodedTrace trace = Decode(sample.Truncated(first + 7 + keep));
        EXPECT_FALSE(trace.ok);
        EXPECT_EQ(first, trace.errorOffset);
        EXPECT_EQ("truncated record at byte offset " + std::to_string(first) + ": the text needs 12 bytes, " +
                      std::to_string(keep) + " left",
                  trace.error);
        EXPECT_TRUE(trace.records.empty());
    }
}

TEST(TraceDecoderTest, UnknownKindIsCorrupt)
{
    SampleTrace sample;
    sample.Add(3, '>', "X");
    const std::size_t at = sample.size();
    sample.AddRaw({3, 0, 0, 0, 'Q', 0, 0});
    const DecodedTrace trace = Decode(sample.bytes());
    EXPECT_FALSE(trace.ok);
    EXPECT_EQ(at, trace.errorOffset);
    EXPECT_EQ("corrupt record at byte offset " + std::to_string(at) + ": unknown record kind 0x51", trace.error);
    EXPECT_EQ(1u, trace.records.size());
}

// Every byte but the seven kinds is refused as a kind, whatever length follows it.
TEST(TraceDecoderTest, EveryByteThatIsNoKindIsCorruptWhateverItsLength)
{
    const std::string kinds = "NtT><UE";
    for (int b = 0; b < 256; ++b) {
        const char kind = static_cast<char>(b);
        const bool known = kinds.find(kind) != std::string::npos;
        EXPECT_EQ(known, nvtrace::IsKnownKind(kind)) << b;
        if (known)
            continue;
        for (const std::uint8_t length : {0x00, 0xFF}) {
            SampleTrace sample;
            const std::size_t at = sample.size();
            sample.AddRaw({3, 0, 0, 0, static_cast<std::uint8_t>(b), length, length});
            sample.AddRaw(std::vector<std::uint8_t>(length == 0 ? 0 : 0xFFFF, 0x41));
            const DecodedTrace trace = Decode(sample.bytes());
            EXPECT_FALSE(trace.ok) << b;
            EXPECT_EQ(at, trace.errorOffset) << b;
            EXPECT_NE(std::string::npos, trace.error.find("unknown record kind")) << b << ": " << trace.error;
        }
    }
}

TEST(TraceDecoderTest, TextLongerThanItsKindAllowsIsCorrupt)
{
    struct Case {
        char kind;
        std::size_t length;
        const char* carried;
    };
    for (const Case c : {Case{'>', 100, "100 bytes"}, Case{'<', 1, "1 byte"}, Case{'U', 400, "400 bytes"},
                         Case{'E', 261, "261 bytes"}, Case{'t', 9, "9 bytes"}, Case{'T', 13, "13 bytes"},
                         Case{'N', 11, "11 bytes"}}) {
        SampleTrace sample;
        const std::size_t at = sample.size();
        sample.AddRaw(nvtrace::EncodeRecord(1, c.kind, std::string(c.length, '1')));
        const DecodedTrace trace = Decode(sample.bytes());
        EXPECT_FALSE(trace.ok) << c.kind;
        EXPECT_EQ(at, trace.errorOffset);
        EXPECT_EQ("corrupt record at byte offset " + std::to_string(at) + ": a '" + std::string(1, c.kind) +
                      "' record cannot carry " + c.carried + " of text",
                  trace.error);
    }
}

TEST(TraceDecoderTest, LongestTextsOfEachKindAreAccepted)
{
    SampleTrace sample;
    sample.Add(1, '>', std::string(99, 'n')).Add(1, 'U', std::string(399, 'u')).Add(1, 'E', "-1 " + std::string(257, 'e'));
    const DecodedTrace trace = Decode(sample.bytes());
    ASSERT_TRUE(trace.ok) << trace.error;
    ASSERT_EQ(3u, trace.records.size());
    EXPECT_EQ(399u, trace.records[1].text.size());
    EXPECT_EQ(260u, trace.records[2].text.size());
}

TEST(TraceDecoderTest, TimestampTextsAreChecked)
{
    for (const auto& bad : std::vector<std::pair<char, std::string>>{
             {'T', "09:30:00,125"}, {'T', "9:30:00.1250"}, {'t', "11-15-26"}, {'N', "11/15/2026"}, {'E', "x "},
             {'E', "-5"}, {'U', std::string("a\0b", 3)}}) {
        SampleTrace sample;
        const std::size_t at = sample.size();
        sample.Add(1, bad.first, bad.second);
        const DecodedTrace trace = Decode(sample.bytes());
        EXPECT_FALSE(trace.ok) << bad.first << " " << bad.second;
        EXPECT_EQ(at, trace.errorOffset);
        EXPECT_EQ(0u, trace.error.find("corrupt record at byte offset " + std::to_string(at) + ": ")) << trace.error;
    }
}

TEST(TraceDecoderTest, UnscrambledRecordsAreRecognisedAsCorrupt)
{
    // A time record written in plain text (not scrambled) does not decode to a time.
    SampleTrace sample;
    const std::size_t at = sample.size();
    const std::string plain = "09:30:00.125";
    std::vector<std::uint8_t> record = {1, 0, 0, 0, 'T', 12, 0};
    record.insert(record.end(), plain.begin(), plain.end());
    sample.AddRaw(record);
    const DecodedTrace trace = Decode(sample.bytes());
    EXPECT_FALSE(trace.ok);
    EXPECT_EQ(at, trace.errorOffset);
    EXPECT_EQ("corrupt record at byte offset " + std::to_string(at) + ": the time record is not hh:mm:ss.mmm",
              trace.error);
}

TEST(TraceDecoderTest, ResultsOfEveryShapeDecode)
{
    SampleTrace sample;
    sample.Add(1, 'E', "-1 ").Add(1, 'E', "590610 text").Add(1, 'E', "-2147467259 CFoo failed");
    const DecodedTrace trace = Decode(sample.bytes());
    ASSERT_TRUE(trace.ok) << trace.error;
    EXPECT_EQ((std::vector<std::string>{"E -1 ", "E 590610 text", "E -2147467259 CFoo failed"}), Canonical(trace));
}

TEST(TraceDecoderTest, GarbageAfterTheHeaderNeverCrashes)
{
    // Deterministic pseudo-random bodies: the decoder stops with an error or decodes.
    std::uint32_t seed = 12345;
    for (int round = 0; round < 500; ++round) {
        SampleTrace sample;
        std::vector<std::uint8_t> junk(static_cast<std::size_t>(round % 97));
        for (std::uint8_t& b : junk) {
            seed = seed * 1103515245u + 12345u;
            b = static_cast<std::uint8_t>(seed >> 16);
        }
        sample.AddRaw(junk);
        const DecodedTrace trace = Decode(sample.bytes());
        if (!trace.ok) {
            EXPECT_GE(trace.errorOffset, trace.bodyOffset);
            EXPECT_LE(trace.errorOffset, sample.size());
            EXPECT_NE(std::string::npos, trace.error.find("at byte offset " + std::to_string(trace.errorOffset)));
        }
    }
}

TEST(TraceDecoderTest, EveryByteValueInAScopeNameOrLineIsJudgedByItsOwnRule)
{
    // Texts are checked eight bytes at a time first: every byte value, in the first
    // word, at its edges and in the tail, must get what the per-byte rules give.
    for (unsigned value = 0; value < 256; ++value) {
        for (const std::size_t at : {0u, 7u, 8u, 15u, 17u}) {
            std::string text(18, 'n');
            text[at] = static_cast<char>(value);
            SampleTrace sample;
            sample.Add(4, '>', text).Add(4, 'U', text);
            const DecodedTrace trace = Decode(sample.bytes());
            const bool printable = value >= 0x20 && value <= 0x7E;
            const std::string where = "byte " + std::to_string(value) + " at " + std::to_string(at);
            if (printable) {
                EXPECT_TRUE(trace.ok) << where << ": " << trace.error;
                EXPECT_EQ(2u, trace.records.size()) << where;
                continue;
            }
            ASSERT_FALSE(trace.ok) << where;
            const std::string at0 = "corrupt record at byte offset " + std::to_string(trace.bodyOffset) + ": ";
            if (value == 0) {
                EXPECT_EQ(at0 + "its text holds a NUL byte", trace.error) << where;
            } else {
                EXPECT_EQ(at0 + "the scope name is not printable ASCII", trace.error) << where;
            }
            // The same byte in a line: a control character passes, a lone byte of 0x80
            // or more is no UTF-8.
            SampleTrace line;
            line.Add(4, 'U', text);
            const DecodedTrace l = Decode(line.bytes());
            EXPECT_EQ(value != 0 && value < 0x80, l.ok) << where << ": " << l.error;
            if (value >= 0x80) {
                EXPECT_EQ("corrupt record at byte offset " + std::to_string(l.bodyOffset) + ": the line is not UTF-8",
                          l.error)
                    << where;
            }
        }
    }
}
