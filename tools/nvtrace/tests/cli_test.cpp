// The nvtrace command line: options, exit codes and messages, in-process and as the
// built program.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "nvtracelib.h"
#include "sample_trace.h"

using nvtrace_test::SampleTrace;

namespace {

class TempFile {
public:
    explicit TempFile(const std::vector<std::uint8_t>& bytes)
    {
        char name[] = "/tmp/nvtrace_cli_XXXXXX";
        const int fd = ::mkstemp(name);
        EXPECT_NE(-1, fd);
        if (fd != -1)
            ::close(fd);
        m_path = name;
        std::ofstream out(m_path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    ~TempFile() { std::remove(m_path.c_str()); }
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

struct CliResult {
    int code;
    std::string out;
    std::string err;
};

CliResult RunTool(const std::vector<std::string>& args)
{
    std::ostringstream out, err;
    const int code = nvtrace::RunCli(args, out, err);
    return {code, out.str(), err.str()};
}

SampleTrace Sample()
{
    SampleTrace sample;
    sample.Add(4, 't', "11/15/26").Add(4, 'T', "09:30:00.125").Add(4, '>', "CDBConverter::FinalConstruct")
        .Add(4, 'U', "m_dwVersion = 0x0").Add(4, 'E', "-2147024894 ").Add(4, '<').Add(5, 'U', "other thread");
    return sample;
}

// Runs the built program, capturing stdout and stderr in files.
CliResult RunProgram(const std::string& args)
{
    TempFile out({}), err({});
    const std::string command = std::string(NVTRACE_EXE) + " " + args + " >" + out.path() + " 2>" + err.path();
    const int status = std::system(command.c_str());
    CliResult result;
    result.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream o(out.path()), e(err.path());
    std::stringstream so, se;
    so << o.rdbuf();
    se << e.rdbuf();
    result.out = so.str();
    result.err = se.str();
    return result;
}

} // namespace

TEST(NvtraceCliTest, DecodesAFileWithExitCodeZero)
{
    TempFile file(Sample().bytes());
    const CliResult r = RunTool({file.path()});
    EXPECT_EQ(0, r.code);
    EXPECT_EQ("", r.err);
    EXPECT_EQ(0u, r.out.find("trace3\nCompiled: Sep 15 2010 11:26:51\n"));
    EXPECT_NE(std::string::npos, r.out.find(".\n11/15/26 09:30:00.125      4  > CDBConverter::FinalConstruct\n"
                                            "11/15/26 09:30:00.125      4    U m_dwVersion = 0x0\n"
                                            "11/15/26 09:30:00.125      4    E 0x80070002 "
                                            "HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)\n"
                                            "11/15/26 09:30:00.125      4  <\n"
                                            "11/15/26 09:30:00.125      5  U other thread\n"))
        << r.out;
}

TEST(NvtraceCliTest, RawAndThreadOptions)
{
    TempFile file(Sample().bytes());
    CliResult r = RunTool({"--raw", "--thread", "5", file.path()});
    EXPECT_EQ(0, r.code);
    EXPECT_EQ("U\t5\tother thread\n", r.out);
    r = RunTool({"--thread", "0x4", "--raw", file.path()});
    EXPECT_EQ(0, r.code);
    EXPECT_EQ("t\t4\t11/15/26\nT\t4\t09:30:00.125\n>\t4\tCDBConverter::FinalConstruct\nU\t4\tm_dwVersion = 0x0\n"
              "E\t4\t-2147024894 \n<\t4\t\n",
              r.out);
}

TEST(NvtraceCliTest, TruncatedFileShowsWhatWasReadThenFailsNamingTheOffset)
{
    const SampleTrace sample = Sample();
    const std::size_t cut = sample.size() - 3; // inside the last record's text
    TempFile file(sample.Truncated(cut));
    const std::size_t lastRecord = sample.size() - 7 - 12;
    const CliResult r = RunTool({"--raw", file.path()});
    EXPECT_EQ(3, r.code);
    EXPECT_NE(std::string::npos, r.out.find("<\t4\t\n"));
    EXPECT_EQ(std::string::npos, r.out.find("other thread"));
    EXPECT_EQ("nvtrace: " + file.path() + ": truncated record at byte offset " + std::to_string(lastRecord) +
                  ": the text needs 12 bytes, 9 left\n",
              r.err);
}

TEST(NvtraceCliTest, CorruptFileFailsNamingTheOffset)
{
    SampleTrace sample;
    sample.Add(1, '>', "A");
    const std::size_t at = sample.size();
    sample.AddRaw({1, 0, 0, 0, 0xFF, 3, 0, 1, 2, 3});
    TempFile file(sample.bytes());
    const CliResult r = RunTool({file.path()});
    EXPECT_EQ(3, r.code);
    EXPECT_EQ("nvtrace: " + file.path() + ": corrupt record at byte offset " + std::to_string(at) +
                  ": unknown record kind 0xFF\n",
              r.err);
}

TEST(NvtraceCliTest, NotATraceFile)
{
    TempFile file({'M', 'Z', 0x90, 0});
    const CliResult r = RunTool({file.path()});
    EXPECT_EQ(3, r.code);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("nvtrace: " + file.path() +
                  ": truncated header at byte offset 0: the last header line has no CR LF and no closing \".\" line "
                  "follows\n",
              r.err);
}

TEST(NvtraceCliTest, UsageErrors)
{
    CliResult r = RunTool({});
    EXPECT_EQ(1, r.code);
    EXPECT_EQ(0u, r.err.find("usage: nvtrace [--raw | --summary | --json] [--thread N] FILE\n"));
    r = RunTool({"--bogus", "x"});
    EXPECT_EQ(1, r.code);
    EXPECT_EQ(0u, r.err.find("nvtrace: unknown option '--bogus'\n"));
    r = RunTool({"--thread"});
    EXPECT_EQ(1, r.code);
    EXPECT_EQ(0u, r.err.find("nvtrace: --thread needs a thread id"));
    r = RunTool({"--thread", "12x", "f"});
    EXPECT_EQ(1, r.code);
    r = RunTool({"--thread", "0x100000000", "f"});
    EXPECT_EQ(1, r.code);
    r = RunTool({"a", "b"});
    EXPECT_EQ(1, r.code);
    EXPECT_EQ(0u, r.err.find("nvtrace: one trace file at a time\n"));
    r = RunTool({"--help"});
    EXPECT_EQ(0, r.code);
    EXPECT_EQ(0u, r.out.find("usage: nvtrace"));
}

TEST(NvtraceCliTest, MissingFile)
{
    const CliResult r = RunTool({"/nonexistent/dir/x.trc3"});
    EXPECT_EQ(2, r.code);
    EXPECT_EQ("nvtrace: cannot open '/nonexistent/dir/x.trc3'\n", r.err);
}

// A device or a folder opens but is no trace: refused at once, not read (a terminal
// or a pipe would wait for input forever).
TEST(NvtraceCliTest, DevicesAndFoldersAreRefusedAsNoFile)
{
    for (const std::string path : {"/dev/null", "/dev/zero", "/tmp"}) {
        const CliResult r = RunTool({path});
        EXPECT_EQ(2, r.code) << path;
        EXPECT_EQ("nvtrace: '" + path + "' is not a file\n", r.err);
    }
}

TEST(NvtraceCliTest, BuiltProgramExitCodesAndMessages)
{
    const SampleTrace sample = Sample();
    TempFile good(sample.bytes());
    CliResult r = RunProgram("--raw --thread 5 " + good.path());
    EXPECT_EQ(0, r.code);
    EXPECT_EQ("U\t5\tother thread\n", r.out);
    EXPECT_EQ("", r.err);

    TempFile cut(sample.Truncated(sample.size() - 1));
    r = RunProgram(cut.path());
    EXPECT_EQ(3, r.code);
    EXPECT_EQ("nvtrace: " + cut.path() + ": truncated record at byte offset " + std::to_string(sample.size() - 19) +
                  ": the text needs 12 bytes, 11 left\n",
              r.err);

    r = RunProgram("--nope");
    EXPECT_EQ(1, r.code);
}

TEST(NvtraceCliTest, EveryTruncationOfARealisticFileFailsCleanly)
{
    const SampleTrace sample = Sample();
    for (std::size_t size = 0; size < sample.size(); ++size) {
        TempFile file(sample.Truncated(size));
        const CliResult r = RunTool({file.path()});
        // A cut exactly between records is a complete, shorter file.
        const nvtrace::DecodedTrace trace = nvtrace::Decode(sample.Truncated(size));
        EXPECT_EQ(trace.ok ? 0 : 3, r.code) << size;
        if (!trace.ok) {
            EXPECT_NE(std::string::npos, r.err.find("at byte offset " + std::to_string(trace.errorOffset))) << size;
        }
    }
}

namespace {

// A sample with every kind of record, texts of every shape the library writes.
SampleTrace EveryKind()
{
    SampleTrace s;
    s.Add(4, 't', "11/25/26").Add(4, 'T', "09:30:00.125").Add(4, '>', "CBaseConverter::Convert")
        .Add(4, 'U', "wszVersion = 2.0").Add(4, 'U', "user Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC")
        .Add(4, '>', "CBaseConverter::Backup").Add(4, 'E', "-2147024888 ").Add(4, '<')
        .Add(4, 'E', "-2147467259 opening key").Add(4, '<').Add(4, 'E', "590610 ")
        .Add(0, 'N', "11-26-2026").Add(5, 'T', "23:59:59.999").Add(5, 'U', "");
    return s;
}

// Offsets of the records of a decoded sample.
std::vector<std::size_t> RecordOffsets(const SampleTrace& sample)
{
    std::vector<std::size_t> offsets;
    for (const nvtrace::Record& r : nvtrace::Decode(sample.bytes()).records)
        offsets.push_back(static_cast<std::size_t>(r.offset));
    return offsets;
}

} // namespace

// Every byte of the body flipped in turn: a damaged kind, length or text stops the
// decoder at the damaged record with exit 3, naming its offset, and what came
// before is shown as it was. The thread id is the one field nothing can check (any
// value is a thread's): there the file decodes with only that thread changed.
TEST(NvtraceCliTest, AFlippedByteAnywhereInTheBodyIsReportedAtItsRecord)
{
    const SampleTrace sample = EveryKind();
    const nvtrace::DecodedTrace clean = nvtrace::Decode(sample.bytes());
    ASSERT_TRUE(clean.ok) << clean.error;
    const std::vector<std::size_t> starts = RecordOffsets(sample);
    ASSERT_EQ(14u, starts.size());
    std::size_t threadFlips = 0, stopped = 0;
    for (std::size_t at = static_cast<std::size_t>(clean.bodyOffset); at < sample.size(); ++at) {
        std::vector<std::uint8_t> bytes = sample.bytes();
        bytes[at] ^= 0xFF;
        std::size_t record = 0;
        while (record + 1 < starts.size() && starts[record + 1] <= at)
            ++record;
        const std::size_t recordStart = starts[record];
        TempFile file(bytes);
        const CliResult r = RunTool({"--raw", file.path()});
        if (at - recordStart < 4) {
            ++threadFlips;
            EXPECT_EQ(0, r.code) << at;
            const nvtrace::DecodedTrace flipped = nvtrace::Decode(bytes);
            ASSERT_EQ(clean.records.size(), flipped.records.size()) << at;
            for (std::size_t i = 0; i < clean.records.size(); ++i) {
                EXPECT_EQ(clean.records[i].text, flipped.records[i].text) << at;
                EXPECT_EQ(i == record, clean.records[i].thread != flipped.records[i].thread) << at;
            }
            continue;
        }
        ++stopped;
        EXPECT_EQ(3, r.code) << "flipped byte at " << at;
        const std::string named = " at byte offset " + std::to_string(recordStart) + ": ";
        EXPECT_EQ(0u, r.err.find("nvtrace: " + file.path() + ": ")) << at << ": " << r.err;
        EXPECT_NE(std::string::npos, r.err.find(named)) << "flipped byte at " << at << ": " << r.err;
        // The records before the damaged one are listed as they were.
        std::size_t lines = 0;
        for (const char c : r.out)
            lines += c == '\n' ? 1 : 0;
        EXPECT_EQ(record, lines) << at;
    }
    EXPECT_EQ(4u * 14u, threadFlips);
    EXPECT_EQ(sample.size() - static_cast<std::size_t>(clean.bodyOffset) - threadFlips, stopped);
}

// Texts the library never writes, each in a record whose kind and length are fine.
TEST(NvtraceCliTest, RecordsWhoseTextTheLibraryCannotWriteAreCorrupt)
{
    struct Case {
        char kind;
        std::string text;
        const char* why;
    };
    const Case cases[] = {
        {'U', "bad \xC3(", "the line is not UTF-8"},
        {'U', "cut \xE2\x82", "the line is not UTF-8"},
        {'U', "overlong \xC0\xAF", "the line is not UTF-8"},
        {'>', "CFoo::Bar\x01", "the scope name is not printable ASCII"},
        {'>', "", "the scope record has no name"},
        {'E', "0 ", "the result record does not start with a result code the library traces"},
        {'E', "5 ", "the result record does not start with a result code the library traces"},
        {'E', "-02147467259 ", "the result record does not start with a result code the library traces"},
        {'E', "-2147483649 ", "the result record does not start with a result code the library traces"},
        {'E', "2147483647 ", "the result record does not start with a result code the library traces"},
        {'E', "+5 ", "the result record does not start with a result code the library traces"},
        {'E', "-2147467259x", "the result record has no blank after its code"},
        {'E', "-2147467259 a\tb", "the result text holds a control character"},
        {'T', "24:00:00.000", "the time record is not hh:mm:ss.mmm"},
        {'T', "12:60:00.000", "the time record is not hh:mm:ss.mmm"},
        {'t', "13/01/26", "the date record is not mm/dd/yy"},
        {'t', "00/01/26", "the date record is not mm/dd/yy"},
        {'N', "11-32-2026", "the reopen record is not mm-dd-yyyy"},
    };
    for (const Case& c : cases) {
        SampleTrace sample;
        sample.Add(1, '>', "A");
        const std::size_t at = sample.size();
        sample.Add(1, c.kind, c.text);
        TempFile file(sample.bytes());
        const CliResult r = RunTool({file.path()});
        EXPECT_EQ(3, r.code) << c.kind << " " << c.text;
        EXPECT_EQ("nvtrace: " + file.path() + ": corrupt record at byte offset " + std::to_string(at) + ": " + c.why +
                      "\n",
                  r.err);
    }
}

// What the library does write stays accepted: every result shape it traces, the
// edges of every clock field, control characters a quoted name can bring into a
// line, and a result text cut inside its last character at the longest length.
TEST(NvtraceCliTest, EveryTextTheLibraryWritesIsAccepted)
{
    SampleTrace sample;
    sample.Add(1, 't', "01/01/00").Add(1, 't', "12/31/99").Add(1, 'T', "00:00:00.000").Add(1, 'T', "23:59:59.999")
        .Add(1, 'N', "01-01-1601").Add(1, 'N', "12-31-9999").Add(1, '>', std::string(99, '~'))
        .Add(1, 'U', "value \"a\tb\x01\" of key is empty").Add(1, 'U', "\xED\xA0\x80 lone surrogate")
        .Add(1, 'U', "\xF0\x9F\x98\x80").Add(1, 'E', "-2147483648 ")
        .Add(1, 'E', "590610 ").Add(1, 'E', "-1 x").Add(1, 'E', "-1 " + std::string(255, 'x') + "\xE2\x82")
        .Add(1, '<').Add(1, '<').Add(1, 'U', "");
    const nvtrace::DecodedTrace trace = nvtrace::Decode(sample.bytes());
    EXPECT_TRUE(trace.ok) << trace.error;
    EXPECT_EQ(17u, trace.records.size());
}

// The plain listing shows a result as its hex code and name, the text after it.
TEST(NvtraceCliTest, ListingShowsResultsAsHexWithTheirNames)
{
    TempFile file(EveryKind().bytes());
    const CliResult r = RunTool({file.path()});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos,
              r.out.find("11/25/26 09:30:00.125      4    > CBaseConverter::Backup\n"
                         "11/25/26 09:30:00.125      4      E 0x80070008 HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY)\n"
                         "11/25/26 09:30:00.125      4    <\n"
                         "11/25/26 09:30:00.125      4    E 0x80004005 E_FAIL: opening key\n"
                         "11/25/26 09:30:00.125      4  <\n"
                         "11/25/26 09:30:00.125      4  E 0x00090312\n"))
        << r.out;
    EXPECT_EQ(std::string::npos, r.out.find("-2147")) << r.out;
}
