// The hooks reach the calls the library makes to crypt32 and netapi32, which it does
// not import but looks up at run time: a clean 2.0 -> 3.0 conversion under nvfaults
// counts them, and failing one of them fails that very call. With every allocation
// failing for good the library still answers; and a sweep never scores a child that
// ended without its answer as passed.
#include <windows.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "fault_child_test.h"
#include "fault_hooks.h"
#include "fault_world.h"
#include "nvstore_inspect.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "support/store_sandbox.h"
#include "support/dll_loader.h"
#include "writer/db20_writer.h"

using namespace nvtest;
namespace inspect = nvstore::inspect;

namespace {


std::string ResultOf(const std::wstring& file)
{
    FILE* f = _wfopen(file.c_str(), L"rb");
    if (!f)
        return "";
    char line[256] = {};
    const bool got = std::fgets(line, sizeof(line), f) != nullptr;
    std::fclose(f);
    std::string text = got ? line : "";
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    return text;
}

class FaultHooksTest : public nvfaults::FaultChildTest {
protected:
    FaultHooksTest() : FaultChildTest(L"run-time") {}
};

} // namespace

TEST_F(FaultHooksTest, ConversionCountsTheCrypt32AndNetapi32CallsTheLibraryLooksUp)
{
    ASSERT_NO_FATAL_FAILURE(WriteFreshDatabase());
    const ProcessRun count = Child(L"--mode count");
    ASSERT_EQ(0u, count.exitCode) << count.err;
    EXPECT_EQ("result 0x00000000", ResultOf(m_calls));
    // The same functions that were counted while the library imported them.
    std::set<std::string> seen;
    for (const nvfaults::CallRecord& c : nvfaults::ReadCallRecords(m_calls))
        if (c.function.rfind("crypt32.dll!", 0) == 0 || c.function.rfind("netapi32.dll!", 0) == 0)
            seen.insert(c.function);
    EXPECT_EQ((std::set<std::string>{"crypt32.dll!CryptDecodeObject", "crypt32.dll!CryptEncodeObject",
                                     "netapi32.dll!NetServerGetInfo"}),
              seen);
}

TEST_F(FaultHooksTest, FailingALookedUpCrypt32CallFailsThatCall)
{
    ASSERT_NO_FATAL_FAILURE(WriteFreshDatabase());
    const ProcessRun count = Child(L"--mode count");
    ASSERT_EQ(0u, count.exitCode) << count.err;
    std::uint64_t firstDecode = 0;
    for (const nvfaults::CallRecord& c : nvfaults::ReadCallRecords(m_calls))
        if (!firstDecode && c.function == "crypt32.dll!CryptDecodeObject")
            firstDecode = c.number;
    ASSERT_NE(0u, firstDecode);

    ASSERT_NO_FATAL_FAILURE(WriteFreshDatabase());
    const ProcessRun failed = Child(L"--mode once --n " + std::to_wstring(firstDecode));
    ASSERT_EQ(0u, failed.exitCode) << failed.err;
    const std::vector<nvfaults::CallRecord> records = nvfaults::ReadCallRecords(m_calls);
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(firstDecode, records[0].number);
    EXPECT_EQ("crypt32.dll!CryptDecodeObject", records[0].function);
    EXPECT_FALSE(records[0].frames.empty());
}

// Every allocation fails from a call in the middle of the conversion on. The throw
// of std::bad_alloc needs memory itself; without the library's reserve for exception
// objects the run-time recursed until the stack overflowed and the process ended
// without an answer. Now Convert answers with a failure, and the child writes it.
TEST_F(FaultHooksTest, WithMemoryGoneForGoodConvertStillAnswersWithAFailure)
{
    ASSERT_NO_FATAL_FAILURE(WriteFreshDatabase());
    const ProcessRun count = Child(L"--mode count");
    ASSERT_EQ(0u, count.exitCode) << count.err;
    const std::vector<nvfaults::CallRecord> calls = nvfaults::ReadCallRecords(m_calls);
    ASSERT_GT(calls.size(), 100u);
    // Allocations at a quarter, half and three quarters of the way.
    std::vector<std::uint64_t> starts;
    for (size_t part : {calls.size() / 4, calls.size() / 2, calls.size() * 3 / 4}) {
        size_t i = part;
        while (i < calls.size() && !calls[i].allocation)
            ++i;
        ASSERT_LT(i, calls.size());
        starts.push_back(calls[i].number);
    }
    for (std::uint64_t n : starts) {
        SCOPED_TRACE("oom-from " + std::to_string(n));
        ASSERT_NO_FATAL_FAILURE(WriteFreshDatabase());
        const ProcessRun run = Child(L"--mode oom-from --n " + std::to_wstring(n));
        EXPECT_EQ(0u, run.exitCode) << run.err;
        const std::string result = ResultOf(m_calls);
        EXPECT_TRUE(result == "result 0x8007000E" || result == "result 0x8000FFFF") << result;
        FILE* f = _wfopen(m_calls.c_str(), L"rb");
        ASSERT_NE(nullptr, f);
        std::string text;
        char buffer[4096];
        size_t got;
        while ((got = std::fread(buffer, 1, sizeof(buffer), f)) > 0)
            text.append(buffer, got);
        std::fclose(f);
        EXPECT_NE(std::string::npos, text.find("\nend\n")) << "the child's answer is not whole";
        const std::vector<nvfaults::CallRecord> failed = nvfaults::ReadCallRecords(m_calls);
        ASSERT_FALSE(failed.empty());
        EXPECT_EQ(n, failed.front().number);
        for (const nvfaults::CallRecord& r : failed)
            EXPECT_TRUE(r.allocation) << r.function;
    }
}

