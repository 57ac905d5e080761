// nvdbconv's trace settings, run as processes under Wine: a trace asked for with
// `trace on` keeps what every process that loads the library wrote (upgrade's
// steps, then status), `--new-file` starts the file anew in every process as the
// format's default does, the host warns exactly when the settings in force would
// start the file anew, and upgrade keeps its steps together under such settings and
// puts them back as they were.
#include <windows.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "nvdbconv/result_codes.h"
#include "nvstore_inspect.h"
#include "nvtracelib.h"
#include "support/dll_loader.h"
#include "support/json_reader.h"
#include "support/key_containers.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "support/store_sandbox.h"
#include "support/text_util.h"
#include "support/tool_runs.h"
#include "support/sample_databases.h"
#include "writer/db20_writer.h"
#include "writer/legacy_writer.h"

using namespace nvtest;

namespace {

constexpr const wchar_t kTracing[] = L"SOFTWARE\\Norvane\\Tracing";

ProcessRun Nvdbconv(const std::wstring& args) { return WithPlainLineEnds(RunTool(L"nvdbconv.exe", args)); }

std::wstring TraceFile() { return TempTraceFile(L"nvdbconv-keep-"); }

// The records of each process that wrote the file, in order, as canonical lines
// without the timestamps: a process begins with the file or with its 'N' record.
std::vector<std::vector<std::string>> Processes(const std::wstring& file)
{
    std::vector<std::uint8_t> bytes;
    std::string error;
    EXPECT_TRUE(nvtrace::ReadWholeFile(Narrow(file), bytes, error)) << error;
    const nvtrace::DecodedTrace decoded = nvtrace::Decode(bytes);
    EXPECT_TRUE(decoded.ok) << decoded.error;
    std::vector<std::vector<std::string>> processes(1);
    for (const nvtrace::Record& r : decoded.records) {
        if (r.kind == 'N')
            processes.emplace_back();
        else if (r.kind != 't' && r.kind != 'T')
            processes.back().push_back(nvtrace::CanonicalLine(r));
    }
    return processes;
}

std::string Listing(const std::vector<std::vector<std::string>>& processes)
{
    std::string text;
    for (size_t i = 0; i < processes.size(); ++i) {
        text += "process " + std::to_string(i + 1) + ":\n";
        for (const std::string& line : processes[i])
            text += "  " + line + "\n";
    }
    return text;
}

// A 1.0 database whose users the 2.0 -> 3.0 step can move (its machine container
// tracked, so that it goes again).
void Write10(ContainerJanitor& containers)
{
    ASSERT_EQ(S_OK, Write10With20Records(containers, 2, 2));
}

// The host's warning on standard error when the settings start the file anew.
std::string TruncationWarning(const std::wstring& file, const std::string& value)
{
    return "nvdbconv: warning: the trace settings (" + value + ") start " + Narrow(file) +
           " anew in every process that loads the library: each command replaces the trace of the one before; "
           "\"nvdbconv trace on\" without --new-file appends\n";
}

// What the library writes when loaded for a step: its version, its converter.
std::vector<std::string> LoadLines(const char* version, const char* code, const char* converter)
{
    return {"> CNVComModule::Init",
            "<",
            "> CDBConverter::FinalConstruct",
            std::string("U wszVersion = ") + version,
            std::string("U m_dwVersion = ") + code,
            "> CBaseConverter::CreateConverter",
            std::string("U Using ") + converter};
}

// All that `status` makes the library write: the load, nothing else.
const std::vector<std::string> kStatusLines = {
    "> CNVComModule::Init",    "<", "> CDBConverter::FinalConstruct",  "U wszVersion = 2.1", "U m_dwVersion = 0x20001",
    "> CBaseConverter::CreateConverter", "U Using CConverter3", "> CBaseConverter::CBaseConverter", "<", "<", "<"};

size_t Count(const std::vector<std::string>& lines, const std::string& line)
{
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

size_t CountStarting(const std::vector<std::string>& lines, const std::string& start)
{
    return static_cast<size_t>(
        std::count_if(lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(start, 0) == 0; }));
}

std::vector<std::string> Head(const std::vector<std::string>& lines, size_t n)
{
    return std::vector<std::string>(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(std::min(n, lines.size())));
}

// The step 1.0 -> 2.0 (process `first`) and the step 2.0 -> 3.0 (the next): each
// the library's own load for its version, one Convert, its own converter's scope
// and no other's; the second moves both users.
void ExpectTheTwoSteps(const std::vector<std::vector<std::string>>& processes, size_t first)
{
    ASSERT_GT(processes.size(), first + 1) << Listing(processes);
    const std::vector<std::string>& step1 = processes[first];
    EXPECT_EQ(LoadLines("1.0", "0x10000", "CConverter2"), Head(step1, 7)) << Listing(processes);
    EXPECT_EQ(1u, Count(step1, "> CBaseConverter::Convert"));
    EXPECT_EQ(1u, Count(step1, "> CConverter2::do_Convert"));
    EXPECT_EQ(0u, Count(step1, "> CConverter3::do_Convert"));
    EXPECT_EQ(0u, CountStarting(step1, "U Conversion process is over for '"));
    const std::vector<std::string>& step2 = processes[first + 1];
    EXPECT_EQ(LoadLines("2.0", "0x20000", "CConverter3"), Head(step2, 7)) << Listing(processes);
    EXPECT_EQ(1u, Count(step2, "> CBaseConverter::Convert"));
    EXPECT_EQ(1u, Count(step2, "> CConverter3::do_Convert"));
    EXPECT_EQ(0u, Count(step2, "> CConverter2::do_Convert"));
    EXPECT_EQ(2u, CountStarting(step2, "U Conversion process began for '"));
    EXPECT_EQ(2u, CountStarting(step2, "U Conversion process is over for '"));
}

void ExpectDword(const wchar_t* name, REGSAM view, DWORD expected, int line)
{
    RegValue value;
    ASSERT_TRUE(GetValue(kTracing, name, view, &value)) << Narrow(name) << " missing (line " << line << ")";
    EXPECT_EQ(static_cast<DWORD>(REG_DWORD), value.type) << "line " << line;
    ASSERT_EQ(sizeof(DWORD), value.data.size()) << "line " << line;
    DWORD data = 0;
    std::memcpy(&data, value.data.data(), sizeof(data));
    EXPECT_EQ(expected, data) << Narrow(name) << " (line " << line << ")";
}

} // namespace

