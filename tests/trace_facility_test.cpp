// The trace facility in-process: gates, settings, output choice, file naming,
// timestamps, line formatting and record scrambling.
#include <windows.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "common/handles.h"
#include "support/allocation_faults.h"
#include "support/dll_loader.h"
#include "support/import_fault.h"
#include "support/trace_capture.h"
#include "trace/trace.h"
#include "trace/traceoutput.h"

using namespace nvtest;

namespace {

constexpr const wchar_t kTracing[] = L"SOFTWARE\\Norvane\\Tracing";
// The component name and pattern pieces of this executable (it is its own "library").
constexpr const char kComponent[] = "trace_facility_test";

SYSTEMTIME g_now;
DWORD g_tick = 0;

void FixedLocalTime(SYSTEMTIME* time) { *time = g_now; }
DWORD FixedTickCount() { return g_tick; }

SYSTEMTIME Time(WORD year, WORD month, WORD day, WORD hour, WORD minute, WORD second, WORD ms)
{
    return SYSTEMTIME{year, month, 0 /* wDayOfWeek */, day, hour, minute, second, ms};
}

std::wstring TempDir()
{
    wchar_t dir[MAX_PATH];
    DWORD n = ::GetTempPathW(MAX_PATH, dir);
    return std::wstring(dir, n);
}

bool Exists(const std::wstring& path) { return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

DWORD Session()
{
    DWORD session = 0;
    ::ProcessIdToSessionId(::GetCurrentProcessId(), &session);
    return session;
}

// The name the pattern gives this executable's trace file.
std::wstring PatternFileName()
{
    return Widen(kComponent) + L"." + Widen(kComponent) + L".exe.x64." + std::to_wstring(Session()) + L".trc3";
}

} // namespace

class TraceFacilityTest : public TraceCaptureTest {
protected:
    void SetUp() override
    {
        g_now = Time(2026, 11, 15, 9, 30, 0, 125);
        g_tick = 1000;
        NVTraceNS::SetLocalTimeSourceForTesting(&FixedLocalTime);
        NVTraceNS::SetTickCountSourceForTesting(&FixedTickCount);
        TraceCaptureTest::SetUp();
    }
    void TearDown() override
    {
        TraceCaptureTest::TearDown();
        NVTraceNS::SetLocalTimeSourceForTesting(nullptr);
        NVTraceNS::SetTickCountSourceForTesting(nullptr);
        NVTraceNS::SetModuleHandle(nullptr);
    }

    // One scope with a line and a failing result.
    static void OneScope(const char* name = "CFoo::Bar", int level = 0)
    {
        NVTraceNS::CTraceScope scope(name, level);
        NVTraceNS::Trace(scope, 0, "inside %d", 1);
        NVTraceNS::TraceResult(scope, "", E_FAIL);
    }
    static std::vector<std::string> OneScopeLines(const std::string& name = "CFoo::Bar")
    {
        return {"> " + name, "U inside 1", "E -2147467259 ", "<"};
    }
};


// BuildTracePath on the tracing key as the settings stand now; the path it leaves
// (a sentinel in the buffer first, so that a path left alone shows).
static bool TracePathNow(std::wstring* out)
{
    nv::unique_hkey key;
    if (NVTraceNS::OpenTracingKey(key.put()) != ERROR_SUCCESS) {
        ADD_FAILURE() << "the tracing key does not open";
        return false;
    }
    wchar_t path[NVTraceNS::kTracePathChars];
    path[0] = L'x';
    path[1] = L'\0';
    const bool named = NVTraceNS::BuildTracePath(key.get(), path);
    *out = path;
    return named;
}

TEST_F(TraceFacilityTest, ScopeLineAndResultReachTheFileAfterDateAndTime)
{
    {
        NVTraceNS::CTraceScope scope("CFoo::Bar", 0);
        NVTraceNS::Trace(scope, 0, "value %d of %ls and %s", 5, L"wide", "narrow");
        EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND),
                  NVTraceNS::TraceReturn(scope, HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)));
    }
    EXPECT_EQ((std::vector<std::string>{"t 11/15/26", "T 09:30:00.125", "> CFoo::Bar", "U value 5 of wide and narrow",
                                        "E -2147024894 ", "<"}),
              trace.AllLines())
        << trace.Dump();
}

TEST_F(TraceFacilityTest, RecordsCarryTheWritingThreadsId)
{
    DWORD other = 0;
    OneScope("Main");
    std::thread worker([&other] {
        other = ::GetCurrentThreadId();
        OneScope("Worker");
    });
    worker.join();
    const std::vector<nvtrace::Record> records = trace.Records();
    ASSERT_EQ(10u, records.size()) << trace.Dump();
    for (std::size_t i = 0; i < 6; ++i)
        EXPECT_EQ(::GetCurrentThreadId(), records[i].thread) << i;
    for (std::size_t i = 6; i < 10; ++i)
        EXPECT_EQ(other, records[i].thread) << i;
    EXPECT_EQ(OneScopeLines("Worker"), trace.LinesOfThread(other));
}

TEST_F(TraceFacilityTest, ScopeNameIsCutTo99CharactersAndNullBecomesQuestionMarks)
{
    const std::string longName(150, 'n');
    {
        NVTraceNS::CTraceScope cut(longName.c_str(), 0);
        EXPECT_EQ(std::string(99, 'n'), cut.m_szName);
        NVTraceNS::CTraceScope none(nullptr, 0);
        EXPECT_STREQ("????", none.m_szName);
        NVTraceNS::CTraceScope exact(std::string(99, 'e').c_str(), 0);
        EXPECT_EQ(std::string(99, 'e'), exact.m_szName);
    }
    EXPECT_EQ((std::vector<std::string>{"> " + std::string(99, 'n'), "> ????", "> " + std::string(99, 'e'), "<", "<",
                                        "<"}),
              trace.Lines());
}

TEST_F(TraceFacilityTest, VerbosityIsComparedWithTheAbsoluteLevel)
{
    trace.SetVerbosity(9);
    for (int level : {10, -10, 9, -9, 0})
        OneScope(("L" + std::to_string(level)).c_str(), level);
    // Results are not gated by verbosity: the hidden scopes still leave their 'E'.
    EXPECT_EQ((std::vector<std::string>{"E -2147467259 ", "E -2147467259 ", "> L9", "U inside 1", "E -2147467259 ",
                                        "<", "> L-9", "U inside 1", "E -2147467259 ", "<", "> L0", "U inside 1",
                                        "E -2147467259 ", "<"}),
              trace.Lines())
        << trace.Dump();
}

TEST_F(TraceFacilityTest, LevelMinusTenShowsOnlyFromVerbosityTen)
{
    trace.SetVerbosity(10);
    OneScope("Minus", -10);
    OneScope("Plus", 10);
    EXPECT_EQ((std::vector<std::string>{"> Minus", "U inside 1", "E -2147467259 ", "<", "> Plus", "U inside 1",
                                        "E -2147467259 ", "<"}),
              trace.Lines());
}

TEST_F(TraceFacilityTest, LevelZeroShowsAtVerbosityZero)
{
    trace.SetVerbosity(0);
    OneScope("Zero", 0);
    {
        NVTraceNS::CTraceScope one("One", 1);
        NVTraceNS::Trace(one, 0, "hidden");
    }
    {
        NVTraceNS::CTraceScope minusOne("MinusOne", -1);
        NVTraceNS::Trace(minusOne, 0, "hidden");
    }
    EXPECT_EQ(OneScopeLines("Zero"), trace.Lines());
}

