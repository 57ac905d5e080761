// Bad input to the command line tools: nvdbconv, nvdbgen, nvstorectl and nvtrace are
// started as their own processes with malformed arguments and files, hand-picked and
// drawn at random from a vocabulary of each tool's own words and hostile ones. Every
// run must end with one of the tool's documented exit codes, never a crash or a
// hang, and every failing run must say why on standard error.
#include <windows.h>
#include <gtest/gtest.h>
#include <cstdio>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "support/dll_loader.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"

using namespace nvtest;

namespace {

using Args = std::vector<std::wstring>;

struct Tool {
    const wchar_t* exe;
    std::set<DWORD> exitCodes; // as its README documents them
};

const Tool kNvdbconv{L"nvdbconv.exe", {0, 1, 2, 3}};
const Tool kNvdbgen{L"nvdbgen.exe", {0, 1, 2}};
const Tool kNvstorectl{L"nvstorectl.exe", {0, 1, 2}};
const Tool kNvtrace{L"nvtrace.exe", {0, 1, 2, 3}};

// A temporary folder with the files the tests hand to the tools.
class ToolInputTest : public RegistrySandbox {
protected:
    void SetUp() override
    {
        RegistrySandbox::SetUp();
        wchar_t tmp[MAX_PATH];
        ::GetTempPathW(MAX_PATH, tmp);
        m_dir = std::wstring(tmp) + L"nv_tool_input_" + std::to_wstring(::GetCurrentProcessId()) + L"\\";
        ::CreateDirectoryW(m_dir.c_str(), nullptr);
    }
    void TearDown() override
    {
        for (const std::wstring& f : m_files)
            ::DeleteFileW(f.c_str());
        ::RemoveDirectoryW(m_dir.c_str());
        RegistrySandbox::TearDown();
    }

    std::wstring File(const std::wstring& name, const std::string& bytes)
    {
        const std::wstring path = m_dir + name;
        FILE* f = _wfopen(path.c_str(), L"wb");
        EXPECT_NE(f, nullptr);
        if (f) {
            std::fwrite(bytes.data(), 1, bytes.size(), f);
            std::fclose(f);
        }
        m_files.push_back(path);
        return path;
    }

    // Runs the tool and checks the outcome; returns the run for further checks.
    ProcessRun Check(const Tool& tool, const Args& args)
    {
        std::wstring cmd = QuoteArg(ExeDirectory() + tool.exe);
        std::string shown = Narrow(tool.exe);
        for (const std::wstring& a : args) {
            cmd += L" " + QuoteArg(a);
            shown += " [" + Narrow(a.size() > 60 ? a.substr(0, 60) + L"..." : a) + "]";
        }
        ProcessRun run = RunProcess(cmd, 60000);
        EXPECT_TRUE(run.started) << shown;
        EXPECT_FALSE(run.timedOut) << shown;
        EXPECT_LT(run.exitCode, 0xC0000000u) << shown << ": crashed with 0x" << std::hex << run.exitCode;
        EXPECT_TRUE(tool.exitCodes.count(run.exitCode)) << shown << ": undocumented exit code " << run.exitCode
                                                        << "\nstderr: " << run.err;
        if (run.exitCode != 0) {
            EXPECT_FALSE(run.err.empty()) << shown << ": failed (" << run.exitCode << ") without a word on stderr";
        }
        for (const char* sign : {"terminate called", "Unhandled exception", "wine: ", "Assertion", "abort"})
            EXPECT_EQ(run.err.find(sign), std::string::npos) << shown << ": " << run.err;
        return run;
    }

    std::wstring m_dir;
    std::vector<std::wstring> m_files;
};

std::wstring Long(std::size_t n, wchar_t c = L'A') { return std::wstring(n, c); }

// Words each tool knows, and words no tool should choke on.
const Args kHostile = {L"", L"-", L"--", L"---", L"-x", L"--help=1", L"%s%s%s%n", L"\x00e9\x4e2d\xd83d\xde00",
                       L"-1", L"0", L"4294967296", L"18446744073709551616", L"0x", L"1e9", L"nan", L" ", L"\t",
                       L"C:\\nonexistent\\x", L"\\\\?\\C:\\", L"NUL", L"CON", L"*", L"?", Long(300), Long(5000, L'9')};

// How many random argument lists each tool gets: the count given, times
// NV_TOOL_INPUT_SCALE when that is set (scripts/fuzz --full runs a long campaign so).
int Draws(int n)
{
    wchar_t scale[16] = {};
    const DWORD got = ::GetEnvironmentVariableW(L"NV_TOOL_INPUT_SCALE", scale, 16);
    const long k = got > 0 && got < 16 ? std::wcstol(scale, nullptr, 10) : 1;
    return n * static_cast<int>(k > 0 && k <= 10000 ? k : 1);
}

Args Random(std::mt19937& rng, const Args& words)
{
    Args all = words;
    all.insert(all.end(), kHostile.begin(), kHostile.end());
    Args out;
    for (std::size_t n = rng() % 6; n; --n)
        out.push_back(all[rng() % all.size()]);
    return out;
}

} // namespace

