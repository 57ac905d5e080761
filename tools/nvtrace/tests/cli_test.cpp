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
                                            "11/15/26 09:30:00.125      4    E -2147024894 \n"
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