TEST_F(TraceFacilityTest, ExtremeLevelsDoNotOverflowTheGate)
{
    trace.SetVerbosity(0x7FFFFFFF);
    {
        NVTraceNS::CTraceScope max("Max", INT_MAX);
        NVTraceNS::CTraceScope min("Min", INT_MIN);
    }
    EXPECT_EQ((std::vector<std::string>{"> Max", "<"}), trace.Lines());
}

TEST_F(TraceFacilityTest, LinesFollowTheScopesLevelNotTheSecondArgument)
{
    trace.SetVerbosity(5);
    {
        NVTraceNS::CTraceScope quiet("Quiet", 10);
        NVTraceNS::Trace(quiet, 0, "not shown");
    }
    {
        NVTraceNS::CTraceScope loud("Loud", 0);
        NVTraceNS::Trace(loud, 99, "shown although the second argument is %d", 99);
    }
    EXPECT_EQ((std::vector<std::string>{"> Loud", "U shown although the second argument is 99", "<"}), trace.Lines());
}

TEST_F(TraceFacilityTest, ProfilingKeepsScopesAndResultsButDropsLines)
{
    SetDword(kTracing, L"DoProfiling", 1, kViewNative);
    TraceCapture::ResetInProcess();
    OneScope();
    EXPECT_EQ((std::vector<std::string>{"> CFoo::Bar", "E -2147467259 ", "<"}), trace.Lines());
}

TEST_F(TraceFacilityTest, ResultsAreTracedWhenNegativeOrOfFacilityNine)
{
    {
        NVTraceNS::CTraceScope scope("Results", 0);
        for (HRESULT hr : {HRESULT(0), HRESULT(1), HRESULT(0x00090312), NTE_BAD_KEYSET, HRESULT(0x10090000),
                           HRESULT(0x00080000), HRESULT(0x0009FFFF), HRESULT(0x00190000), HRESULT(0x7FFFFFFF),
                           HRESULT(0x80000000)})
            NVTraceNS::TraceResult(scope, "", hr);
    }
    EXPECT_EQ((std::vector<std::string>{"> Results", "E 590610 ", "E -2146893802 ", "E 655359 ", "E -2147483648 ",
                                        "<"}),
              trace.Lines());
}

TEST_F(TraceFacilityTest, ResultTextIsSignedDecimalBlankTextCutAt260)
{
    {
        NVTraceNS::CTraceScope scope("Results", 0);
        NVTraceNS::TraceResult(scope, "opening key", E_FAIL);
        NVTraceNS::TraceResult(scope, nullptr, E_FAIL);
        NVTraceNS::TraceResult(scope, std::string(300, 'x').c_str(), E_FAIL);
        EXPECT_EQ(S_OK, NVTraceNS::TraceReturn(scope, S_OK));
        EXPECT_EQ(HRESULT(0x00090312), NVTraceNS::TraceReturn(scope, HRESULT(0x00090312)));
    }
    EXPECT_EQ((std::vector<std::string>{"> Results", "E -2147467259 opening key", "E -2147467259 ",
                                        "E -2147467259 " + std::string(260 - 12, 'x'), "E 590610 ", "<"}),
              trace.Lines());
}

TEST_F(TraceFacilityTest, ResultsIgnoreComponentVerbosityAndProfiling)
{
    CreateKeyPath(L"SOFTWARE\\Norvane\\Tracing\\Components", kViewNative);
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\Components", L"OtherLib", 1, kViewNative);
    SetDword(kTracing, L"DoProfiling", 1, kViewNative);
    trace.SetVerbosity(0);
    OneScope("Hidden", 10);
    EXPECT_EQ((std::vector<std::string>{"E -2147467259 "}), trace.Lines());
}

TEST_F(TraceFacilityTest, ComponentsNamingOnlyAnotherLibrarySwitchesThisOneOff)
{
    CreateKeyPath(L"SOFTWARE\\Norvane\\Tracing\\Components", kViewNative);
    CreateKeyPath(L"SOFTWARE\\Norvane\\Tracing\\ComponentsNOT", kViewNative);
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\Components", L"OtherLib", 1, kViewNative);
    TraceCapture::ResetInProcess();
    {
        NVTraceNS::CTraceScope scope("Off", 0);
        NVTraceNS::Trace(scope, 0, "not shown");
    }
    // Nothing was written, so no file was even opened.
    EXPECT_FALSE(trace.FileExists());
}

TEST_F(TraceFacilityTest, ComponentNamedInBothListsIsTraced)
{
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\Components", Widen(kComponent).c_str(), 0, kViewNative);
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\ComponentsNOT", Widen(kComponent).c_str(), 0, kViewNative);
    TraceCapture::ResetInProcess();
    OneScope();
    EXPECT_EQ(OneScopeLines(), trace.Lines());
}

TEST_F(TraceFacilityTest, ComponentsNotNamingThisOneSwitchesItOffWhateverTheCase)
{
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\ComponentsNOT", L"AAA", 0, kViewNative);
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\ComponentsNOT", L"TRACE_Facility_TEST", 0, kViewNative);
    TraceCapture::ResetInProcess();
    OneScope();
    EXPECT_EQ((std::vector<std::string>{"E -2147467259 "}), trace.Lines());
}

TEST_F(TraceFacilityTest, ComponentsNotNamingOthersLeavesThisOneOn)
{
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\ComponentsNOT", L"OtherLib", 0, kViewNative);
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\ComponentsNOT", L"trace_facility_test.exe", 0, kViewNative);
    TraceCapture::ResetInProcess();
    OneScope();
    EXPECT_EQ(OneScopeLines(), trace.Lines());
}

TEST_F(TraceFacilityTest, ComponentsNamingThisOneAmongOthersKeepsItOn)
{
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\Components", L"AAA", 0, kViewNative);
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\Components", Widen(kComponent).c_str(), 0, kViewNative);
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\Components", L"ZZZ", 0, kViewNative);
    TraceCapture::ResetInProcess();
    OneScope();
    EXPECT_EQ(OneScopeLines(), trace.Lines());
}

TEST_F(TraceFacilityTest, ComponentListNameAnsweredAsNotFittingIsSkippedAndTheWalkGoesOn)
{
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\ComponentsNOT", L"AAA", 0, kViewNative);
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\ComponentsNOT", Widen(kComponent).c_str(), 0, kViewNative);
    TraceCapture::ResetInProcess();
    {
        // The first name read is answered as one that does not fit the buffer.
        ImportFault<decltype(&::RegEnumValueW)> fault("RegEnumValueW", ERROR_INSUFFICIENT_BUFFER, ERROR_SUCCESS, 1);
        OneScope();
        EXPECT_EQ(1u, fault.failed());
    }
    // This component's name was still reached: it is switched off.
    EXPECT_EQ((std::vector<std::string>{"E -2147467259 "}), trace.Lines());
}

TEST_F(TraceFacilityTest, ComponentListWalkEndsAtANameTooLongToRead)
{
    // "a..." (300 characters) is enumerated first and ends the walk before this
    // component's name is reached.
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\ComponentsNOT", std::wstring(300, L'a').c_str(), 0, kViewNative);
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\ComponentsNOT", Widen(kComponent).c_str(), 0, kViewNative);
    TraceCapture::ResetInProcess();
    OneScope();
    EXPECT_EQ(OneScopeLines(), trace.Lines());
}

TEST_F(TraceFacilityTest, DoTraceZeroWritesNothing)
{
    SetDword(kTracing, L"DoTrace", 0, kViewNative);
    TraceCapture::ResetInProcess();
    OneScope();
    EXPECT_FALSE(trace.FileExists());
}

