// The trace file written by the real library (NVDBConv.dll, loaded and freed):
// its header with the library's own file version, its records, its file name, and
// the file being complete once the library is gone.
#include <windows.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/dll_loader.h"
#include "support/trace_capture.h"

using namespace nvtest;

namespace {

constexpr const wchar_t kTracing[] = L"SOFTWARE\\Norvane\\Tracing";

std::wstring TempDir()
{
    wchar_t dir[MAX_PATH];
    DWORD n = ::GetTempPathW(MAX_PATH, dir);
    return std::wstring(dir, n);
}

bool Exists(const std::wstring& path) { return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

// What loading the library writes when there is no database.
const std::vector<std::string> kLoadWithoutDatabase = {"> CNVComModule::Init", "<", "> CDBConverter::FinalConstruct",
                                                       "E -2147024894 ", "<"};

std::vector<std::string> BodyLines(const nvtrace::DecodedTrace& decoded)
{
    std::vector<std::string> lines;
    for (const nvtrace::Record& r : decoded.records) {
        if (r.kind != 't' && r.kind != 'T' && r.kind != 'N')
            lines.push_back(nvtrace::CanonicalLine(r));
    }
    return lines;
}

} // namespace

class TraceDllTest : public TraceCaptureTest {};

TEST_F(TraceDllTest, LibraryTracesItsLoadWithItsOwnFileVersionInTheHeader)
{
    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
        DWORD current = 0xDEADBEEF, target = 0xDEADBEEF;
        EXPECT_EQ(S_OK, dll.GetDBVersion(&current, &target));
        EXPECT_EQ(E_FAIL, dll.Convert());
    }
    const std::vector<std::string> header = trace.HeaderLines();
    ASSERT_EQ(11u, header.size()) << trace.Dump();
    EXPECT_EQ("trace3", header[0]);
    EXPECT_EQ(0u, header[1].find("Compiled: "));
    EXPECT_EQ("Trace Ver: 3.0.1", header[5]);
    EXPECT_EQ("FileVersion: 3.0.1.0", header[6]);
    EXPECT_EQ("No Palmera products found", header[7]);
    EXPECT_EQ(".", header[10]);
    // No database: the version lookup fails with file-not-found, as a result record.
    EXPECT_EQ(kLoadWithoutDatabase, trace.Lines()) << trace.Dump();
    const std::vector<nvtrace::Record> records = trace.Records();
    ASSERT_GE(records.size(), 2u);
    EXPECT_EQ("t", std::string(1, records[0].kind));
    EXPECT_EQ("T", std::string(1, records[1].kind));
}

TEST_F(TraceDllTest, LibraryTracesTheVersionItFound)
{
    SetString(L"SOFTWARE\\Norvane\\DB", L"Version", L"3.0", kView32);
    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
    }
    EXPECT_EQ((std::vector<std::string>{"> CNVComModule::Init", "<", "> CDBConverter::FinalConstruct",
                                        "U wszVersion = 3.0", "U m_dwVersion = 0x30000",
                                        "> CBaseConverter::CreateConverter", "U Returning NULL", "<", "<"}),
              trace.Lines())
        << trace.Dump();
    EXPECT_EQ((std::vector<std::string>{"U Returning NULL"}), trace.LinesInScope("CBaseConverter::CreateConverter"));
}

TEST_F(TraceDllTest, RecordsReachTheFileAsWrittenAndTheFileIsClosedWhenTheLibraryIsFreed)
{
    LoadedLibrary dll;
    ASSERT_TRUE(dll.loaded());
    EXPECT_EQ(kLoadWithoutDatabase, trace.Lines());
    // The library holds the file open (shared for reading and writing only).
    EXPECT_FALSE(::DeleteFileW(trace.path().c_str()));
    dll.Unload();
    EXPECT_TRUE(::DeleteFileW(trace.path().c_str()));
}

TEST_F(TraceDllTest, EveryLoadAppendsWhenNewFileAlwaysIsZero)
{
    SetDword(kTracing, L"NewFileAlways", 0, kViewNative);
    for (int i = 0; i < 2; ++i) {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
    }
    const nvtrace::DecodedTrace decoded = trace.Decode();
    ASSERT_TRUE(decoded.ok) << decoded.error;
    // The second load reopens the file: its 'N' record, then its own date and time.
    std::vector<std::string> lines;
    for (const nvtrace::Record& r : decoded.records) {
        if (r.kind != 'T')
            lines.push_back(std::string(1, r.kind));
    }
    EXPECT_EQ((std::vector<std::string>{"t", ">", "<", ">", "E", "<", "N", "t", ">", "<", ">", "E", "<"}), lines)
        << trace.Dump();
    EXPECT_EQ(2u, trace.Count("> CDBConverter::FinalConstruct"));
    EXPECT_EQ(11u, decoded.header.size());
}

TEST_F(TraceDllTest, LibraryNamesItsFileAfterTheHostAndItself)
{
    const std::wstring dir = TempDir() + L"nvdlltrace_" + std::to_wstring(::GetCurrentProcessId());
    DeleteValue(kTracing, L"FileName", kViewNative);
    SetString(kTracing, L"TracePath", dir, kViewNative);
    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
    }
    DWORD session = 0;
    ::ProcessIdToSessionId(::GetCurrentProcessId(), &session);
    const std::wstring file = dir + L"\\trace_dll_test.NVDBConv.dll.x64." + std::to_wstring(session) + L".trc3";
    ASSERT_TRUE(Exists(file));
    HANDLE h = ::CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    std::vector<std::uint8_t> bytes(::GetFileSize(h, nullptr));
    DWORD read = 0;
    ::ReadFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr);
    ::CloseHandle(h);
    const nvtrace::DecodedTrace decoded = nvtrace::Decode(bytes);
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_EQ(kLoadWithoutDatabase, BodyLines(decoded));
    EXPECT_EQ("FileVersion: 3.0.1.0", decoded.header.at(6));
    EXPECT_TRUE(::DeleteFileW(file.c_str()));
    EXPECT_TRUE(::RemoveDirectoryW(dir.c_str()));
}

TEST_F(TraceDllTest, ComponentListsApplyToTheLibrarysName)
{
    // Switched off by name (any case): only the result record, which no list holds back.
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\ComponentsNOT", L"nvdbconv", 0, kViewNative);
    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
    }
    EXPECT_EQ((std::vector<std::string>{"E -2147024894 "}), trace.Lines());

    // The host's name is not the library's: a Components list naming only the host
    // switches the library off as well.
    DeleteTree(L"SOFTWARE\\Norvane\\Tracing\\ComponentsNOT", kViewNative);
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\Components", L"trace_dll_test", 0, kViewNative);
    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
    }
    EXPECT_EQ((std::vector<std::string>{"E -2147024894 "}), trace.Lines());

    SetDword(L"SOFTWARE\\Norvane\\Tracing\\Components", L"NVDBConv", 0, kViewNative);
    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
    }
    EXPECT_EQ(kLoadWithoutDatabase, trace.Lines());
}

TEST_F(TraceDllTest, LibraryWritesNothingWhenTracingIsOff)
{
    SetDword(kTracing, L"DoTrace", 0, kViewNative);
    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
        EXPECT_EQ(E_FAIL, dll.Convert());
    }
    EXPECT_FALSE(trace.FileExists());
}
