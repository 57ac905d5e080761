// A trace comes from a customer's machine, and a fleet's folder may hold files that a
// user without rights put there: what nvtrace shows of them cannot forge lines, act on
// the terminal or reorder text; a file too large for a trace is refused, not read; an
// output that cannot be written, or would overwrite a trace, is an error; --thread says
// what it left out.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "html_report.h"
#include "nvtracelib.h"
#include "rollup.h"
#include "sample_trace.h"
#include "temp_folder.h"

using nvtrace_test::SampleTrace;

namespace {

struct Result {
    int code;
    std::string out, err;
};

Result RunTool(const std::vector<std::string>& args)
{
    std::ostringstream out, err;
    const int code = nvtrace::RunCli(args, out, err);
    return {code, out.str(), err.str()};
}

std::size_t Lines(const std::string& text) { return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')); }

// What a terminal acts on: ESC, the 8-bit CSI, BEL, a lone CR.
bool HasTerminalControl(const std::string& text)
{
    return text.find('\x1b') != std::string::npos || text.find("\xC2\x9B") != std::string::npos ||
           text.find('\x07') != std::string::npos || text.find('\r') != std::string::npos;
}

// One 2.0 -> 3.0 conversion of one user whose SID carries a line break, escapes and a
// right-to-left override, and which failed.
SampleTrace ForgingTrace()
{
    const std::string sid = "S-1-5-21-9-1001\n  S-1-5-21-9-1000  moved\x1b[2J\xC2\x9B" "31m\xE2\x80\xAE" "txt.exe";
    SampleTrace sample;
    sample.ConversionStarts(1).UserBegins(1, sid).Add(1, 'E', "-2147024891 ").UserEnds(1, sid, "0x80070005");
    sample.Add(1, 'U', "bell\x07 and \x1b]0;title\x07").Add(1, '<').Add(1, '<');
    return sample;
}

// A conversion that moved its one user.
SampleTrace OneMovedUser()
{
    SampleTrace sample;
    sample.ConversionStarts(1).UserMoved(1, "S-1-5-21-1-1001").Add(1, '<').Add(1, '<');
    return sample;
}

} // namespace

TEST(PrintableTest, ControlCharactersBrokenBytesAndReorderingMarksAreEscaped)
{
    EXPECT_EQ("a\\nb\\r\\tc\\x1B[2J\\x07\\x7F", nvtrace::Printable("a\nb\r\tc\x1b[2J\x07\x7f"));
    EXPECT_EQ("\\u009B31m", nvtrace::Printable("\xC2\x9B" "31m"));                     // C1 CSI
    EXPECT_EQ("\\u202Eexe.txt\\u2066\\u200F\\u2028", nvtrace::Printable("\xE2\x80\xAE" "exe.txt\xE2\x81\xA6\xE2\x80\x8F\xE2\x80\xA8"));
    EXPECT_EQ("\\u061Cx\\u200Bx\\uFEFFx\\u2060", nvtrace::Printable("\xD8\x9Cx\xE2\x80\x8Bx\xEF\xBB\xBFx\xE2\x81\xA0"));
    EXPECT_EQ("\\x9B\\xC3(", nvtrace::Printable("\x9B\xC3("));                          // no UTF-8
    EXPECT_EQ("\\xE2\\x82", nvtrace::Printable("\xE2\x82"));                            // cut sequence
    EXPECT_EQ("\\xC0\\xAF", nvtrace::Printable("\xC0\xAF"));                            // overlong
    // Text as people write it stays as it is.
    EXPECT_EQ("caf\xC3\xA9 \xE6\x97\xA5\xE6\x9C\xAC \xF0\x9F\x98\x80 \xC2\xA0", nvtrace::Printable("caf\xC3\xA9 \xE6\x97\xA5\xE6\x9C\xAC \xF0\x9F\x98\x80 \xC2\xA0"));
}

TEST(NvtraceHostileInputTest, SummaryOfAForgingTraceKeepsOneLinePerUserAndNoTerminalControl)
{
    TempFolder folder;
    const std::string file = folder.Write("forge.trc3", ForgingTrace().bytes());
    const Result r = RunTool({"--summary", file});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_FALSE(HasTerminalControl(r.out)) << r.out;
    // The verdict names one user, failed, on one line: no made-up "moved" user.
    std::istringstream lines(r.out);
    std::string first, second, third;
    std::getline(lines, first);
    std::getline(lines, second);
    std::getline(lines, third);
    EXPECT_NE(std::string::npos, first.find("1 user: 0 moved, 0 moved with gaps, 0 held, 1 failed")) << first;
    EXPECT_EQ(0u, second.find("  S-1-5-21-9-1001\\n  S-1-5-21-9-1000  moved\\x1B[2J\\u009B31m\\u202Etxt.exe  failed: "))
        << second;
    EXPECT_EQ("", third);
    // The listing and the plain decoder alike.
    const Result listing = RunTool({file});
    EXPECT_EQ(0, listing.code);
    EXPECT_FALSE(HasTerminalControl(listing.out)) << listing.out;
    const Result raw = RunTool({"--raw", file});
    EXPECT_FALSE(HasTerminalControl(raw.out)) << raw.out;
    EXPECT_EQ(10u, Lines(raw.out)); // one line a record
}

TEST(NvtraceHostileInputTest, HeaderLinesAndFileNamesAreShownEscaped)
{
    std::vector<std::string> header = nvtrace_test::StandardHeader();
    header[4] = "Machine name: PC\x1b]0;owned\x07\xC2\x9B" "2J";
    header[3] = "ServicePack: M\xDCNCHEN"; // the header's ANSI code page (1252), no UTF-8
    TempFolder folder;
    SampleTrace sample(header);
    sample.ConversionStarts(1).UserMoved(1, "S-1-5-21-1-1001").Add(1, '<').Add(1, '<');
    const std::string file = folder.Write("fleet/PC\x1b[31m\nname.trc3", sample.bytes());
    const Result listing = RunTool({file});
    EXPECT_EQ(0, listing.code);
    EXPECT_NE(std::string::npos, listing.out.find("Machine name: PC\\x1B]0;owned\\x07\\u009B2J\n")) << listing.out;
    EXPECT_NE(std::string::npos, listing.out.find("ServicePack: M\\xDCNCHEN\n")) << listing.out;
    // The page shows such a byte as U+FFFD.
    const std::string page = folder.Path("page.html");
    ASSERT_EQ(0, RunTool({"--html", page, file}).code);
    std::ifstream in(page, std::ios::binary);
    const std::string html((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(std::string::npos, html.find("M\xEF\xBF\xBDNCHEN")) << html.substr(0, 400);
    EXPECT_EQ(std::string::npos, html.find("\xDC"));
    const Result table = RunTool({"--summary", folder.Path("fleet")});
    EXPECT_EQ(0, table.code) << table.err;
    EXPECT_FALSE(HasTerminalControl(table.out)) << table.out;
    EXPECT_NE(std::string::npos, table.out.find("PC\\x1B[31m\\nname.trc3")) << table.out;
    // A damaged one's complaint on stderr too.
    folder.Write("fleet/cut\x1b[2J.trc3", sample.Truncated(sample.size() - 2));
    const Result damaged = RunTool({"--csv", folder.Path("fleet")});
    EXPECT_EQ(3, damaged.code);
    EXPECT_FALSE(HasTerminalControl(damaged.err)) << damaged.err;
    EXPECT_NE(std::string::npos, damaged.err.find("cut\\x1B[2J.trc3: ")) << damaged.err;
}

TEST(NvtraceHostileInputTest, HtmlShowsHiddenCodePointsAsEscapes)
{
    const std::string page = nvtrace::HtmlEscape("a\xC2\x9B" "b\xE2\x80\xAE" "c\xC3\xA9");
    EXPECT_EQ("a\\u009Bb\\u202Ec\xC3\xA9", page);
}

TEST(NvtraceHostileInputTest, CsvGuardsTextOpeningWithATabOrCarriageReturn)
{
    for (const std::string machine : {"\t=1+2", "\r=1+2", "=1+2", "@SUM(1)"}) {
        nvtrace::TraceRow row;
        row.file = "f.trc3";
        row.machine = machine;
        std::ostringstream out;
        nvtrace::RollupWriter(nvtrace::RollupFormat::Csv, out).Row(row);
        const std::string line = out.str();
        const std::size_t field = line.find(',') + 1;
        const std::size_t at = line[field] == '"' ? field + 1 : field;
        EXPECT_EQ('\'', line[at]) << line;
    }
}

TEST(NvtraceHostileInputTest, AFileLargerThanAnyTraceIsRefusedUnreadAndTheOthersStillCount)
{
    TempFolder folder;
    const SampleTrace sample = OneMovedUser();
    folder.Write("fleet/a.trc3", sample.bytes());
    // Sparse: no disk taken, and nothing of it may be read into memory.
    const std::string huge = folder.Write("fleet/huge.trc3", {});
    std::filesystem::resize_file(huge, nvtrace::kMaxTraceFileBytes + 1);
    const std::string tooLarge = "'" + huge + "' is too large for a trace: " +
                                 std::to_string(nvtrace::kMaxTraceFileBytes + 1) +
                                 " bytes (nvtrace reads files of up to 256 MiB)";

    const Result one = RunTool({huge});
    EXPECT_EQ(2, one.code);
    EXPECT_EQ("nvtrace: " + tooLarge + "\n", one.err);

    const Result fleet = RunTool({"--csv", folder.Path("fleet")});
    EXPECT_EQ(2, fleet.code);
    EXPECT_NE(std::string::npos, fleet.out.find("/a.trc3,BUILD01,3.0.1.0,2026-11-15 09:30:00.125,1,0,0,0,,,decoded,\n"))
        << fleet.out;
    EXPECT_NE(std::string::npos, fleet.out.find("/huge.trc3,,,,0,0,0,0,,,unreadable,")) << fleet.out;
    EXPECT_NE(std::string::npos, fleet.out.find("\"2 traces, 0 damaged, 1 unreadable\"")) << fleet.out;

    // At the limit it is read (and, being zeros, is no trace).
    std::filesystem::resize_file(huge, nvtrace::kMaxTraceFileBytes);
    std::vector<std::uint8_t> data;
    std::string error;
    EXPECT_TRUE(nvtrace::ReadWholeFile(huge, data, error)) << error;
    EXPECT_EQ(nvtrace::kMaxTraceFileBytes, data.size());
}

TEST(NvtraceHostileInputTest, OutputThatCannotBeWrittenExitsTwoWhateverTheMode)
{
    TempFolder folder;
    const SampleTrace sample = OneMovedUser();
    const std::string file = folder.Write("a.trc3", sample.bytes());
    const std::vector<std::vector<std::string>> commands = {
        {file}, {"--raw", file}, {"--summary", file}, {"--json", file}, {"--csv", file}, {"--summary", folder.path()},
        {"--html", "-", file}, {"--chrome-trace", "-", file},
    };
    for (const auto& args : commands) {
        std::ostream broken(nullptr); // every write fails, as on a full disk
        std::ostringstream err;
        EXPECT_EQ(2, nvtrace::RunCli(args, broken, err)) << args.front();
        EXPECT_EQ("nvtrace: cannot write to standard output: the output is incomplete\n", err.str()) << args.front();
    }
}

// A disk that fills up half way through: what was written is cut short, and the
// exit code says so.
class FullAfter : public std::streambuf {
public:
    explicit FullAfter(std::size_t room) : m_room(room) {}

private:
    int_type overflow(int_type c) override
    {
        if (m_room == 0 || traits_type::eq_int_type(c, traits_type::eof()))
            return traits_type::eof();
        --m_room;
        return c;
    }
    std::size_t m_room;
};

TEST(NvtraceHostileInputTest, OutputCutShortHalfWayExitsTwo)
{
    TempFolder folder;
    const SampleTrace sample = OneMovedUser();
    for (int i = 0; i < 20; ++i)
        folder.Write("t" + std::to_string(i) + ".trc3", sample.bytes());
    FullAfter disk(400);
    std::ostream out(&disk);
    std::ostringstream err;
    EXPECT_EQ(2, nvtrace::RunCli({"--csv", folder.path()}, out, err));
    EXPECT_EQ("nvtrace: cannot write to standard output: the output is incomplete\n", err.str());
    // With room enough, the same run is whole.
    FullAfter roomy(1 << 20);
    std::ostream whole(&roomy);
    std::ostringstream quiet;
    EXPECT_EQ(0, nvtrace::RunCli({"--csv", folder.path()}, whole, quiet)) << quiet.str();
}

// A page or an event file on standard output is all that goes there: the line that
// names the other output goes to standard error.
TEST(NvtraceHostileInputTest, ADocumentOnStandardOutputIsAllThatGoesThere)
{
    TempFolder folder;
    const SampleTrace sample = OneMovedUser();
    const std::string file = folder.Write("a.trc3", sample.bytes());
    const std::string events = folder.Path("events.json");
    const Result page = RunTool({"--html", "-", "--chrome-trace", events, file});
    EXPECT_EQ(0, page.code) << page.err;
    EXPECT_EQ(0u, page.out.find("<!DOCTYPE html>")) << page.out.substr(0, 200);
    EXPECT_EQ(std::string::npos, page.out.find("wrote ")) << page.out;
    EXPECT_EQ(0u, page.err.find("wrote " + events + ": trace events, ")) << page.err;
    const Result json = RunTool({"--chrome-trace", "-", "--html", folder.Path("page.html"), file});
    EXPECT_EQ(0, json.code) << json.err;
    EXPECT_EQ('}', json.out.at(json.out.find_last_not_of("\n"))) << json.out;
    EXPECT_EQ(0u, json.err.find("wrote " + folder.Path("page.html") + ": page, ")) << json.err;
}

TEST(NvtraceHostileInputTest, OutputsMayNotOverwriteATraceOrEachOtherOrShareStandardOutput)
{
    TempFolder folder;
    const SampleTrace sample = OneMovedUser();
    const std::string file = folder.Write("a.trc3", sample.bytes());
    const std::string page = folder.Path("page.html");
    const struct {
        std::vector<std::string> args;
        std::string message;
    } cases[] = {
        {{"--html", file, file}, "nvtrace: --html '" + file + "' would overwrite a trace it reads\n"},
        {{"--chrome-trace", folder.path() + "/./a.trc3", file},
         "nvtrace: --chrome-trace '" + folder.path() + "/./a.trc3' would overwrite a trace it reads\n"},
        {{"--html", page, "--chrome-trace", page, file}, "nvtrace: --html and --chrome-trace need two outputs\n"},
        {{"--html", "-", "--chrome-trace", "-", file}, "nvtrace: --html and --chrome-trace need two outputs\n"},
        {{"--html", page, "--html", folder.Path("b.html"), file}, "nvtrace: --html is given twice\n"},
        {{"--summary", "--html", "-", file},
         "nvtrace: an output on standard output (\"-\") goes alone: not with --raw, --summary, --json or --csv\n"},
    };
    for (const auto& c : cases) {
        const Result r = RunTool(c.args);
        EXPECT_EQ(1, r.code) << c.message;
        EXPECT_EQ(0u, r.err.find(c.message)) << r.err;
    }
    // The trace is as it was, and no page was written.
    std::vector<std::uint8_t> data;
    std::string error;
    ASSERT_TRUE(nvtrace::ReadWholeFile(file, data, error));
    EXPECT_EQ(sample.bytes(), data);
    EXPECT_FALSE(std::filesystem::exists(page));
    // Two outputs of their own are written.
    const Result ok = RunTool({"--html", page, "--chrome-trace", folder.Path("events.json"), file});
    EXPECT_EQ(0, ok.code) << ok.err;
    EXPECT_TRUE(std::filesystem::exists(page));
}

TEST(NvtraceHostileInputTest, ThreadFilterSaysWhatItLeftOutAndKeepsOneThreadInJson)
{
    SampleTrace sample;
    sample.Add(7, 't', "11/15/26").Add(7, 'T', "09:30:00.125").Add(7, '>', "CDBConverter::FinalConstruct").Add(7, '<');
    sample.Add(8, 'N', "11-15-2026").Add(8, 't', "11/15/26").Add(8, 'T', "09:31:00.000");
    sample.Add(8, '>', "CBaseConverter::Convert").Add(8, 'E', "-2147024891 ").Add(8, '<');
    sample.Add(9, '>', "CDBConverter::FinalConstruct").Add(9, '<');
    TempFolder folder;
    const std::string file = folder.Write("t.trc3", sample.bytes());

    const Result summary = RunTool({"--summary", "--thread", "9", file});
    EXPECT_EQ(0, summary.code);
    EXPECT_EQ(0u, summary.out.find("thread 9 only (--thread): the other threads' records are left out\n")) << summary.out;
    EXPECT_NE(std::string::npos, summary.out.find("no conversion and no failure in thread 9's records")) << summary.out;
    EXPECT_EQ(std::string::npos, summary.out.find("only loaded the library")) << summary.out;
    // Without the filter, process 2's failure is there.
    const Result whole = RunTool({"--summary", file});
    EXPECT_EQ(std::string::npos, whole.out.find("only thread")) << whole.out;
    EXPECT_NE(std::string::npos, whole.out.find("failing results: 1")) << whole.out;

    const Result json = RunTool({"--json", "--thread", "9", file});
    EXPECT_EQ(0, json.code);
    EXPECT_EQ(2u, Lines(json.out)) << json.out;
    EXPECT_EQ(std::string::npos, json.out.find("\"thread\":7")) << json.out;
    EXPECT_EQ(std::string::npos, json.out.find("\"thread\":8")) << json.out;
    // Its time and process are still read from the other threads' records.
    EXPECT_EQ(0u, json.out.find("{\"offset\":")) << json.out;
    EXPECT_NE(std::string::npos, json.out.find("\"process\":2,\"thread\":9,\"kind\":\">\",\"time\":\"11/15/26 09:31:00.000\""))
        << json.out;
    const Result raw = RunTool({"--raw", "--thread", "9", file});
    EXPECT_EQ(2u, Lines(raw.out)) << raw.out;
    // The page says it too.
    const std::string page = folder.Path("t.html");
    ASSERT_EQ(0, RunTool({"--html", page, "--thread", "9", file}).code);
    std::ifstream in(page, std::ios::binary);
    const std::string html((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(std::string::npos, html.find("<strong class=\"one-thread\">thread 9 only</strong>")) << html;
}

TEST(NvtraceHostileInputTest, DaysThatNoMonthHasAreCorrupt)
{
    const struct {
        char kind;
        const char* text;
        bool ok;
    } cases[] = {
        {'t', "02/28/27", true},  {'t', "02/29/27", false}, {'t', "02/29/28", true}, {'t', "02/30/28", false},
        {'t', "04/31/26", false}, {'t', "12/31/26", true},  {'N', "02-29-2000", true}, {'N', "02-29-2100", false},
        {'N', "02-30-0000", false}, {'N', "06-31-2026", false}, {'N', "07-31-2026", true},
    };
    for (const auto& c : cases) {
        SampleTrace sample;
        sample.Add(1, '>', "A");
        const std::size_t at = sample.size();
        sample.Add(1, c.kind, c.text);
        const nvtrace::DecodedTrace trace = nvtrace::Decode(sample.bytes());
        EXPECT_EQ(c.ok, trace.ok) << c.kind << ' ' << c.text << ": " << trace.error;
        if (!c.ok) {
            EXPECT_EQ("corrupt record at byte offset " + std::to_string(at) + ": the " +
                          (c.kind == 't' ? "date" : "reopen") + " record names a day its month does not have",
                      trace.error);
        }
    }
}

TEST(NvtraceHostileInputTest, ArgumentsAfterDoubleDashAreFiles)
{
    TempFolder folder;
    const SampleTrace sample = OneMovedUser();
    folder.Write("-x.trc3", sample.bytes());
    const std::string cwd = std::filesystem::current_path().string();
    std::filesystem::current_path(folder.path());
    const Result asOption = RunTool({"-x.trc3"});
    const Result asFile = RunTool({"--summary", "--", "-x.trc3"});
    std::filesystem::current_path(cwd);
    EXPECT_EQ(1, asOption.code);
    EXPECT_EQ(0u, asOption.err.find("nvtrace: unknown option '-x.trc3'")) << asOption.err;
    EXPECT_EQ(0, asFile.code) << asFile.err;
    EXPECT_EQ(0u, asFile.out.find("verdict: process 1")) << asFile.out;
}

// A folder of many other files (a user's downloads, say) costs the walk no memory: only
// the traces and the folders of a listing are kept for the sorted walk.
TEST(NvtraceHostileInputTest, AFoldersOtherFilesAreNotKeptWhileItIsRead)
{
    TempFolder folder;
    const SampleTrace sample = OneMovedUser();
    for (int i = 0; i < 3; ++i)
        folder.Write("fleet/t" + std::to_string(i) + ".trc3", sample.bytes());
    folder.Write("fleet/sub/t.TRC3", sample.bytes());
    for (int i = 0; i < 500; ++i)
        folder.Write("fleet/other" + std::to_string(i) + ".txt", {'x'});
    for (const unsigned jobs : {1u, 2u}) {
        nvtrace::RollupStats stats;
        std::ostringstream out, err;
        EXPECT_EQ(0, nvtrace::RunRollup({folder.Path("fleet")}, nvtrace::RollupFormat::Csv, out, err, jobs, &stats))
            << err.str();
        EXPECT_EQ(4u, stats.peakListed) << "jobs " << jobs; // three traces and the subfolder
        EXPECT_NE(std::string::npos, out.str().find("\"4 traces, 0 damaged, 0 unreadable\"")) << out.str();
    }
}

// A file within the size limit whose records need more memory than the process may
// have: that file is unreadable, the roll-up goes on and the other traces count. The
// built program runs with its address space limited, the big file holding nothing
// but 7-byte records (each a record view in memory).
TEST(NvtraceHostileInputTest, AFileThatRunsTheReaderOutOfMemoryIsThatFilesFailureOnly)
{
    TempFolder folder;
    folder.Write("fleet/ok.trc3", OneMovedUser().bytes());
    std::vector<std::uint8_t> big = nvtrace_test::HeaderBytes(nvtrace_test::StandardHeader());
    const std::vector<std::uint8_t> leave = nvtrace::EncodeRecord(1, '<', "");
    const std::size_t records = (std::size_t(120) << 20) / leave.size();
    big.reserve(big.size() + records * leave.size());
    for (std::size_t i = 0; i < records; ++i)
        big.insert(big.end(), leave.begin(), leave.end());
    const std::string bigFile = folder.Write("fleet/big.trc3", big);
    big = {};
    const std::string out = folder.Path("out.csv"), err = folder.Path("err.txt");
    const std::string command = "ulimit -v 700000; " + std::string(NVTRACE_EXE) + " --csv --jobs 1 " +
                                folder.Path("fleet") + " >" + out + " 2>" + err;
    const int status = std::system(command.c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(2, WEXITSTATUS(status));
    std::ifstream o(out), e(err);
    const std::string csv((std::istreambuf_iterator<char>(o)), std::istreambuf_iterator<char>());
    const std::string complaints((std::istreambuf_iterator<char>(e)), std::istreambuf_iterator<char>());
    EXPECT_NE(std::string::npos,
              csv.find(bigFile + ",,,,0,0,0,0,,,unreadable,not enough memory to decode '" + bigFile + "'\n"))
        << csv;
    EXPECT_NE(std::string::npos, csv.find("/ok.trc3,BUILD01,3.0.1.0,2026-11-15 09:30:00.125,1,0,0,0,,,decoded,\n"))
        << csv;
    EXPECT_EQ("nvtrace: not enough memory to decode '" + bigFile + "'\n", complaints);
}