TEST_F(TraceFacilityTest, MissingTracingKeyWritesNothingAnywhere)
{
    DeleteTree(kTracing, kViewNative);
    TraceCapture::ResetInProcess();
    OneScope();
    EXPECT_FALSE(trace.FileExists());
    EXPECT_FALSE(Exists(ExeDirectory() + PatternFileName()));
}

TEST_F(TraceFacilityTest, TracingKeyIsFoundInThe32BitViewWhenTheNativeOneIsMissing)
{
    DeleteTree(kTracing, kViewNative);
    CreateKeyPath(kTracing, kView32);
    SetDword(kTracing, L"DoTrace", 1, kView32);
    SetDword(kTracing, L"Verbosity", 10, kView32);
    SetString(kTracing, L"FileName", trace.path(), kView32);
    TraceCapture::ResetInProcess();
    OneScope("Level10", 10);
    EXPECT_EQ(OneScopeLines("Level10"), trace.Lines());
}

TEST_F(TraceFacilityTest, TraceToFileOtherThanOneWritesNothingAndTheChoiceStays)
{
    SetDword(kTracing, L"TraceToFile", 0, kViewNative);
    TraceCapture::ResetInProcess();
    OneScope();
    EXPECT_FALSE(trace.FileExists());

    // Switched to file output later: the flags reload, the output object stays.
    SetDword(kTracing, L"TraceToFile", 1, kViewNative);
    g_tick += 30001;
    OneScope();
    EXPECT_FALSE(trace.FileExists());

    // A fresh start picks the file output.
    TraceCapture::ResetInProcess();
    OneScope();
    EXPECT_EQ(OneScopeLines(), trace.Lines());

    SetDword(kTracing, L"TraceToFile", 2, kViewNative);
    TraceCapture::ResetInProcess();
    ASSERT_TRUE(::DeleteFileW(trace.path().c_str()));
    OneScope();
    EXPECT_FALSE(trace.FileExists());
}

TEST_F(TraceFacilityTest, TraceToFileOfAnotherTypeCountsAsAbsent)
{
    SetString(kTracing, L"TraceToFile", L"0", kViewNative);
    TraceCapture::ResetInProcess();
    OneScope();
    EXPECT_EQ(OneScopeLines(), trace.Lines());
}

TEST_F(TraceFacilityTest, EmptyFileNameOpensNoFileAndWritesNothing)
{
    SetString(kTracing, L"FileName", L"", kViewNative);
    TraceCapture::ResetInProcess();
    OneScope();
    EXPECT_FALSE(trace.FileExists());
    EXPECT_FALSE(Exists(ExeDirectory() + PatternFileName()));
    wchar_t path[NVTraceNS::kTracePathChars];
    nv::unique_hkey key;
    ASSERT_EQ(ERROR_SUCCESS, NVTraceNS::OpenTracingKey(key.put()));
    EXPECT_TRUE(NVTraceNS::BuildTracePath(key.get(), path));
    EXPECT_STREQ(L"", path);
}

TEST_F(TraceFacilityTest, FileNameIsUsedAsItStandsWithoutExpansion)
{
    const std::wstring literal = TempDir() + L"nvtrace_%NVTRACE_UNSET%_" + std::to_wstring(::GetCurrentProcessId()) + L".trc3";
    SetString(kTracing, L"FileName", literal, kViewNative, REG_EXPAND_SZ);
    TraceCapture::ResetInProcess();
    OneScope();
    TraceCapture::ResetInProcess();
    EXPECT_TRUE(Exists(literal));
    EXPECT_TRUE(::DeleteFileW(literal.c_str()));
}

TEST_F(TraceFacilityTest, UnusableFileNameFallsBackToThePatternInTheLibrarysFolder)
{
    const std::wstring fallback = ExeDirectory() + PatternFileName();
    ::DeleteFileW(fallback.c_str());
    // Odd byte count, then a DWORD: neither is a usable string.
    SetBinary(kTracing, L"FileName", {'a', 0, 'b'}, kViewNative, REG_SZ);
    TraceCapture::ResetInProcess();
    OneScope();
    TraceCapture::ResetInProcess();
    EXPECT_FALSE(trace.FileExists());
    EXPECT_TRUE(Exists(fallback));
    EXPECT_TRUE(::DeleteFileW(fallback.c_str()));

    SetDword(kTracing, L"FileName", 1, kViewNative);
    OneScope();
    TraceCapture::ResetInProcess();
    EXPECT_TRUE(Exists(fallback));
    EXPECT_TRUE(::DeleteFileW(fallback.c_str()));
}

TEST_F(TraceFacilityTest, PatternNamesHostLibraryExtensionPlatformAndSession)
{
    DeleteValue(kTracing, L"FileName", kViewNative);
    nv::unique_hkey key;
    ASSERT_EQ(ERROR_SUCCESS, NVTraceNS::OpenTracingKey(key.put()));
    wchar_t path[NVTraceNS::kTracePathChars];
    ASSERT_TRUE(NVTraceNS::BuildTracePath(key.get(), path));
    EXPECT_EQ(ExeDirectory() + PatternFileName(), path);

    // With the library's handle set, the library's name and folder are used.
    LoadedLibrary dll;
    ASSERT_TRUE(dll.loaded());
    NVTraceNS::SetModuleHandle(dll.module());
    ASSERT_TRUE(NVTraceNS::BuildTracePath(key.get(), path));
    EXPECT_EQ(ExeDirectory() + Widen(kComponent) + L".NVDBConv.dll.x64." + std::to_wstring(Session()) + L".trc3",
              path);
    NVTraceNS::SetModuleHandle(nullptr);
}

TEST_F(TraceFacilityTest, TracePathFoldersAreCreatedAndTheFileWrittenThere)
{
    const std::wstring root = TempDir() + L"nvtp_" + std::to_wstring(::GetCurrentProcessId());
    const std::wstring dir = root + L"\\logs\\x";
    ASSERT_FALSE(Exists(root));
    DeleteValue(kTracing, L"FileName", kViewNative);
    SetString(kTracing, L"TracePath", dir, kViewNative);
    TraceCapture::ResetInProcess();
    OneScope();
    TraceCapture::ResetInProcess();
    const std::wstring file = dir + L"\\" + PatternFileName();
    EXPECT_TRUE(Exists(root + L"\\logs"));
    ASSERT_TRUE(Exists(file));
    EXPECT_TRUE(::DeleteFileW(file.c_str()));
    EXPECT_TRUE(::RemoveDirectoryW(dir.c_str()));
    EXPECT_TRUE(::RemoveDirectoryW((root + L"\\logs").c_str()));
    EXPECT_TRUE(::RemoveDirectoryW(root.c_str()));
}

TEST_F(TraceFacilityTest, TracePathEndingInABackslashGetsNoSecondOne)
{
    const std::wstring dir = TempDir(); // ends in a backslash
    ASSERT_EQ(L'\\', dir.back());
    DeleteValue(kTracing, L"FileName", kViewNative);
    SetString(kTracing, L"TracePath", dir, kViewNative);
    nv::unique_hkey key;
    ASSERT_EQ(ERROR_SUCCESS, NVTraceNS::OpenTracingKey(key.put()));
    wchar_t path[NVTraceNS::kTracePathChars];
    ASSERT_TRUE(NVTraceNS::BuildTracePath(key.get(), path));
    EXPECT_EQ(dir + PatternFileName(), path);
}