TEST_F(ToolInputTest, NvdbconvRefusesMalformedArgumentsWithUsageErrors)
{
    for (const Args& args : std::vector<Args>{
             {}, {L"frobnicate"}, {L"--json"}, {L"--dll"}, {L"--quiet", L"--quiet"}, {L"status", L"extra"},
             {L"convert", L"--progress"}, {L"convert", L"--progress", L"sometimes"}, {L"rollback", L"--forced"},
             {L"trace"}, {L"trace", L"maybe"}, {L"trace", L"on", L"--verbosity"}, {L"trace", L"on", L"--verbosity", L"x"},
             {L"trace", L"on", L"--verbosity", L"99999999999999999999"}, {L"trace", L"on", L"--append", L"--new-file"},
             {L"--" + Long(4000)}, {Long(40000)}}) {
        const ProcessRun run = Check(kNvdbconv, args);
        EXPECT_EQ(run.exitCode, 2u) << Narrow(args.empty() ? L"(none)" : args[0]) << "\n" << run.err;
    }
}

TEST_F(ToolInputTest, NvdbconvGivenALibraryThatIsNoLibraryFailsWithExitOne)
{
    const std::wstring text = File(L"text.dll", "this is not a library\r\n");
    const std::wstring empty = File(L"empty.dll", "");
    std::string mz(4096, '\0');
    mz[0] = 'M';
    mz[1] = 'Z';
    mz[0x3C] = 0x40; // e_lfanew to a header that is all zeros
    const std::wstring truncatedPe = File(L"truncated.dll", mz);
    for (const std::wstring& dll : {text, empty, truncatedPe, m_dir, m_dir + L"missing.dll", Long(400, L'x') + L".dll"}) {
        for (const wchar_t* command : {L"status", L"convert", L"version", L"rollback"}) {
            const ProcessRun run = Check(kNvdbconv, {L"--dll", dll, command});
            EXPECT_EQ(run.exitCode, 1u) << Narrow(dll) << " " << Narrow(command) << "\n" << run.err;
        }
    }
}

TEST_F(ToolInputTest, NvdbconvSurvivesRandomArguments)
{
    std::mt19937 rng(14);
    const Args words = {L"status", L"convert", L"rollback", L"cleanup", L"trace", L"store", L"version", L"on",
                        L"off", L"--json", L"--quiet", L"--dll", L"--progress", L"never", L"always", L"--force",
                        L"--verbosity", L"10", L"--file", L"--append", L"--new-file", L"register", L"unregister"};
    for (int i = 0; i < Draws(40); ++i)
        Check(kNvdbconv, Random(rng, words));
}

TEST_F(ToolInputTest, NvdbgenRefusesMalformedArgumentsWithUsageErrors)
{
    for (const Args& args : std::vector<Args>{
             {}, {L"--format"}, {L"--format", L"3.0"}, {L"--format", L"1.0", L"--users", L"-1"},
             {L"--format", L"1.0", L"--users", L"1000001"}, {L"--format", L"1.0", L"--users", L"12abc"},
             {L"--format", L"1.0", L"--users", L""}, {L"--format", L"2.0", L"--users20", L"1"},
             {L"--format", L"1.0", L"--seed", L"18446744073709551616"}, {L"--format", L"1.0", L"--view", L"16"},
             {L"--format", L"1.0", L"--domains", L"99999999999"}, {L"--bogus"}, {Long(40000)}}) {
        const ProcessRun run = Check(kNvdbgen, args);
        EXPECT_EQ(run.exitCode, 2u) << (args.empty() ? "(none)" : Narrow(args.back())) << "\n" << run.err;
    }
}

TEST_F(ToolInputTest, NvdbgenSurvivesRandomArguments)
{
    std::mt19937 rng(1014);
    // Small sizes only: a valid draw writes a real database.
    const Args words = {L"--format", L"1.0", L"2.0", L"--users", L"1", L"2", L"--domains", L"0", L"--users20",
                        L"--seed", L"7", L"--view", L"32", L"64", L"--wipe", L"--help"};
    for (int i = 0; i < Draws(25); ++i)
        Check(kNvdbgen, Random(rng, words));
}