class NvdbconvTraceTest : public StoreSandbox {
protected:
    void SetUp() override
    {
        StoreSandbox::SetUp();
        ::DeleteFileW(TraceFile().c_str());
    }
    void TearDown() override
    {
        ::DeleteFileW(TraceFile().c_str());
        StoreSandbox::TearDown();
    }
};

// The support engineer's sequence: trace on with a file, upgrade a 1.0 database to
// 3.0 (one child process per step), status. Every process appends, so the file
// holds both steps and the status after them.
TEST_F(NvdbconvTraceTest, TraceOnWithAFileKeepsEveryUpgradeStepAndTheStatusAfterThem)
{
    ContainerJanitor containers;
    Write10(containers);
    const std::wstring file = TraceFile();

    ProcessRun run = ExitedWith(0, Nvdbconv(L"trace on --file " + QuoteArg(file)));
    EXPECT_EQ("", run.err);
    EXPECT_TRUE(Contains(run.out, "  trace           on, verbosity 0, appending\n")) << run.out;
    ExpectDword(L"DoTrace", kView64, 1, __LINE__);
    ExpectDword(L"TraceToFile", kView64, 1, __LINE__);
    ExpectDword(L"NewFileAlways", kView64, 0, __LINE__);
    std::wstring fileName;
    ASSERT_TRUE(GetString(kTracing, L"FileName", kView64, &fileName));
    EXPECT_EQ(file, fileName);
    EXPECT_EQ((std::vector<std::wstring>{L"DoTrace", L"FileName", L"NewFileAlways", L"TraceToFile"}),
              [] {
                  std::vector<std::wstring> names = ValueNames(kTracing, kView64);
                  std::sort(names.begin(), names.end());
                  return names;
              }());
    EXPECT_FALSE(KeyExists(kTracing, kView32));

    run = ExitedWith(0, Nvdbconv(L"upgrade"));
    EXPECT_EQ("", run.err);
    EXPECT_TRUE(Contains(run.out, "  upgrade         1.0 -> 2.0 -> 3.0 done, 2 of 2 users in the store\n")) << run.out;
    EXPECT_FALSE(Contains(run.out, "NewFileAlways")) << "the settings already append: left alone\n" << run.out;
    run = ExitedWith(0, Nvdbconv(L"status"));
    EXPECT_EQ("", run.err);
    ExpectDword(L"NewFileAlways", kView64, 0, __LINE__);

    const std::vector<std::vector<std::string>> processes = Processes(file);
    ASSERT_EQ(3u, processes.size()) << Listing(processes);
    ExpectTheTwoSteps(processes, 0);
    EXPECT_EQ(kStatusLines, processes[2]);
}