TEST_F(TraceFacilityTest, EmptyTracePathWritesIntoTheCurrentDirectory)
{
    DeleteValue(kTracing, L"FileName", kViewNative);
    SetString(kTracing, L"TracePath", L"", kViewNative);
    nv::unique_hkey key;
    ASSERT_EQ(ERROR_SUCCESS, NVTraceNS::OpenTracingKey(key.put()));
    wchar_t path[NVTraceNS::kTracePathChars];
    ASSERT_TRUE(NVTraceNS::BuildTracePath(key.get(), path));
    EXPECT_EQ(PatternFileName(), path);

    const std::wstring dir = TempDir() + L"nvcwd_" + std::to_wstring(::GetCurrentProcessId());
    ASSERT_TRUE(::CreateDirectoryW(dir.c_str(), nullptr));
    wchar_t previous[MAX_PATH];
    ::GetCurrentDirectoryW(MAX_PATH, previous);
    ASSERT_TRUE(::SetCurrentDirectoryW(dir.c_str()));
    TraceCapture::ResetInProcess();
    OneScope();
    TraceCapture::ResetInProcess();
    ::SetCurrentDirectoryW(previous);
    const std::wstring file = dir + L"\\" + PatternFileName();
    EXPECT_TRUE(Exists(file));
    ::DeleteFileW(file.c_str());
    EXPECT_TRUE(::RemoveDirectoryW(dir.c_str()));
}

TEST_F(TraceFacilityTest, DirectoryCreationWalksFromTheDriveDownAndKeepsExistingFolders)
{
    const std::wstring root = TempDir() + L"nvdirs_" + std::to_wstring(::GetCurrentProcessId());
    ASSERT_TRUE(::CreateDirectoryW(root.c_str(), nullptr)); // exists, and empty
    ASSERT_FALSE(Exists(root + L"\\a"));
    NVTraceNS::CreateTraceDirectories((root + L"\\a\\b\\c\\").c_str());
    EXPECT_TRUE(Exists(root + L"\\a\\b\\c"));
    for (const wchar_t* sub : {L"\\a\\b\\c", L"\\a\\b", L"\\a", L""})
        EXPECT_TRUE(::RemoveDirectoryW((root + sub).c_str())) << Narrow(sub);
}

// A trace path that does not fit the path buffer whole names no file at all: a cut
// one would name some other file. (A share, so that nothing is created on the way.)
TEST_F(TraceFacilityTest, TracePathWithNoRoomForItsBackslashNamesNoFileAndTracesNothing)
{
    std::wstring dir = L"\\\\nvsrv\\share\\";
    dir.append(NVTraceNS::kTracePathChars - 1 - dir.size(), L'a'); // the longest readable value
    DeleteValue(kTracing, L"FileName", kViewNative);
    SetString(kTracing, L"TracePath", dir, kViewNative);
    std::wstring path = L"x";
    EXPECT_FALSE(TracePathNow(&path));
    EXPECT_EQ(L"", path);

    // One character less leaves room for the backslash but not for the file name.
    dir.pop_back();
    SetString(kTracing, L"TracePath", dir, kViewNative);
    path = L"x";
    EXPECT_FALSE(TracePathNow(&path));
    EXPECT_EQ(L"", path);

    const std::wstring fallback = ExeDirectory() + PatternFileName();
    ::DeleteFileW(fallback.c_str());
    TraceCapture::ResetInProcess();
    OneScope();
    TraceCapture::ResetInProcess();
    EXPECT_FALSE(trace.FileExists());
    EXPECT_FALSE(Exists(fallback));
}

TEST_F(TraceFacilityTest, TracePathWhoseFileNameWouldBeCutNamesNoFile)
{
    // Room for the folder and its backslash, not for the pattern's file name.
    std::wstring dir = L"\\\\nvsrv\\share\\";
    dir.append(NVTraceNS::kTracePathChars - 20 - dir.size(), L'b');
    dir += L'\\';
    DeleteValue(kTracing, L"FileName", kViewNative);
    SetString(kTracing, L"TracePath", dir, kViewNative);
    std::wstring path = L"x";
    EXPECT_FALSE(TracePathNow(&path));
    EXPECT_EQ(L"", path);
    ASSERT_LT(dir.size() + PatternFileName().size(), 300u);
    ASSERT_GE(dir.size() + PatternFileName().size(), NVTraceNS::kTracePathChars);
}

TEST_F(TraceFacilityTest, DirectoryCreationCreatesNothingForAPathLongerThanTheBuffer)
{
    const std::wstring root = TempDir() + L"nvlong_" + std::to_wstring(::GetCurrentProcessId());
    std::wstring path = root;
    while (path.size() < NVTraceNS::kTracePathChars)
        path += L"\\segment";
    NVTraceNS::CreateTraceDirectories(path.c_str());
    EXPECT_FALSE(Exists(root));
    // The same folders within the limit are made.
    const std::wstring shorter = root + L"\\segment";
    NVTraceNS::CreateTraceDirectories(shorter.c_str());
    EXPECT_TRUE(Exists(shorter));
    EXPECT_TRUE(::RemoveDirectoryW(shorter.c_str()));
    EXPECT_TRUE(::RemoveDirectoryW(root.c_str()));
}