// A child that ends with exit code 0 but without its answer (as a stack overflow
// under Wine does) is a crash, and a crash fails the sweep.
TEST_F(FaultHooksTest, ASweepScoresAChildWithoutItsAnswerAsCrashedAndFails)
{
    ASSERT_TRUE(::SetEnvironmentVariableW(L"NVFAULTS_TEST_VANISH_IN_MODE", L"once"));
    ProcessRun sweep = RunProcess(QuoteArg(ExeDirectory() + L"nvfaults.exe") +
                                  L" sweep --conversion 2.0 --policy default --modes once --from 40 --to 40");
    ::SetEnvironmentVariableW(L"NVFAULTS_TEST_VANISH_IN_MODE", nullptr);
    ASSERT_TRUE(sweep.started);
    ASSERT_FALSE(sweep.timedOut);
    EXPECT_EQ(1u, sweep.exitCode) << sweep.out << sweep.err;
    EXPECT_NE(std::string::npos, sweep.out.find("1 scenarios: 0 passed, 0 by-design, 0 lost, 1 crashed"))
        << sweep.out;
    EXPECT_NE(std::string::npos, sweep.out.find("conversion process ended without its answer (exit 0x00000000, "
                                                 "no result)"))
        << sweep.out;
}

namespace {

// The "  scenario ..." lines of a listing sweep, sorted.
std::vector<std::string> ListedScenarios(const std::string& out)
{
    std::vector<std::string> lines;
    size_t at = 0;
    while ((at = out.find("  scenario ", at)) != std::string::npos) {
        const size_t end = out.find_first_of("\r\n", at);
        lines.push_back(out.substr(at, end == std::string::npos ? std::string::npos : end - at));
        at = end == std::string::npos ? out.size() : end;
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

ProcessRun Sweep(const std::wstring& args)
{
    return RunProcess(QuoteArg(ExeDirectory() + L"nvfaults.exe") + L" sweep " + args);
}

} // namespace

// CI's two 2.0 sweeps take one share of the call sites each under one seed: between
// them they list exactly the scenarios of the unshared sweep, none twice.
TEST_F(FaultHooksTest, TheTwoSiteSharesOfOneSeedListEverySiteScenarioOnce)
{
    const std::wstring common = L"--conversion 2.0 --policy default --sites --seed 4242 --list";
    ProcessRun whole = Sweep(common);
    ProcessRun first = Sweep(common + L" --site-share 0/2");
    ProcessRun second = Sweep(common + L" --site-share 1/2");
    for (const ProcessRun* run : {&whole, &first, &second}) {
        ASSERT_TRUE(run->started);
        ASSERT_FALSE(run->timedOut);
        ASSERT_EQ(0u, run->exitCode) << run->out << run->err;
    }
    EXPECT_NE(std::string::npos,
              first.out.find("the call sites of share 0/2, each in every mode that applies: "))
        << first.out;
    EXPECT_NE(std::string::npos, first.out.find("(the same scenarios again: --sites --seed 4242 --site-share 0/2)"))
        << first.out;
    const std::vector<std::string> all = ListedScenarios(whole.out);
    const std::vector<std::string> a = ListedScenarios(first.out);
    const std::vector<std::string> b = ListedScenarios(second.out);
    ASSERT_GT(all.size(), 20u) << whole.out;
    EXPECT_FALSE(a.empty());
    EXPECT_FALSE(b.empty());
    std::vector<std::string> both;
    std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(both));
    EXPECT_TRUE(both.empty()) << both.front();
    std::vector<std::string> merged;
    std::merge(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(merged));
    EXPECT_EQ(all, merged);
    // Listing runs nothing: no tally line follows.
    EXPECT_EQ(std::string::npos, whole.out.find(" scenarios: ")) << whole.out;
}

TEST_F(FaultHooksTest, ASweepRefusesAShareWithoutSitesAShareOutOfRangeAndAnUnknownOption)
{
    for (const wchar_t* args : {L"--conversion 2.0 --site-share 0/2", L"--conversion 2.0 --sites --site-share 2/2",
                                L"--conversion 2.0 --sites --site-share 0/0", L"--conversion 2.0 --sites --site-share 1",
                                L"--conversion 2.0 --sites --site-shares 0/2"}) {
        ProcessRun run = Sweep(args);
        ASSERT_TRUE(run.started);
        EXPECT_EQ(2u, run.exitCode) << run.out << run.err;
        EXPECT_EQ(std::string::npos, run.out.find("a clean run makes")) << run.out;
    }
    EXPECT_NE(std::string::npos, Sweep(L"--conversion 2.0 --sites --site-shares 0/2").err.find(
                                     "nvfaults: unknown option --site-shares"));
    EXPECT_NE(std::string::npos,
              Sweep(L"--conversion 2.0 --site-share 0/2").err.find("--site-share I/N (0 <= I < N) goes with --sites"));
}
