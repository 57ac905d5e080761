// The nvtrace command line: options, exit codes and messages, in-process and as the
// built program.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "nvtracelib.h"
#include "rollup.h"
#include "sample_trace.h"
#include "temp_folder.h"

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

// A summary, JSON or a page of a file that is no trace, or whose header is cut, would
// show a process that never was: only the reason is given.
TEST(NvtraceCliTest, AFileWithoutAWholeHeaderIsNotSummarized)
{
    TempFolder dir;
    const std::string notTrace = dir.Write("picture.trc3", {0x89, 'P', 'N', 'G', '\r', '\n'});
    const std::string cut = dir.Write("cut.trc3", {'t', 'r', 'a', 'c', 'e', '3', '\r', '\n', 'O', 'S'});
    for (const std::string& file : {notTrace, cut}) {
        for (const std::vector<std::string>& args :
             {std::vector<std::string>{"--summary", file}, std::vector<std::string>{"--json", file},
              std::vector<std::string>{"--html", dir.Path("page.html"), file},
              std::vector<std::string>{"--chrome-trace", dir.Path("events.json"), file}}) {
            const CliResult r = RunTool(args);
            EXPECT_EQ(3, r.code) << args[0] << " " << file;
            EXPECT_EQ("", r.out) << args[0] << " " << file;
            EXPECT_EQ(0u, r.err.find("nvtrace: " + file + ": ")) << r.err;
            EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << r.err;
        }
    }
    EXPECT_FALSE(std::filesystem::exists(dir.Path("page.html")));
    EXPECT_FALSE(std::filesystem::exists(dir.Path("events.json")));
}

TEST(NvtraceCliTest, NotATraceFile)
{
    TempFile file({'M', 'Z', 0x90, 0});
    const CliResult r = RunTool({file.path()});
    EXPECT_EQ(3, r.code);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("nvtrace: " + file.path() +
                  ": not a trace file at byte offset 0: it does not begin with the line \"trace3\"\n",
              r.err);
}

TEST(NvtraceCliTest, UsageErrors)
{
    // Each bad command line exits 1; where a message is given, stderr starts with it.
    const struct {
        std::vector<std::string> args;
        const char* errStart;
    } cases[] = {
        {{}, "usage: nvtrace [--raw | --summary | --json] [--thread N] [--] FILE\n"},
        {{"--bogus", "x"}, "nvtrace: unknown option '--bogus'\n"},
        {{"--thread"}, "nvtrace: --thread needs a thread id"},
        {{"--thread", "12x", "f"}, nullptr},
        {{"--thread", "0x100000000", "f"}, nullptr},
        {{"a", "b"}, "nvtrace: one trace file at a time\n"},
    };
    for (const auto& c : cases) {
        const CliResult bad = RunTool(c.args);
        EXPECT_EQ(1, bad.code) << c.args.size();
        if (c.errStart) {
            EXPECT_EQ(0u, bad.err.find(c.errStart)) << bad.err;
        }
    }
    const CliResult r = RunTool({"--help"});
    EXPECT_EQ(0, r.code);
    EXPECT_EQ(0u, r.out.find("usage: nvtrace"));
    EXPECT_NE(std::string::npos, r.out.find("Exit codes:"));
}