TEST_F(TraceFacilityTest, DirectoryCreationStopsAtAFileInThePath)
{
    const std::wstring file = TempDir() + L"nvfile_" + std::to_wstring(::GetCurrentProcessId());
    {
        nv::unique_hfile f(::CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
        ASSERT_TRUE(f);
    }
    NVTraceNS::CreateTraceDirectories((file + L"\\below\\deeper").c_str());
    const DWORD attributes = ::GetFileAttributesW(file.c_str());
    EXPECT_NE(INVALID_FILE_ATTRIBUTES, attributes);
    EXPECT_EQ(0u, attributes & FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_FALSE(Exists(file + L"\\below"));
    EXPECT_TRUE(::DeleteFileW(file.c_str()));
}

TEST_F(TraceFacilityTest, AppendingToAnExistingFileWritesOnlyTheReopenRecord)
{
    OneScope("First");
    TraceCapture::ResetInProcess();
    const std::vector<std::string> header = trace.HeaderLines();

    SetDword(kTracing, L"NewFileAlways", 0, kViewNative);
    g_now = Time(2026, 11, 16, 8, 0, 0, 0);
    TraceCapture::ResetInProcess();
    OneScope("Second");
    const nvtrace::DecodedTrace decoded = trace.Decode();
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_EQ(header, decoded.header);
    EXPECT_EQ((std::vector<std::string>{"t 11/15/26", "T 09:30:00.125", "> First", "U inside 1", "E -2147467259 ", "<",
                                        "N 11-16-2026", "t 11/16/26", "T 08:00:00.000", "> Second", "U inside 1",
                                        "E -2147467259 ", "<"}),
              trace.AllLines());
}

TEST_F(TraceFacilityTest, AppendingWithoutAFileWritesTheHeader)
{
    SetDword(kTracing, L"NewFileAlways", 0, kViewNative);
    TraceCapture::ResetInProcess();
    OneScope();
    const nvtrace::DecodedTrace decoded = trace.Decode();
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_EQ("trace3", decoded.header.front());
    EXPECT_EQ(".", decoded.header.back());
    EXPECT_EQ((std::vector<std::string>{"t 11/15/26", "T 09:30:00.125", "> CFoo::Bar", "U inside 1", "E -2147467259 ",
                                        "<"}),
              trace.AllLines());
}

TEST_F(TraceFacilityTest, AppendingToAnEmptyFileWritesTheHeader)
{
    HANDLE f = ::CreateFileW(trace.path().c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, f);
    ::CloseHandle(f);
    SetDword(kTracing, L"NewFileAlways", 0, kViewNative);
    TraceCapture::ResetInProcess();
    OneScope();
    EXPECT_EQ("trace3", trace.HeaderLines().front());
    EXPECT_EQ(OneScopeLines(), trace.Lines());
}

TEST_F(TraceFacilityTest, NewFileAlwaysReplacesAnExistingFile)
{
    for (bool asString : {false, true}) {
        HANDLE f = ::CreateFileW(trace.path().c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        ASSERT_NE(INVALID_HANDLE_VALUE, f);
        DWORD written = 0;
        ::WriteFile(f, "old content", 11, &written, nullptr);
        ::CloseHandle(f);
        // 1, or a value of another type (which counts as absent): a new file.
        if (asString)
            SetString(kTracing, L"NewFileAlways", L"0", kViewNative);
        else
            SetDword(kTracing, L"NewFileAlways", 1, kViewNative);
        TraceCapture::ResetInProcess();
        OneScope();
        TraceCapture::ResetInProcess();
        const std::vector<std::uint8_t> bytes = trace.Bytes();
        ASSERT_GE(bytes.size(), 8u);
        EXPECT_EQ("trace3\r\n", std::string(bytes.begin(), bytes.begin() + 8));
        EXPECT_EQ(OneScopeLines(), trace.Lines());
    }
}

TEST_F(TraceFacilityTest, LinesInTheSameMillisecondShareOneTimeRecord)
{
    {
        NVTraceNS::CTraceScope scope("Same", 0);
        NVTraceNS::Trace(scope, 0, "one");
        NVTraceNS::Trace(scope, 0, "two");
    }
    EXPECT_EQ((std::vector<std::string>{"t 11/15/26", "T 09:30:00.125", "> Same", "U one", "U two", "<"}),
              trace.AllLines());
}

TEST_F(TraceFacilityTest, EveryRecordKindGetsATimeRecordWhenTheTimeChanged)
{
    {
        NVTraceNS::CTraceScope scope("Clock", 0);
        g_now.wMilliseconds = 126;
        NVTraceNS::Trace(scope, 0, "line");
        g_now.wSecond = 1;
        NVTraceNS::TraceResult(scope, "", E_FAIL);
        g_now.wMinute = 31;
        g_now.wHour = 10;
    }
    EXPECT_EQ((std::vector<std::string>{"t 11/15/26", "T 09:30:00.125", "> Clock", "T 09:30:00.126", "U line",
                                        "T 09:30:01.126", "E -2147467259 ", "T 10:31:01.126", "<"}),
              trace.AllLines());
}

TEST_F(TraceFacilityTest, FirstRecordAfterMidnightGetsDateAndTime)
{
    g_now = Time(2026, 11, 15, 23, 59, 59, 999);
    {
        NVTraceNS::CTraceScope scope("Night", 0);
        g_now = Time(2026, 11, 16, 0, 0, 0, 0);
        NVTraceNS::Trace(scope, 0, "after midnight");
        NVTraceNS::Trace(scope, 0, "same millisecond");
    }
    EXPECT_EQ((std::vector<std::string>{"t 11/15/26", "T 23:59:59.999", "> Night", "t 11/16/26", "T 00:00:00.000",
                                        "U after midnight", "U same millisecond", "<"}),
              trace.AllLines());
}

TEST_F(TraceFacilityTest, DateRecordUsesTheYearModuloHundredAndComesWithTheTimeEvenIfUnchanged)
{
    g_now = Time(2099, 12, 31, 12, 0, 0, 0);
    {
        NVTraceNS::CTraceScope scope("Year", 0);
        g_now = Time(2100, 1, 1, 12, 0, 0, 0); // same time of day, new date
        NVTraceNS::Trace(scope, 0, "new year");
        g_now = Time(2100, 2, 1, 12, 0, 0, 0); // only the month changes
        NVTraceNS::Trace(scope, 0, "new month");
        g_now = Time(2005, 2, 1, 12, 0, 0, 0); // only the year changes
    }
    EXPECT_EQ((std::vector<std::string>{"t 12/31/99", "T 12:00:00.000", "> Year", "t 01/01/00", "T 12:00:00.000",
                                        "U new year", "t 02/01/00", "T 12:00:00.000", "U new month", "t 02/01/05",
                                        "T 12:00:00.000", "<"}),
              trace.AllLines());
}

TEST_F(TraceFacilityTest, NarrowStringAndCharacterArgumentsStayNarrow)
{
    {
        NVTraceNS::CTraceScope scope("Format", 0);
        NVTraceNS::Trace(scope, 0, "%s|%c|%ls|%d|%s", "abc", 'x', L"wide", 42, "");
        NVTraceNS::Trace(scope, 0, "key %s value 0x%X", "SOFTWARE\\Norvane\\DB", 0x1Fu);
    }
    EXPECT_EQ((std::vector<std::string>{"> Format", "U abc|x|wide|42|", "U key SOFTWARE\\Norvane\\DB value 0x1F", "<"}),
              trace.Lines());
}

TEST_F(TraceFacilityTest, DoubledPercentSignBeforeSOrCIsRewrittenToo)
{
    {
        NVTraceNS::CTraceScope scope("Percent", 0);
        NVTraceNS::Trace(scope, 0, "100%%s done");
        NVTraceNS::Trace(scope, 0, "%%c and %%d");
        NVTraceNS::Trace(scope, 0, "%%%s", "x");
    }
    // "%%%s": the first "%s" found is the one after the doubled sign.
    EXPECT_EQ((std::vector<std::string>{"> Percent", "U 100%hs done", "U %hc and %d", "U %x", "<"}), trace.Lines());
}

TEST_F(TraceFacilityTest, NullOrEmptyFormatGivesAnEmptyLine)
{
    {
        NVTraceNS::CTraceScope scope("Empty", 0);
        NVTraceNS::Trace(scope, 0, nullptr);
        NVTraceNS::Trace(scope, 0, "");
    }
    EXPECT_EQ((std::vector<std::string>{"> Empty", "U ", "U ", "<"}), trace.Lines());
}

TEST_F(TraceFacilityTest, FormattedLineIsCutAt399Characters)
{
    {
        NVTraceNS::CTraceScope scope("Long", 0);
        NVTraceNS::Trace(scope, 0, "%s", std::string(500, 'a').c_str());
        NVTraceNS::Trace(scope, 0, "ab%ls", std::wstring(398, L'w').c_str()); // 400: cut
        NVTraceNS::Trace(scope, 0, "ab%ls", std::wstring(397, L'w').c_str()); // 399: whole
    }
    EXPECT_EQ((std::vector<std::string>{"> Long", "U " + std::string(399, 'a'), "U ab" + std::string(397, 'w'),
                                        "U ab" + std::string(397, 'w'), "<"}),
              trace.Lines());
}

TEST_F(TraceFacilityTest, FormatThatDoesNotFitIsDropped)
{
    const std::string fits(399, 'f');
    const std::string tooLong(400, 'g');
    // One "%s" grows by one character when rewritten.
    const std::string rewriteFits = std::string(396, 'r') + "%s";  // 398 -> 399
    const std::string rewriteTooLong = std::string(397, 'o') + "%s"; // 399 -> 400
    {
        NVTraceNS::CTraceScope scope("Fit", 0);
        NVTraceNS::Trace(scope, 0, fits.c_str());
        NVTraceNS::Trace(scope, 0, tooLong.c_str());
        NVTraceNS::Trace(scope, 0, rewriteFits.c_str(), "");
        g_now.wMilliseconds = 999; // a dropped line writes no time record either
        NVTraceNS::Trace(scope, 0, rewriteTooLong.c_str(), "");
        g_now.wMilliseconds = 125;
    }
    EXPECT_EQ((std::vector<std::string>{"t 11/15/26", "T 09:30:00.125", "> Fit", "U " + fits,
                                        "U " + std::string(396, 'r'), "<"}),
              trace.AllLines());
}

TEST_F(TraceFacilityTest, LinesAreWrittenInUtf8AndCutAtACharacterBoundary)
{
    {
        NVTraceNS::CTraceScope scope("Utf8", 0);
        NVTraceNS::Trace(scope, 0, "user %ls", L"Gr\u00FC\u00DFe \u20AC");
        // 398 ASCII characters and a two-byte character: 400 bytes do not fit with the NUL.
        NVTraceNS::Trace(scope, 0, "%ls", (std::wstring(398, L'x') + L"\u00FC").c_str());
        NVTraceNS::Trace(scope, 0, "%ls", (std::wstring(397, L'x') + L"\u00FC").c_str());
    }
    EXPECT_EQ((std::vector<std::string>{"> Utf8", "U user Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC",
                                        "U " + std::string(398, 'x'), "U " + std::string(397, 'x') + "\xC3\xBC", "<"}),
              trace.Lines());
}

TEST_F(TraceFacilityTest, SettingsAreReadAtMostEveryThirtySeconds)
{
    OneScope("A"); // tick 1000: read, next refresh after 31000
    SetDword(kTracing, L"DoTrace", 0, kViewNative);
    g_tick = 31000; // not later than the next refresh tick
    OneScope("B");
    g_tick = 31001;
    OneScope("C");
    EXPECT_EQ((std::vector<std::string>{"> A", "U inside 1", "E -2147467259 ", "<", "> B", "U inside 1",
                                        "E -2147467259 ", "<"}),
              trace.Lines());
}

TEST_F(TraceFacilityTest, VerbosityIsReloadedOnlyWhenTheFlagsChange)
{
    trace.SetVerbosity(0);
    OneScope("Hidden", 10); // only its result shows
    SetDword(kTracing, L"Verbosity", 10, kViewNative);
    g_tick += 40000;
    OneScope("StillHidden", 10);
    SetDword(kTracing, L"NewFileAlways", 2, kViewNative); // same flag: no reload
    g_tick += 40000;
    OneScope("StillHiddenToo", 10);
    SetDword(kTracing, L"DoProfiling", 1, kViewNative); // new flags: reload
    g_tick += 40000;
    OneScope("Shown", 10);
    EXPECT_EQ((std::vector<std::string>{"E -2147467259 ", "E -2147467259 ", "E -2147467259 ", "> Shown",
                                        "E -2147467259 ", "<"}),
              trace.Lines());
}

TEST_F(TraceFacilityTest, TracingKeyWithoutValuesMeansTracingOff)
{
    DeleteTree(kTracing, kViewNative);
    CreateKeyPath(kTracing, kViewNative);
    TraceCapture::ResetInProcess();
    {
        NVTraceNS::CTraceScope scope("Off", 0);
        NVTraceNS::TraceResult(scope, "", E_FAIL);
    }
    EXPECT_FALSE(trace.FileExists());
}

TEST_F(TraceFacilityTest, BeforeAnyScopeTracingCountsAsOn)
{
    NVTraceNS::CTraceScope early("Early", 0); // records "> Early" with the settings in place
    TraceCapture::ResetInProcess();           // as a freshly loaded library: no scope entered yet
    ::DeleteFileW(trace.path().c_str());
    NVTraceNS::TraceResult(early, "before the first scope", E_FAIL);
    EXPECT_EQ((std::vector<std::string>{"t 11/15/26", "T 09:30:00.125", "E -2147467259 before the first scope"}),
              trace.AllLines());

    // The output chosen that early still follows the registry's DoTrace.
    TraceCapture::ResetInProcess();
    ::DeleteFileW(trace.path().c_str());
    SetDword(kTracing, L"DoTrace", 0, kViewNative);
    NVTraceNS::TraceResult(early, "dropped", E_FAIL);
    EXPECT_FALSE(trace.FileExists());
    TraceCapture::ResetInProcess();
}

TEST_F(TraceFacilityTest, ResetForTestingClosesTheFile)
{
    OneScope();
    // Open (shared for reading and writing, not for deleting).
    EXPECT_FALSE(::DeleteFileW(trace.path().c_str()));
    TraceCapture::ResetInProcess();
    EXPECT_TRUE(::DeleteFileW(trace.path().c_str()));
}

TEST_F(TraceFacilityTest, RecordTextIsScrambledInTheFileAndTheHeadStaysPlain)
{
    {
        NVTraceNS::CTraceScope scope("CBaseConverter::Backup", 0);
    }
    const nvtrace::DecodedTrace decoded = trace.Decode();
    ASSERT_TRUE(decoded.ok) << decoded.error;
    ASSERT_EQ(4u, decoded.records.size());
    const std::vector<std::uint8_t> bytes = trace.Bytes();
    const std::size_t at = static_cast<std::size_t>(decoded.records[2].offset);
    const DWORD tid = ::GetCurrentThreadId();
    const std::vector<std::uint8_t> expected = {
        static_cast<std::uint8_t>(tid), static_cast<std::uint8_t>(tid >> 8), static_cast<std::uint8_t>(tid >> 16),
        static_cast<std::uint8_t>(tid >> 24), '>', 22, 0,
        // The pinned scrambling of "CBaseConverter::Backup".
        0x0A, 0x09, 0x8B, 0x14, 0xCF, 0x53, 0x9D, 0x3C, 0xDD, 0xFC, 0x9B, 0x65, 0x25, 0x82, 0x68, 0xF4, 0x9B, 0xF8,
        0x21, 0x9D, 0x19, 0xD2};
    ASSERT_GE(bytes.size(), at + expected.size());
    EXPECT_EQ(expected, std::vector<std::uint8_t>(bytes.begin() + static_cast<long>(at),
                                                  bytes.begin() + static_cast<long>(at + expected.size())));
    const std::string text(bytes.begin(), bytes.end());
    EXPECT_EQ(std::string::npos, text.find("CBaseConverter"));
    // The leave record: head only.
    const std::size_t leave = static_cast<std::size_t>(decoded.records[3].offset);
    EXPECT_EQ(bytes.size(), leave + 7);
    EXPECT_EQ('<', bytes[leave + 4]);
    EXPECT_EQ(0, bytes[leave + 5]);
    EXPECT_EQ(0, bytes[leave + 6]);
}

TEST_F(TraceFacilityTest, ScramblingRoundTripsEveryLengthFromZeroToSeventeen)
{
    for (std::size_t n = 0; n <= 17; ++n) {
        std::vector<std::uint8_t> plain(n);
        for (std::size_t i = 0; i < n; ++i)
            plain[i] = static_cast<std::uint8_t>(0x20 + (i * 13 + n) % 90);
        std::vector<std::uint8_t> data = plain;
        NVTraceNS::ScrambleRecordText(data.data(), data.size());
        std::vector<std::uint8_t> reference = plain;
        nvtrace::ScrambleText(reference.data(), reference.size());
        EXPECT_EQ(reference, data) << n;
        if (n > 0) {
            EXPECT_NE(plain, data) << n;
        }
        nvtrace::UnscrambleText(data.data(), data.size());
        EXPECT_EQ(plain, data) << n;
    }
    // And through the file: one line of every length.
    {
        NVTraceNS::CTraceScope scope("Lengths", 0);
        for (std::size_t n = 0; n <= 17; ++n)
            NVTraceNS::Trace(scope, 0, "%s", std::string(n, static_cast<char>('a' + n)).c_str());
    }
    std::vector<std::string> expected = {"> Lengths"};
    for (std::size_t n = 0; n <= 17; ++n)
        expected.push_back("U " + std::string(n, static_cast<char>('a' + n)));
    expected.push_back("<");
    EXPECT_EQ(expected, trace.Lines());
}

TEST_F(TraceFacilityTest, ConcurrentWritersNeverSplitATimestampFromItsRecord)
{
    NVTraceNS::SetLocalTimeSourceForTesting(nullptr); // the real clock: time records appear often
    constexpr int kThreads = 4, kLines = 150;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i) {
                NVTraceNS::CTraceScope scope(("T" + std::to_string(t)).c_str(), 0);
                NVTraceNS::Trace(scope, 0, "line %d", i);
            }
        });
    }
    for (std::thread& t : threads)
        t.join();
    const std::vector<nvtrace::Record> records = trace.Records();
    std::size_t lines = 0;
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (records[i].kind == 'U')
            ++lines;
        if (records[i].kind == 't' || records[i].kind == 'T') {
            ASSERT_LT(i + 1, records.size());
            EXPECT_EQ(records[i].thread, records[i + 1].thread) << "record " << i;
            if (records[i].kind == 't') {
                EXPECT_EQ('T', records[i + 1].kind);
            }
        }
    }
    EXPECT_EQ(static_cast<std::size_t>(kThreads * kLines), lines);
}

