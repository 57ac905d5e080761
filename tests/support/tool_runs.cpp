#include "support/tool_runs.h"

#include <objbase.h>
#include <gtest/gtest.h>
#include <algorithm>
#include "common/storecontract.h"
#include "support/dll_loader.h"
#include "support/registry_sandbox.h"

namespace nvtest {

ProcessRun RunTool(const std::wstring& exe, const std::wstring& args, DWORD timeoutMs)
{
    ProcessRun run = RunProcess(QuoteArg(ExeDirectory() + exe) + L" " + args, timeoutMs);
    EXPECT_TRUE(run.started) << Narrow(exe) << " did not start: " << run.startError;
    EXPECT_FALSE(run.timedOut) << Narrow(exe + L" " + args);
    return run;
}

ProcessRun WithPlainLineEnds(ProcessRun run)
{
    run.out = WithoutCarriageReturns(run.out);
    run.err = WithoutCarriageReturns(run.err);
    return run;
}

ProcessRun ExitedWith(DWORD exitCode, ProcessRun run)
{
    EXPECT_EQ(exitCode, run.exitCode) << run.out << run.err;
    return run;
}

JsonValue Json(const ProcessRun& run)
{
    JsonValue doc;
    std::string error;
    EXPECT_TRUE(ParseJson(run.out, &doc, &error)) << error << "\n" << run.out;
    return doc;
}

std::string Row(const std::string& label, const std::string& value)
{
    std::string line = "  " + label;
    line.resize(std::max<size_t>(line.size(), 17), ' ');
    return line + " " + value;
}

std::string Joined(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& l : lines)
        text += l + "\n";
    return text;
}

std::wstring TempTraceFile(const std::wstring& prefix)
{
    wchar_t dir[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, dir);
    return std::wstring(dir) + prefix + std::to_wstring(::GetCurrentProcessId()) + L".trc3";
}

std::wstring StoreClassKey()
{
    wchar_t clsid[64] = {};
    ::StringFromGUID2(nvstore::kClsidUserStore, clsid, 64);
    return std::wstring(L"SOFTWARE\\Classes\\CLSID\\") + clsid;
}

} // namespace nvtest