// --new-file keeps the format's default: every process that loads the library
// starts the file anew, here `version` and then `status`, whose trace alone is left.
// The host says so when the settings are written and whenever it loads the library.
TEST_F(NvdbconvTraceTest, NewFileStartsTheFileAnewInEveryProcessAndIsWarnedAbout)
{
    ContainerJanitor containers;
    Write10(containers);
    ASSERT_EQ(0u, ExitedWith(0, Nvdbconv(L"upgrade")).exitCode); // says why when it is not
    const std::wstring file = TraceFile();

    ProcessRun run = ExitedWith(0, Nvdbconv(L"trace on --new-file --file " + QuoteArg(file)));
    EXPECT_EQ(TruncationWarning(file, "NewFileAlways = 1"), run.err);
    EXPECT_TRUE(Contains(run.out, "  trace           on, verbosity 0, a new file per process\n")) << run.out;
    ExpectDword(L"NewFileAlways", kView64, 1, __LINE__);

    run = ExitedWith(0, Nvdbconv(L"version"));
    ASSERT_EQ(1u, Processes(file).size());
    run = ExitedWith(0, Nvdbconv(L"status"));
    EXPECT_EQ(TruncationWarning(file, "NewFileAlways = 1"), run.err);
    const std::vector<std::vector<std::string>> processes = Processes(file);
    ASSERT_EQ(1u, processes.size()) << Listing(processes);
    EXPECT_EQ(kStatusLines, processes[0]);
    ExpectDword(L"NewFileAlways", kView64, 1, __LINE__);
}

// The warning is printed exactly when the next load would start a file anew: a file
// is due (tracing on, to a file, the library not switched off) and NewFileAlways is
// anything but a DWORD of 0. `trace show` changes nothing and loads nothing.
TEST_F(NvdbconvTraceTest, TheWarningIsGivenExactlyWhenTheNextLoadStartsTheFileAnew)
{
    ContainerJanitor containers;
    Write10(containers);
    const std::wstring file = TraceFile();
    const auto show = [&](const std::string& expectedErr, bool truncates, int line) {
        ProcessRun run = Nvdbconv(L"trace show");
        EXPECT_EQ(0u, run.exitCode) << "line " << line << "\n" << run.out << run.err;
        EXPECT_EQ(expectedErr, run.err) << "line " << line;
        run = Nvdbconv(L"--json trace show");
        EXPECT_EQ(0u, run.exitCode) << "line " << line;
        EXPECT_EQ(expectedErr, run.err) << "line " << line;
        const JsonValue doc = Json(run);
        EXPECT_TRUE(doc["trace"]["truncates"].IsBool()) << "line " << line;
        EXPECT_EQ(truncates, doc["trace"]["truncates"].Bool()) << "line " << line;
        EXPECT_TRUE(doc["write"].IsMissing()) << "line " << line;
    };

    show("", false, __LINE__);
    EXPECT_FALSE(KeyExists(kTracing, kView64)) << "trace show writes nothing";

    ASSERT_EQ("", Nvdbconv(L"trace on --file " + QuoteArg(file)).err);
    show("", false, __LINE__);
    EXPECT_EQ("", Nvdbconv(L"status").err);

    // The format's default, as an older host or a hand-made key leaves it.
    DeleteValue(kTracing, L"NewFileAlways", kView64);
    show(TruncationWarning(file, "no NewFileAlways DWORD"), true, __LINE__);
    EXPECT_EQ(TruncationWarning(file, "no NewFileAlways DWORD"), Nvdbconv(L"status").err);
    SetString(kTracing, L"NewFileAlways", L"0", kView64);
    show(TruncationWarning(file, "no NewFileAlways DWORD"), true, __LINE__);
    SetDword(kTracing, L"NewFileAlways", 2, kView64);
    show(TruncationWarning(file, "NewFileAlways = 2"), true, __LINE__);

    // No file is written at all: no warning.
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\ComponentsNOT", L"NVDBConv", 1, kView64);
    show("", false, __LINE__);
    EXPECT_EQ("", Nvdbconv(L"status").err);
    ASSERT_TRUE(DeleteTree(L"SOFTWARE\\Norvane\\Tracing\\ComponentsNOT", kView64));
    SetDword(kTracing, L"TraceToFile", 0, kView64);
    show("", false, __LINE__);
    SetDword(kTracing, L"TraceToFile", 1, kView64);
    show(TruncationWarning(file, "NewFileAlways = 2"), true, __LINE__);
    EXPECT_EQ("", Nvdbconv(L"trace off").err);
    show("", false, __LINE__);

    // trace on without --new-file appends again, whatever was there.
    EXPECT_EQ("", Nvdbconv(L"trace on").err);
    ExpectDword(L"NewFileAlways", kView64, 0, __LINE__);
    show("", false, __LINE__);
}