TEST_F(TraceFacilityTest, OutputObjectsDropWritesWithoutAFile)
{
    NVTraceNS::CNoOutput none;
    std::uint8_t record[8] = {1, 0, 0, 0, 'U', 1, 0, 'x'};
    none.Write(record, sizeof(record));
    EXPECT_EQ('x', record[7]); // not scrambled either

    SetString(kTracing, L"FileName", L"", kViewNative);
    NVTraceNS::CFileOutput file;
    EXPECT_EQ(INVALID_HANDLE_VALUE, file.m_hFile);
    file.Write(record, sizeof(record));
    EXPECT_FALSE(trace.FileExists());
}

TEST_F(TraceFacilityTest, FileOutputOpensTheConfiguredPathAndKeepsIt)
{
    {
        NVTraceNS::CFileOutput file;
        EXPECT_NE(INVALID_HANDLE_VALUE, file.m_hFile);
        EXPECT_EQ(trace.path(), file.m_szPath);
        std::vector<std::uint8_t> record = {7, 0, 0, 0, 'U', 3, 0, 'a', 'b', 'c'};
        file.Write(record.data(), record.size());
    }
    const std::vector<nvtrace::Record> records = trace.Records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(7u, records[0].thread);
    EXPECT_EQ("U abc", nvtrace::CanonicalLine(records[0]));
}