TEST_F(ToolInputTest, NvstorectlRefusesMalformedArgumentsAndBadHex)
{
    const std::wstring sid = L"S-1-5-21-1-2-3-1001";
    for (const Args& args : std::vector<Args>{{}, {L"list", L"extra"}, {L"show"}, {L"bogus"}, {L"put-secret", sid}}) {
        const ProcessRun run = Check(kNvstorectl, args);
        EXPECT_EQ(run.exitCode, 1u) << "\n" << run.err;
    }
    for (const std::wstring& hex : {std::wstring(L"abc"), std::wstring(L"zz"), std::wstring(L"0x00"), Long(9, L'f')}) {
        const ProcessRun run = Check(kNvstorectl, {L"put-payload", sid, hex});
        EXPECT_EQ(run.exitCode, 1u) << Narrow(hex) << "\n" << run.err;
    }
}

TEST_F(ToolInputTest, NvstorectlSurvivesRandomArguments)
{
    std::mt19937 rng(2014);
    const Args words = {L"list", L"show", L"put-secret", L"put-template", L"put-payload", L"enroll", L"authenticate",
                        L"register", L"delete", L"S-1-5-21-1-2-3-1001", L"S-1-", L"00ff", L"31", L"32", L"pw"};
    for (int i = 0; i < Draws(30); ++i)
        Check(kNvstorectl, Random(rng, words));
}

TEST_F(ToolInputTest, NvtraceRefusesMalformedArgumentsWithExitOne)
{
    const std::wstring file = File(L"a.trc3", "trace3\r\n.\r\n");
    for (const Args& args : std::vector<Args>{{}, {L"--raw"}, {L"--thread"}, {L"--thread", L"x", file},
                                              {L"--thread", L"0x1FFFFFFFF", file}, {L"--bogus", file}, {file, file}}) {
        const ProcessRun run = Check(kNvtrace, args);
        EXPECT_EQ(run.exitCode, 1u) << "\n" << run.err;
    }
}

TEST_F(ToolInputTest, NvtraceGivenFilesThatAreNoTracesSaysWhereTheDamageIs)
{
    std::mt19937 rng(3014);
    std::string noise(5000, '\0');
    for (char& c : noise)
        c = static_cast<char>(rng());
    const std::string header = "trace3\r\nMachine name: X\r\n.\r\n";
    std::string headRecord = header;
    headRecord += std::string("\x01\x00\x00\x00>\x05\x00", 7); // text cut off
    const std::vector<std::pair<std::wstring, std::string>> files = {
        {L"noise.trc3", noise},
        {L"empty.trc3", ""},
        {L"header-cut.trc3", "trace3\r\nMachine"},
        {L"no-end.trc3", "trace3\r\n" + std::string(9000, 'x')},
        {L"record-cut.trc3", headRecord},
        {L"bad-kind.trc3", header + std::string("\x01\x00\x00\x00Z\x00\x00", 7)},
        {L"too-long.trc3", header + std::string("\x01\x00\x00\x00U\xFF\xFF", 7) + noise},
        {L"header-noise.trc3", header + noise},
    };
    for (const auto& [name, bytes] : files) {
        const ProcessRun run = Check(kNvtrace, {File(name, bytes)});
        EXPECT_EQ(run.exitCode, 3u) << Narrow(name) << "\n" << run.err;
        EXPECT_NE(run.err.find("byte offset"), std::string::npos) << Narrow(name) << "\n" << run.err;
    }
    for (const std::wstring& path : {m_dir + L"missing.trc3", std::wstring(L"C:\\nonexistent\\x.trc3")}) {
        const ProcessRun run = Check(kNvtrace, {path});
        EXPECT_EQ(run.exitCode, 2u) << Narrow(path) << "\n" << run.err;
    }
    // Devices and folders open but are no traces; the console device would be read
    // for ever (found by a long random campaign).
    for (const std::wstring& path : {std::wstring(L"CON"), std::wstring(L"NUL"), m_dir}) {
        const ProcessRun run = Check(kNvtrace, {path});
        EXPECT_EQ(run.exitCode, 2u) << Narrow(path) << "\n" << run.err;
        EXPECT_NE(run.err.find("is not a file"), std::string::npos) << Narrow(path) << "\n" << run.err;
    }
}

TEST_F(ToolInputTest, NvtraceSurvivesRandomArgumentsAndFiles)
{
    std::mt19937 rng(4014);
    Args words = {L"--raw", L"--thread", L"1", L"0x10", L"--help"};
    for (int i = 0; i < 5; ++i) {
        std::string bytes = "trace3\r\n.\r\n";
        for (std::size_t n = rng() % 400; n; --n)
            bytes += static_cast<char>(rng());
        words.push_back(File(L"random" + std::to_wstring(i) + L".trc3", bytes));
    }
    for (int i = 0; i < Draws(30); ++i)
        Check(kNvtrace, Random(rng, words));
}