// Settings that start the file anew (the format's default: no NewFileAlways) would
// leave only the last step's trace. upgrade lets the first step start the file, has
// the later ones append (NewFileAlways = 0 while they run) and then puts the value
// back as it was, here by deleting it again; the document says what it did.
TEST_F(NvdbconvTraceTest, UpgradeUnderTheDefaultKeepsEveryStepAndRemovesTheValueAgain)
{
    ContainerJanitor containers;
    Write10(containers);
    const std::wstring file = TraceFile();
    SetDword(kTracing, L"DoTrace", 1, kView64);
    SetString(kTracing, L"FileName", file, kView64);
    ASSERT_EQ(0u, Nvdbconv(L"version").exitCode);
    ASSERT_EQ(1u, Processes(file).size()) << "an earlier process's trace";
    const RegTree before64 = Snapshot(kTracing, kView64), before32 = Snapshot(kTracing, kView32);

    const ProcessRun run = ExitedWith(0, Nvdbconv(L"--json upgrade"));
    EXPECT_EQ("", run.err);
    const JsonValue doc = Json(run);
    EXPECT_EQ("1.0 -> 2.0 -> 3.0 done, 2 of 2 users in the store", doc["summary"].Text());
    const JsonValue& append = doc["traceAppend"];
    ASSERT_TRUE(append.IsObject()) << run.out;
    EXPECT_EQ(4u, append.Size());
    EXPECT_EQ(Narrow(file), append["file"].Text());
    EXPECT_EQ("absent", append["before"].Text());
    EXPECT_EQ("0x00000000", append["set"]["hr"].Text());
    EXPECT_EQ("0x00000000", append["restore"]["hr"].Text());
    EXPECT_EQ(2u, doc["steps"].Size());

    const RegTree after64 = Snapshot(kTracing, kView64), after32 = Snapshot(kTracing, kView32);
    EXPECT_TRUE(before64 == after64) << DiffTrees(before64, after64);
    EXPECT_TRUE(before32 == after32) << DiffTrees(before32, after32);
    const std::vector<std::vector<std::string>> processes = Processes(file);
    ASSERT_EQ(2u, processes.size()) << Listing(processes);
    ExpectTheTwoSteps(processes, 0);
}

// The same with the settings in the 32-bit view only and NewFileAlways = 1: the
// value is changed and put back in that view (a key made in the native view would
// hide the settings from the library), and the text output says both.
TEST_F(NvdbconvTraceTest, UpgradeWithNewFileInThe32BitViewKeepsEveryStepAndPutsTheValueBack)
{
    ContainerJanitor containers;
    Write10(containers);
    const std::wstring file = TraceFile();
    SetDword(kTracing, L"DoTrace", 1, kView32);
    SetDword(kTracing, L"NewFileAlways", 1, kView32);
    SetString(kTracing, L"FileName", file, kView32);
    ASSERT_FALSE(KeyExists(kTracing, kView64));
    const RegTree before32 = Snapshot(kTracing, kView32);

    const ProcessRun run = ExitedWith(0, Nvdbconv(L"upgrade"));
    EXPECT_EQ("", run.err);
    const std::string ok = kSucceeded;
    EXPECT_TRUE(Contains(run.out, "  step 1: 1.0 -> 2.0, Convert " + ok + ", exit 0\n"
                                  "  trace: the steps after the first append to " + Narrow(file) +
                                  " (NewFileAlways = 0 for them; it was 1): " + ok + "\n"
                                  "  step 2: 2.0 -> 3.0, Convert " + ok + ", exit 0\n"))
        << run.out;
    EXPECT_TRUE(Contains(run.out, "  trace           NewFileAlways back to 1, as before the upgrade: " + ok + "\n"))
        << run.out;

    EXPECT_FALSE(KeyExists(kTracing, kView64));
    const RegTree after32 = Snapshot(kTracing, kView32);
    EXPECT_TRUE(before32 == after32) << DiffTrees(before32, after32);
    ExpectDword(L"NewFileAlways", kView32, 1, __LINE__);
    const std::vector<std::vector<std::string>> processes = Processes(file);
    ASSERT_EQ(2u, processes.size()) << Listing(processes);
    ExpectTheTwoSteps(processes, 0);
}