// Two processes of one program trace into one file (the name carries the program and
// the session, not the process): each record lands after whatever the other wrote.
TEST_F(TraceFacilityTest, TwoOutputsOnOneFileEachAppendAfterTheOthersRecords)
{
    SetDword(kTracing, L"NewFileAlways", 0, kViewNative);
    g_now = Time(2026, 11, 16, 8, 0, 0, 0);
    {
        NVTraceNS::CFileOutput first;
        ASSERT_NE(INVALID_HANDLE_VALUE, first.m_hFile);
        std::vector<std::uint8_t> a = {1, 0, 0, 0, 'U', 1, 0, 'a'};
        first.Write(a.data(), a.size());
        NVTraceNS::CFileOutput second; // finds the file in use and marks its reopening
        ASSERT_NE(INVALID_HANDLE_VALUE, second.m_hFile);
        std::vector<std::uint8_t> b = {1, 0, 0, 0, 'U', 2, 0, 'b', 'b'};
        first.Write(b.data(), b.size());
        std::vector<std::uint8_t> c = {2, 0, 0, 0, 'U', 3, 0, 'c', 'c', 'c'};
        second.Write(c.data(), c.size());
        std::vector<std::uint8_t> d = {1, 0, 0, 0, 'U', 4, 0, 'd', 'd', 'd', 'd'};
        first.Write(d.data(), d.size());
    }
    const nvtrace::DecodedTrace decoded = trace.Decode();
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_EQ("trace3", decoded.header.front());
    EXPECT_EQ((std::vector<std::string>{"U a", "N 11-16-2026", "U bb", "U ccc", "U dddd"}), trace.AllLines());
}

// ---- what the process cannot give ------------------------------------------------

TEST_F(TraceFacilityTest, OutputThatCannotBeAllocatedDropsThatRecordAndTheNextRecordsAreWritten)
{
    TraceCapture::ResetInProcess();
    {
        AllocationFaults oom(1, sizeof(NVTraceNS::CFileOutput));
        OneScope();
        EXPECT_EQ(1u, oom.failed());
    }
    // The first record (the date) found no output and is lost; the time after it
    // made the output again.
    EXPECT_EQ((std::vector<std::string>{"T 09:30:00.125", "> CFoo::Bar", "U inside 1", "E -2147467259 ", "<"}),
              trace.AllLines())
        << trace.Dump();
}

TEST_F(TraceFacilityTest, PatternPathIsNotMadeWithoutTheHostsOrTheLibrarysFileName)
{
    DeleteValue(kTracing, L"FileName", kViewNative);
    nv::unique_hkey key;
    ASSERT_EQ(ERROR_SUCCESS, NVTraceNS::OpenTracingKey(key.put()));
    // The host's name, then the library's; not given, or cut to the buffer.
    for (DWORD answer : {DWORD{0}, DWORD{MAX_PATH}}) {
        for (unsigned failing : {1u, 2u}) {
            wchar_t path[NVTraceNS::kTracePathChars] = L"sentinel";
            ImportFault<decltype(&::GetModuleFileNameW)> fault("GetModuleFileNameW", answer, ERROR_INSUFFICIENT_BUFFER,
                                                               failing);
            EXPECT_FALSE(NVTraceNS::BuildTracePath(key.get(), path)) << "failing call " << failing << ", " << answer;
            EXPECT_STREQ(L"", path);
            EXPECT_EQ(failing, fault.calls());
        }
    }
}

TEST_F(TraceFacilityTest, StringSettingWithoutAKeyIsAbsentAndEmpty)
{
    wchar_t value[NVTraceNS::kTracePathChars] = L"sentinel";
    EXPECT_FALSE(NVTraceNS::ReadStringSetting(nullptr, L"FileName", value));
    EXPECT_STREQ(L"", value);
}

TEST_F(TraceFacilityTest, LineThatCannotBeWrittenAsUtf8IsWrittenEmpty)
{
    {
        NVTraceNS::CTraceScope scope("CFoo::Bar", 0);
        {
            ImportFault<decltype(&::WideCharToMultiByte)> fault("WideCharToMultiByte", 0, ERROR_NO_UNICODE_TRANSLATION);
            NVTraceNS::Trace(scope, 0, "value %d", 5);
            EXPECT_EQ(1u, fault.calls());
        }
        NVTraceNS::Trace(scope, 0, "value %d", 6);
    }
    EXPECT_EQ((std::vector<std::string>{"> CFoo::Bar", "U ", "U value 6", "<"}), trace.Lines()) << trace.Dump();
}

