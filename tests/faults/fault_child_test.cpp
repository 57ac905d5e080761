#include "fault_child_test.h"

#include <cstdio>

#include "fault_world.h"
#include "nvstore_inspect.h"
#include "support/dll_loader.h"

namespace nvfaults {

std::vector<CallRecord> ReadCallRecords(const std::wstring& file)
{
    std::vector<CallRecord> calls;
    FILE* f = _wfopen(file.c_str(), L"rb");
    if (!f)
        return calls;
    char line[4096];
    while (std::fgets(line, sizeof(line), f)) {
        std::string text(line);
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
            text.pop_back();
        CallRecord r;
        if (ParseRecord(text, &r))
            calls.push_back(r);
    }
    std::fclose(f);
    return calls;
}

void FaultChildTest::SetUp()
{
    StoreSandbox::SetUp();
    m_db = FaultDatabase20();
    wchar_t tmp[MAX_PATH];
    ::GetTempPathW(MAX_PATH, tmp);
    m_calls = std::wstring(tmp) + L"nvfaults-" + m_tag + L"-" + std::to_wstring(::GetCurrentProcessId()) + L".txt";
}

void FaultChildTest::TearDown()
{
    ::DeleteFileW(m_calls.c_str());
    nvwriter::DeleteDb20Container(m_db);
    StoreSandbox::TearDown();
}

void FaultChildTest::WriteFreshDatabase()
{
    nvtest::WipeSuiteKeys();
    nvstore::inspect::DeleteStoreKeyContainers();
    ASSERT_EQ(S_OK, nvwriter::WriteDb20Database(m_db));
    nvstore::inspect::SetUserKeyBits(512);
}

nvtest::ProcessRun FaultChildTest::Child(const std::wstring& args)
{
    nvtest::ProcessRun run = nvtest::RunProcess(nvtest::QuoteArg(nvtest::ExeDirectory() + L"nvfaults.exe") +
                                                L" child " + args + L" --out " + nvtest::QuoteArg(m_calls));
    EXPECT_TRUE(run.started);
    EXPECT_FALSE(run.timedOut);
    return run;
}

} // namespace nvfaults