TEST(NvtraceCliTest, ABadOptionGetsTheSynopsisNotTheWholeHelp)
{
    const std::string synopsis = "usage: nvtrace [--raw | --summary | --json] [--thread N] [--] FILE\n"
                                 "       nvtrace [--summary | --json | --csv] [--jobs N] [--] FILE|FOLDER...\n"
                                 "       nvtrace [--chrome-trace OUT.json] [--html OUT.html] [--thread N] [--] FILE\n";
    const CliResult bad = RunTool({"--jobs", "0", "x"});
    EXPECT_EQ(1, bad.code);
    EXPECT_EQ("nvtrace: --jobs needs a number of files to read at once, 1 to 16\n" + synopsis +
                  "  (nvtrace --help: every option and the exit codes)\n",
              bad.err);
    // With nothing to read, the whole help: that is what a newcomer typing the bare name wants.
    const CliResult bare = RunTool({});
    EXPECT_EQ(1, bare.code);
    EXPECT_EQ(RunTool({"--help"}).out, bare.err);
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

namespace {

std::vector<std::string> HeaderFor(const std::string& machine, const std::string& version, const std::string& time)
{
    return {"trace3",          "Compiled: Sep 15 2010 11:26:51", "OS: Windows7", "ServicePack: Service Pack 1",
            "Machine name: " + machine, "Trace Ver: 3.0.1", "FileVersion: " + version, "No Palmera products found",
            "installation: NETWORK", time, "."};
}

// A 2.0 -> 3.0 conversion: one user moved, then `more` as given.
SampleTrace Conversion(const std::string& machine, const std::string& version, const std::string& time,
                       const std::vector<std::pair<std::string, std::string>>& users, bool strict = false)
{
    SampleTrace s(HeaderFor(machine, version, time));
    s.Add(3, '>', "CBaseConverter::Convert").Add(3, '>', "CConverter3::do_Convert");
    if (strict)
        s.Add(3, 'U', "Conversion policy: strict");
    for (const auto& [sid, how] : users) {
        s.Add(3, 'U', "Conversion process began for '" + sid + "'");
        if (how == "moved") {
            s.Add(3, 'U', "DeleteKey('" + sid + "'), 0x00000000");
            s.Add(3, 'U', "Conversion process is over for '" + sid + "', 0x00000000");
        } else if (how == "gaps") {
            s.Add(3, 'U', "Incomplete user '" + sid + "' moved with gaps: secret not stored 'Primary' (0x80004005)");
            s.Add(3, 'U', "DeleteKey('" + sid + "'), 0x00000000");
            s.Add(3, 'U', "Conversion process is over for '" + sid + "', 0x00000000");
        } else if (how == "held") {
            s.Add(3, 'U', "Incomplete user '" + sid + "' keeps its old key: template malformed at position 0");
            s.Add(3, 'U', "Conversion process is over for '" + sid + "', 0x80040201");
        } else {
            s.Add(3, '>', "CNVSecret::GetContent").Add(3, 'E', "-2147024891 ").Add(3, '<');
            s.Add(3, 'U', "Conversion process is over for '" + sid + "', 0x80070005");
        }
    }
    s.Add(3, '<').Add(3, '<');
    return s;
}

// Four traces and a file that is none: a strict conversion with a held and a failed
// user, one with gaps, one cut short, and (in a subfolder) one that moved everyone.
struct Fleet {
    TempFolder folder;
    std::string a, b, c, d;
    Fleet()
    {
        a = folder.Write("a.trc3", Conversion("PC-ALPHA", "3.0.1.0", "11/25/2026 08:00:00.000",
                                              {{"S-1-5-21-1-1001", "held"}, {"S-1-5-21-1-1002", "failed"},
                                               {"S-1-5-21-1-1003", "moved"}},
                                              true)
                                       .bytes());
        b = folder.Write("b.trc3", Conversion("PC-BETA", "3.0.1.0", "11/25/2026 09:00:00.000",
                                              {{"S-1-5-21-2-1001", "gaps"}, {"S-1-5-21-2-1002", "failed"}})
                                       .bytes());
        const SampleTrace cut = Conversion("=PC,GAMMA", "3.0.0.9", "11/26/2026 10:00:00.000",
                                           {{"S-1-5-21-3-1001", "moved"}});
        c = folder.Write("c.TRC3", cut.Truncated(cut.size() - 3));
        d = folder.Write("sub/d.trc3", Conversion("PC-DELTA", "3.0.1.0", "11/26/2026 11:00:00.000",
                                                  {{"S-1-5-21-4-1001", "moved"}, {"S-1-5-21-4-1002", "moved"}})
                                           .bytes());
        folder.Write("notes.txt", {'h', 'i'});
    }
};

} // namespace

TEST(NvtraceRollupTest, CsvOfAFolderHasOneRowPerTraceAndTotals)
{
    const Fleet fleet;
    const CliResult r = RunTool({"--csv", fleet.folder.path()});
    EXPECT_EQ(3, r.code); // one trace is cut short
    const std::size_t cutAt = Conversion("=PC,GAMMA", "3.0.0.9", "11/26/2026 10:00:00.000",
                                         {{"S-1-5-21-3-1001", "moved"}})
                                  .size() -
                              7;
    EXPECT_EQ("file,machine,version,started,moved,moved_with_gaps,held,failed,first_failure,first_failure_name,state,"
              "problem\n" +
                  fleet.a + ",PC-ALPHA,3.0.1.0,2026-11-25 08:00:00.000,1,0,1,1,0x80040201,NV_E_USER_INCOMPLETE,decoded,\n" +
                  fleet.b + ",PC-BETA,3.0.1.0,2026-11-25 09:00:00.000,0,1,0,1,0x80070005,E_ACCESSDENIED,decoded,\n" +
                  fleet.c + ",\"'=PC,GAMMA\",3.0.0.9,2026-11-26 10:00:00.000,1,0,0,0,,,damaged," +
                  "\"truncated record at byte offset " + std::to_string(cutAt) +
                  ": the record head needs 7 bytes, 4 left\"\n" + fleet.d +
                  ",PC-DELTA,3.0.1.0,2026-11-26 11:00:00.000,2,0,0,0,,,decoded,\n"
                  "(total),,,,4,1,1,2,0x80070005,E_ACCESSDENIED,\"4 traces, 1 damaged, 0 unreadable\","
                  "most frequent: 0x80070005 x2; 0x80040201 x1\n",
              r.out);
    EXPECT_EQ("nvtrace: " + fleet.c + ": truncated record at byte offset " + std::to_string(cutAt) +
                  ": the record head needs 7 bytes, 4 left\n",
              r.err);
}

TEST(NvtraceRollupTest, JsonOfSeveralFilesHasOneObjectPerTraceThenTotals)
{
    const Fleet fleet;
    const CliResult r = RunTool({"--json", fleet.a, fleet.d, "/nonexistent/x.trc3"});
    EXPECT_EQ(2, r.code); // one file could not be read
    EXPECT_EQ("{\"file\":\"" + fleet.a +
                  "\",\"machine\":\"PC-ALPHA\",\"version\":\"3.0.1.0\",\"started\":\"2026-11-25 08:00:00.000\","
                  "\"moved\":1,\"movedWithGaps\":0,\"held\":1,\"failed\":1,\"firstFailure\":{\"code\":\"0x80040201\","
                  "\"name\":\"NV_E_USER_INCOMPLETE\",\"message\":\"Not all of the user reached the store; the strict "
                  "policy kept its old data\"},\"state\":\"decoded\",\"problem\":null}\n"
                  "{\"file\":\"" +
                  fleet.d +
                  "\",\"machine\":\"PC-DELTA\",\"version\":\"3.0.1.0\",\"started\":\"2026-11-26 11:00:00.000\","
                  "\"moved\":2,\"movedWithGaps\":0,\"held\":0,\"failed\":0,\"firstFailure\":null,\"state\":\"decoded\","
                  "\"problem\":null}\n"
                  "{\"file\":\"/nonexistent/x.trc3\",\"machine\":\"\",\"version\":\"\",\"started\":null,\"moved\":0,"
                  "\"movedWithGaps\":0,\"held\":0,\"failed\":0,\"firstFailure\":null,\"state\":\"unreadable\","
                  "\"problem\":\"cannot open '/nonexistent/x.trc3'\"}\n"
                  "{\"totals\":{\"traces\":3,\"damaged\":0,\"unreadable\":1,\"moved\":3,\"movedWithGaps\":0,\"held\":1,"
                  "\"failed\":1,\"failures\":2,\"mostFrequent\":[{\"code\":\"0x80040201\",\"name\":"
                  "\"NV_E_USER_INCOMPLETE\",\"message\":\"Not all of the user reached the store; the strict policy "
                  "kept its old data\",\"count\":1},{\"code\":\"0x80070005\",\"name\":\"E_ACCESSDENIED\",\"message\":"
                  "\"Access is denied\",\"count\":1}]}}\n",
              r.out);
    EXPECT_EQ("nvtrace: cannot open '/nonexistent/x.trc3'\n", r.err);
}

TEST(NvtraceRollupTest, SummaryOfAFolderIsATableWithTotals)
{
    const Fleet fleet;
    const CliResult r = RunTool({"--summary", fleet.folder.path() + "/sub", fleet.b});
    EXPECT_EQ(0, r.code) << r.err;
    const std::string gap(2, ' ');
    EXPECT_EQ("started                  machine          version     moved  gaps  held  failed  first failure" +
                  std::string(52 - 13, ' ') + gap + "trace\n" +
                  "2026-11-26 11:00:00.000  PC-DELTA         3.0.1.0         2     0     0       0  -" +
                  std::string(51, ' ') + gap + fleet.d + "\n" +
                  "2026-11-25 09:00:00.000  PC-BETA          3.0.1.0         0     1     0       1  0x80070005 "
                  "E_ACCESSDENIED" +
                  std::string(52 - 25, ' ') + gap + fleet.b +
                  "\n"
                  "\n"
                  "traces: 2, 0 damaged, 0 unreadable\n"
                  "users: 2 moved, 1 moved with gaps, 0 held, 1 failed\n"
                  "failing results: 1 (each counted where it arose)\n"
                  "most frequent failure codes:\n"
                  "       1  0x80070005 E_ACCESSDENIED \"Access is denied\"\n",
              r.out);
}

TEST(NvtraceRollupTest, OneFileAsCsvAndUsageErrors)
{
    const Fleet fleet;
    CliResult r = RunTool({"--csv", fleet.d});
    EXPECT_EQ(0, r.code);
    EXPECT_EQ(0u, r.out.find("file,machine,"));
    EXPECT_NE(std::string::npos, r.out.find("\n(total),,,,2,0,0,0,,,\"1 trace, 0 damaged, 0 unreadable\",\n"))
        << r.out;
    r = RunTool({fleet.a, fleet.b});
    EXPECT_EQ(1, r.code);
    EXPECT_EQ(0u, r.err.find("nvtrace: one trace file at a time\n"));
    r = RunTool({"--raw", fleet.folder.path()});
    EXPECT_EQ(2, r.code);
    r = RunTool({"--csv", "--thread", "3", fleet.a});
    EXPECT_EQ(1, r.code);
    EXPECT_EQ(0u, r.err.find("nvtrace: --thread takes one trace file\n"));
    TempFolder empty;
    r = RunTool({"--csv", empty.path()});
    EXPECT_EQ(2, r.code);
    EXPECT_EQ("nvtrace: no .trc3 file in '" + empty.path() + "'\n", r.err);
}

// A folder that links to itself, to another folder of traces and to a trace file:
// the walk reads the linked file, and names each linked folder instead of entering it
// (it would go round the loop, or, in a Wine prefix whose Z: is /, through the disk).
TEST(NvtraceRollupTest, LinksAreFollowedToFilesNeverToFolders)
{
    const Fleet fleet;
    TempFolder elsewhere;
    const std::string outside = elsewhere.Write("x.trc3", Conversion("PC-EPSILON", "3.0.1.0", "11/27/2026 08:00:00.000",
                                                                      {{"S-1-5-21-5-1001", "moved"}})
                                                               .bytes());
    const std::string loop = fleet.folder.Path("sub/loop"), away = fleet.folder.Path("sub/away"),
                      linked = fleet.folder.Path("sub/linked.trc3");
    std::filesystem::create_directory_symlink(fleet.folder.path(), loop);
    std::filesystem::create_directory_symlink(elsewhere.path(), away);
    std::filesystem::create_symlink(outside, linked);
    for (const char* jobs : {"1", "2"}) {
        const CliResult r = RunTool({"--csv", "--jobs", jobs, fleet.folder.path() + "/sub"});
        EXPECT_EQ(0, r.code) << jobs << " " << r.err;
        EXPECT_EQ("file,machine,version,started,moved,moved_with_gaps,held,failed,first_failure,first_failure_name,"
                  "state,problem\n" +
                      fleet.d + ",PC-DELTA,3.0.1.0,2026-11-26 11:00:00.000,2,0,0,0,,,decoded,\n" + linked +
                      ",PC-EPSILON,3.0.1.0,2026-11-27 08:00:00.000,1,0,0,0,,,decoded,\n"
                      "(total),,,,3,0,0,0,,,\"2 traces, 0 damaged, 0 unreadable\",\n",
                  r.out)
            << jobs;
        EXPECT_EQ("nvtrace: '" + away + "' is a link to a folder: not followed (name it to read the folder)\n" +
                      "nvtrace: '" + loop + "' is a link to a folder: not followed (name it to read the folder)\n",
                  r.err)
            << jobs;
    }
    // Named, a linked folder is read.
    const CliResult named = RunTool({"--csv", away});
    EXPECT_EQ(0, named.code) << named.err;
    EXPECT_NE(std::string::npos, named.out.find(away + "/x.trc3,PC-EPSILON,")) << named.out;
}

TEST(NvtraceRollupTest, CsvRowQuotesFieldsWithQuotesCommasOrBreaksAndDoublesTheQuotes)
{
    nvtrace::TraceRow row;
    row.file = "fleet/a \"b\".trc3";
    row.machine = "-PC,1";
    row.version = "3.0\r\n";
    row.started = "2026-11-26 10:00:00.000";
    row.moved = 12;
    row.held = 3;
    row.hasFailure = true;
    row.firstFailure = 0x80070005u;
    row.state = nvtrace::TraceState::Damaged;
    row.problem = "cut \"here\"";
    std::ostringstream out;
    nvtrace::RollupWriter writer(nvtrace::RollupFormat::Csv, out);
    writer.Row(row);
    EXPECT_EQ("\"fleet/a \"\"b\"\".trc3\",\"'-PC,1\",\"3.0\r\n\",2026-11-26 10:00:00.000,12,0,3,0,0x80070005,"
              "E_ACCESSDENIED,damaged,\"cut \"\"here\"\"\"\n",
              out.str());
}