TEST_F(TraceFacilityTest, ComponentWhoseFileNameCannotBeReadIsNotNamedByTheComponentsList)
{
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\Components", Widen(kComponent).c_str(), 0, kViewNative);
    TraceCapture::ResetInProcess();
    {
        // The first call is the settings' reading of this component's name.
        ImportFault<decltype(&::GetModuleFileNameW)> fault("GetModuleFileNameW", 0, ERROR_INSUFFICIENT_BUFFER, 1);
        OneScope();
        EXPECT_EQ(1u, fault.failed());
    }
    // Unnamed, it matches no entry: the list switches it off, the result still shows.
    EXPECT_EQ((std::vector<std::string>{"E -2147467259 "}), trace.Lines()) << trace.Dump();
}

TEST_F(TraceFacilityTest, ComponentWhoseFileNameIsCutIsNotSwitchedOffByComponentsNot)
{
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\ComponentsNOT", Widen(kComponent).c_str(), 0, kViewNative);
    TraceCapture::ResetInProcess();
    {
        // A name that filled the whole buffer was cut: it is not taken.
        ImportFault<decltype(&::GetModuleFileNameW)> fault("GetModuleFileNameW", MAX_PATH, ERROR_INSUFFICIENT_BUFFER,
                                                           1);
        OneScope();
        EXPECT_EQ(1u, fault.failed());
    }
    EXPECT_EQ(OneScopeLines(), trace.Lines()) << trace.Dump();
}

TEST_F(TraceFacilityTest, RecordTextOver400BytesIsCutTo400)
{
    // No kind of record carries more than 399 bytes (the decoder refuses more), so
    // the record is checked byte by byte: its head and its text, cut to the 400 bytes
    // the record buffer holds, in the file's scrambled form.
    NVTraceNS::WriteRecord(NVTraceNS::kKindLine, "head", 4);
    const std::size_t at = trace.Bytes().size();
    std::string text(450, 'x');
    text[399] = 'y';
    text[400] = 'z';
    NVTraceNS::WriteRecord(NVTraceNS::kKindLine, text.data(), text.size());

    const std::vector<std::uint8_t> bytes = trace.Bytes();
    ASSERT_EQ(at + 7 + 400, bytes.size());
    const DWORD tid = ::GetCurrentThreadId();
    const std::vector<std::uint8_t> head = {static_cast<std::uint8_t>(tid), static_cast<std::uint8_t>(tid >> 8),
                                            static_cast<std::uint8_t>(tid >> 16),
                                            static_cast<std::uint8_t>(tid >> 24), 'U', 0x90, 0x01};
    EXPECT_EQ(head, std::vector<std::uint8_t>(bytes.begin() + static_cast<long>(at),
                                              bytes.begin() + static_cast<long>(at + 7)));
    std::vector<std::uint8_t> expected(text.begin(), text.begin() + 400);
    NVTraceNS::ScrambleRecordText(expected.data(), expected.size());
    EXPECT_EQ(expected, std::vector<std::uint8_t>(bytes.begin() + static_cast<long>(at + 7), bytes.end()));
}

namespace {

// An output that counts its end.
class CountedOutput : public NVTraceNS::COutput {
public:
    explicit CountedOutput(int* ended) : m_ended(ended) {}
    ~CountedOutput() override { ++*m_ended; }
    void Write(const void*, std::size_t) override {}

private:
    int* m_ended;
};

} // namespace

TEST_F(TraceFacilityTest, TraceLockDestructionEndsItsOutputAndRefusesEveryLaterEntry)
{
    int ended = 0;
    NVTraceNS::COutput* output = new CountedOutput(&ended);
    alignas(NVTraceNS::CTraceLock) unsigned char storage[sizeof(NVTraceNS::CTraceLock)];
    auto* lock = new (storage) NVTraceNS::CTraceLock(output);
    ASSERT_TRUE(lock->Enter());
    lock->Leave();
    EXPECT_EQ(0, ended);

    lock->~CTraceLock();
    EXPECT_EQ(1, ended);
    EXPECT_EQ(nullptr, output);
    // Asked after its end, as the library's own lock is while the process ends.
    EXPECT_FALSE(lock->Enter());
}

TEST_F(TraceFacilityTest, OutputIsNoneWithoutTheTracingKeyOrItsDoTrace)
{
    // Made at the first call, from the settings as they stand then.
    DeleteTree(kTracing, kViewNative);
    TraceCapture::ResetInProcess();
    EXPECT_NE(nullptr, dynamic_cast<NVTraceNS::CNoOutput*>(NVTraceNS::GetOutput()));

    CreateKeyPath(kTracing, kViewNative);
    SetDword(kTracing, L"TraceToFile", 1, kViewNative);
    TraceCapture::ResetInProcess();
    EXPECT_NE(nullptr, dynamic_cast<NVTraceNS::CNoOutput*>(NVTraceNS::GetOutput()));

    SetDword(kTracing, L"DoTrace", 1, kViewNative);
    SetString(kTracing, L"FileName", trace.path(), kViewNative);
    TraceCapture::ResetInProcess();
    EXPECT_NE(nullptr, dynamic_cast<NVTraceNS::CFileOutput*>(NVTraceNS::GetOutput()));
    TraceCapture::ResetInProcess();
    EXPECT_TRUE(trace.FileExists());
}

TEST_F(TraceFacilityTest, NoOutputThatCannotBeAllocatedIsMadeAtTheNextCall)
{
    SetDword(kTracing, L"DoTrace", 0, kViewNative);
    TraceCapture::ResetInProcess();
    {
        AllocationFaults oom(1, sizeof(NVTraceNS::CNoOutput));
        EXPECT_EQ(nullptr, NVTraceNS::GetOutput());
        EXPECT_EQ(1u, oom.failed());
    }
    EXPECT_NE(nullptr, dynamic_cast<NVTraceNS::CNoOutput*>(NVTraceNS::GetOutput()));
}

TEST_F(TraceFacilityTest, DoProfilingZeroKeepsTheLines)
{
    SetDword(kTracing, L"DoProfiling", 0, kViewNative);
    TraceCapture::ResetInProcess();
    OneScope();
    EXPECT_EQ(OneScopeLines(), trace.Lines());
}

TEST_F(TraceFacilityTest, FileOutputWritesNothingForANullRecordOrOneOver4GiB)
{
    {
        NVTraceNS::CFileOutput output;
        ASSERT_NE(INVALID_HANDLE_VALUE, output.m_hFile);
        const std::size_t header = trace.Bytes().size();
        std::uint8_t record[NVTraceNS::kRecordHeadSize] = {1, 0, 0, 0, '<', 0, 0};
        output.Write(nullptr, sizeof(record));
        output.Write(record, std::size_t{0x100000000ull});
        EXPECT_EQ(header, trace.Bytes().size());
        output.Write(record, sizeof(record));
        EXPECT_EQ(header + sizeof(record), trace.Bytes().size());
    }
}

TEST_F(TraceFacilityTest, DirectoryCreationDoesNothingWithoutAPath)
{
    // Run in an empty current folder, where a relative path would be made.
    const std::wstring dir = TempDir() + L"nvnopath_" + std::to_wstring(::GetCurrentProcessId());
    ASSERT_TRUE(::CreateDirectoryW(dir.c_str(), nullptr));
    wchar_t previous[MAX_PATH];
    ::GetCurrentDirectoryW(MAX_PATH, previous);
    ASSERT_TRUE(::SetCurrentDirectoryW(dir.c_str()));
    NVTraceNS::CreateTraceDirectories(nullptr);
    NVTraceNS::CreateTraceDirectories(L"");
    ::SetCurrentDirectoryW(previous);
    // Empty: the folder can be removed.
    EXPECT_TRUE(::RemoveDirectoryW(dir.c_str()));
}
