// The hooks reach the calls the library makes to crypt32 and netapi32, which it does
// not import but looks up at run time: a clean 2.0 -> 3.0 conversion under nvfaults
// counts them, and failing one of them fails that very call.
#include <windows.h>
#include <gtest/gtest.h>
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
    ProcessRun Child(const std::wstring& args)
    {
        ProcessRun run = RunProcess(QuoteArg(ExeDirectory() + L"nvfaults.exe") + L" child " + args + L" --out " +
                                    QuoteArg(m_calls));
        EXPECT_TRUE(run.started);
        EXPECT_FALSE(run.timedOut);
        return run;
    }
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
