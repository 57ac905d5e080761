// The trace file's header: line order, the operating system table, the file version
// rule, the product lines and the installation line.
#include <windows.h>
#include <aclapi.h>
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "support/import_fault.h"
#include "support/import_patch.h"
#include "support/dll_loader.h"
#include "support/trace_capture.h"
#include "support/computer_name.h"
#include "trace/trace.h"
#include "trace/traceoutput.h"

using namespace nvtest;

namespace {

constexpr const wchar_t kProducts[] = L"SOFTWARE\\Norvane\\Products";
constexpr const wchar_t kPolicies[] = L"SOFTWARE\\Policies\\Norvane";

OSVERSIONINFOEXA g_version;
BOOL FakeVersion(OSVERSIONINFOEXA* info)
{
    *info = g_version;
    return TRUE;
}
BOOL FailingVersion(OSVERSIONINFOEXA*) { return FALSE; }

void FixedLocalTime(SYSTEMTIME* time)
{
    *time = SYSTEMTIME{};
    time->wYear = 2026;
    time->wMonth = 3;
    time->wDay = 7;
    time->wHour = 4;
    time->wMinute = 5;
    time->wSecond = 6;
    time->wMilliseconds = 7;
}

void SetVersion(DWORD platform, DWORD major, DWORD minor, BYTE productType, const char* servicePack)
{
    g_version = OSVERSIONINFOEXA{};
    g_version.dwOSVersionInfoSize = sizeof(g_version);
    g_version.dwPlatformId = platform;
    g_version.dwMajorVersion = major;
    g_version.dwMinorVersion = minor;
    g_version.wProductType = productType;
    std::strncpy(g_version.szCSDVersion, servicePack, sizeof(g_version.szCSDVersion) - 1);
}

std::wstring TempDir()
{
    wchar_t dir[MAX_PATH];
    DWORD n = ::GetTempPathW(MAX_PATH, dir);
    return std::wstring(dir, n);
}

// A copy of NVDBConv.dll whose version resource says file 5.1.2.3, product 5.1.7.9.
std::wstring MakeRevisionedCopy()
{
    const std::wstring original = ExeDirectory() + L"NVDBConv.dll";
    const std::wstring copy = TempDir() + L"nvver_" + std::to_wstring(::GetCurrentProcessId()) + L".dll";
    EXPECT_TRUE(::CopyFileW(original.c_str(), copy.c_str(), FALSE));

    std::vector<BYTE> resource;
    HMODULE data = ::LoadLibraryExW(original.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
    EXPECT_NE(nullptr, data);
    if (HRSRC found = ::FindResourceW(data, MAKEINTRESOURCEW(VS_VERSION_INFO), MAKEINTRESOURCEW(16))) {
        const BYTE* bytes = static_cast<const BYTE*>(::LockResource(::LoadResource(data, found)));
        resource.assign(bytes, bytes + ::SizeofResource(data, found));
    }
    ::FreeLibrary(data);
    EXPECT_FALSE(resource.empty());

    bool patched = false;
    for (std::size_t i = 0; i + sizeof(VS_FIXEDFILEINFO) <= resource.size(); i += 4) {
        VS_FIXEDFILEINFO fixed;
        std::memcpy(&fixed, resource.data() + i, sizeof(fixed));
        if (fixed.dwSignature != 0xFEEF04BD)
            continue;
        fixed.dwFileVersionMS = MAKELONG(1, 5);
        fixed.dwFileVersionLS = MAKELONG(3, 2);
        fixed.dwProductVersionMS = MAKELONG(1, 5);
        fixed.dwProductVersionLS = MAKELONG(9, 7);
        std::memcpy(resource.data() + i, &fixed, sizeof(fixed));
        patched = true;
        break;
    }
    EXPECT_TRUE(patched);

    HANDLE update = ::BeginUpdateResourceW(copy.c_str(), TRUE);
    EXPECT_NE(nullptr, update);
    EXPECT_TRUE(::UpdateResourceW(update, MAKEINTRESOURCEW(16), MAKEINTRESOURCEW(VS_VERSION_INFO),
                                  MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), resource.data(),
                                  static_cast<DWORD>(resource.size())));
    EXPECT_TRUE(::EndUpdateResourceW(update, FALSE));
    return copy;
}

} // namespace

class TraceHeaderTest : public TraceCaptureTest {
protected:
    void SetUp() override
    {
        NVTraceNS::SetLocalTimeSourceForTesting(&FixedLocalTime);
        SetVersion(VER_PLATFORM_WIN32_NT, 6, 1, VER_NT_WORKSTATION, "Service Pack 1");
        NVTraceNS::SetVersionSourceForTesting(&FakeVersion);
        TraceCaptureTest::SetUp();
    }
    void TearDown() override
    {
        TraceCaptureTest::TearDown();
        NVTraceNS::SetLocalTimeSourceForTesting(nullptr);
        NVTraceNS::SetVersionSourceForTesting(nullptr);
        NVTraceNS::SetModuleHandle(nullptr);
    }
    static void OneScope()
    {
        NVTraceNS::CTraceScope scope("CFoo::Bar", 0);
    }
};

TEST_F(TraceHeaderTest, NewFileBeginsWithEveryHeaderLineInOrder)
{
    OneScope();
    const std::vector<std::string> header = trace.HeaderLines();
    ASSERT_EQ(11u, header.size()) << trace.Dump();
    EXPECT_TRUE(std::regex_match(header[1], std::regex("Compiled: (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
                                                       "[ 1-3][0-9] [0-9]{4} [0-2][0-9]:[0-5][0-9]:[0-5][0-9]")))
        << header[1];
    EXPECT_EQ((std::vector<std::string>{"trace3", header[1], "OS: Windows7", "ServicePack: Service Pack 1",
                                        "Machine name: " + Narrow(ComputerName()), "Trace Ver: 3.0.1", "FileVersion: UNKNOWN",
                                        "No Palmera products found", "installation: NETWORK",
                                        "03/07/2026 04:05:06.007", "."}),
              header);
    EXPECT_EQ((std::vector<std::string>{"> CFoo::Bar", "<"}), trace.Lines());
}

TEST_F(TraceHeaderTest, HeaderIsPlainTextWithCrLfLinesFollowedByTheRecords)
{
    OneScope();
    const std::vector<std::uint8_t> bytes = trace.Bytes();
    const std::string text(bytes.begin(), bytes.end());
    ASSERT_EQ(0u, text.find("trace3\r\nCompiled: "));
    EXPECT_NE(std::string::npos, text.find("\r\nOS: Windows7\r\nServicePack: Service Pack 1\r\nMachine name: "));
    EXPECT_NE(std::string::npos, text.find("\r\nTrace Ver: 3.0.1\r\nFileVersion: UNKNOWN\r\nNo Palmera products found\r\n"
                                           "installation: NETWORK\r\n03/07/2026 04:05:06.007\r\n.\r\n"));
    const nvtrace::DecodedTrace decoded = trace.Decode();
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_EQ(text.find("\r\n.\r\n") + 5, decoded.bodyOffset);
    // The header is written once, however many records follow.
    OneScope();
    OneScope();
    EXPECT_EQ(11u, trace.HeaderLines().size());
    EXPECT_EQ(6u, trace.Lines().size());
}

TEST_F(TraceHeaderTest, OperatingSystemTable)
{
    struct Row {
        DWORD platform, major, minor;
        BYTE type;
        const char* line;
    };
    const Row rows[] = {
        {VER_PLATFORM_WIN32_NT, 6, 1, VER_NT_WORKSTATION, "OS: Windows7\r\n"},
        {VER_PLATFORM_WIN32_NT, 6, 1, VER_NT_SERVER, "OS: Windows7\r\n"},
        {VER_PLATFORM_WIN32_NT, 6, 0, VER_NT_WORKSTATION, "OS: WindowsVista\r\n"},
        {VER_PLATFORM_WIN32_NT, 6, 0, VER_NT_SERVER, "OS: Server2008\r\n"},
        {VER_PLATFORM_WIN32_NT, 6, 0, VER_NT_DOMAIN_CONTROLLER, "OS: Server2008\r\n"},
        {VER_PLATFORM_WIN32_NT, 5, 1, VER_NT_WORKSTATION, "OS: WindowsXP\r\n"},
        {VER_PLATFORM_WIN32_NT, 5, 2, VER_NT_SERVER, "OS: Server2003\r\n"},
        {VER_PLATFORM_WIN32_NT, 5, 0, VER_NT_WORKSTATION, "OS: Windows2000\r\n"},
        {VER_PLATFORM_WIN32_NT, 5, 3, VER_NT_WORKSTATION, "OS: Windows2000\r\n"},
        {VER_PLATFORM_WIN32_NT, 6, 2, VER_NT_WORKSTATION, "OS: UNKNOWN OS(Major:6 Minor:2)\r\n"},
        {VER_PLATFORM_WIN32_NT, 6, 3, VER_NT_WORKSTATION, "OS: UNKNOWN OS(Major:6 Minor:3)\r\n"},
        {VER_PLATFORM_WIN32_NT, 10, 0, VER_NT_WORKSTATION, "OS: UNKNOWN OS(Major:10 Minor:0)\r\n"},
        {VER_PLATFORM_WIN32_NT, 4, 0, VER_NT_WORKSTATION, "OS: UNKNOWN OS(Major:4 Minor:0)\r\n"},
        {VER_PLATFORM_WIN32_WINDOWS, 6, 1, VER_NT_WORKSTATION, "OS: UNKNOWN OS(Major:6 Minor:1)\r\n"},
        {VER_PLATFORM_WIN32_WINDOWS, 4, 10, 0, "OS: UNKNOWN OS(Major:4 Minor:10)\r\n"},
    };
    for (const Row& row : rows) {
        SetVersion(row.platform, row.major, row.minor, row.type, "Service Pack 2");
        EXPECT_EQ(std::string(row.line) + "ServicePack: Service Pack 2\r\n", NVTraceNS::OsHeaderLines())
            << row.major << "." << row.minor;
    }
    SetVersion(VER_PLATFORM_WIN32_NT, 6, 1, VER_NT_WORKSTATION, "");
    EXPECT_EQ("OS: Windows7\r\nServicePack: \r\n", NVTraceNS::OsHeaderLines());
}

TEST_F(TraceHeaderTest, VersionSixTwoGivesTheUnknownLineInTheFile)
{
    SetVersion(VER_PLATFORM_WIN32_NT, 6, 2, VER_NT_WORKSTATION, "");
    OneScope();
    const std::vector<std::string> header = trace.HeaderLines();
    ASSERT_EQ(11u, header.size());
    EXPECT_EQ("OS: UNKNOWN OS(Major:6 Minor:2)", header[2]);
    EXPECT_EQ("ServicePack: ", header[3]);
}

TEST_F(TraceHeaderTest, FailingVersionQueryGivesTheUnknownLineWithZeros)
{
    NVTraceNS::SetVersionSourceForTesting(&FailingVersion);
    EXPECT_EQ("OS: UNKNOWN OS(Major:0 Minor:0)\r\nServicePack: \r\n", NVTraceNS::OsHeaderLines());
}

TEST_F(TraceHeaderTest, SystemVersionRecordIsRead)
{
    // Wine presents itself as Windows 7 with Service Pack 1.
    NVTraceNS::SetVersionSourceForTesting(nullptr);
    EXPECT_EQ("OS: Windows7\r\nServicePack: Service Pack 1\r\n", NVTraceNS::OsHeaderLines());
}

TEST_F(TraceHeaderTest, FileVersionOfAModuleWithoutVersionResourceIsUnknown)
{
    EXPECT_EQ("FileVersion: UNKNOWN\r\n", NVTraceNS::FileVersionHeaderLine(nullptr));
}

TEST_F(TraceHeaderTest, FileVersionOfTheLibrary)
{
    LoadedLibrary dll;
    ASSERT_TRUE(dll.loaded());
    EXPECT_EQ("FileVersion: 3.0.1.0\r\n", NVTraceNS::FileVersionHeaderLine(dll.module()));
}

TEST_F(TraceHeaderTest, FileVersionTakesItsLastTwoNumbersFromTheProductVersion)
{
    const std::wstring copy = MakeRevisionedCopy();
    HMODULE module = ::LoadLibraryExW(copy.c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES);
    ASSERT_NE(nullptr, module) << ::GetLastError();
    EXPECT_EQ("FileVersion: 5.1.7.9\r\n", NVTraceNS::FileVersionHeaderLine(module));

    // And in a file written for that module.
    NVTraceNS::SetModuleHandle(module);
    TraceCapture::ResetInProcess();
    OneScope();
    TraceCapture::ResetInProcess();
    NVTraceNS::SetModuleHandle(nullptr);
    const std::vector<std::string> header = trace.HeaderLines();
    ASSERT_EQ(11u, header.size());
    EXPECT_EQ("FileVersion: 5.1.7.9", header[6]);
    ::FreeLibrary(module);
    EXPECT_TRUE(::DeleteFileW(copy.c_str()));
}

TEST_F(TraceHeaderTest, NoProductsKeyOrNoSubkeysGivesTheNoProductsLine)
{
    EXPECT_EQ((std::vector<std::string>{"No Palmera products found\r\n"}), NVTraceNS::ProductHeaderLines());
    CreateKeyPath(kProducts, kViewNative);
    SetString(kProducts, L"Version", L"9.9", kViewNative); // values alone are no products
    EXPECT_EQ((std::vector<std::string>{"No Palmera products found\r\n"}), NVTraceNS::ProductHeaderLines());
}

TEST_F(TraceHeaderTest, ProductsOnlyInThe32BitViewAreNotSeen)
{
    SetString(L"SOFTWARE\\Norvane\\Products\\Alpha", L"Version", L"1.0", kView32);
    EXPECT_EQ((std::vector<std::string>{"No Palmera products found\r\n"}), NVTraceNS::ProductHeaderLines());
}

TEST_F(TraceHeaderTest, OneLinePerProductWithItsVersionOrTheError)
{
    CreateKeyPath(L"SOFTWARE\\Norvane\\Products\\Alpha", kViewNative);
    SetString(L"SOFTWARE\\Norvane\\Products\\Alpha", L"Version", L"4.2.0.17", kViewNative);
    CreateKeyPath(L"SOFTWARE\\Norvane\\Products\\Beta", kViewNative);
    CreateKeyPath(L"SOFTWARE\\Norvane\\Products\\Gamma", kViewNative);
    SetString(L"SOFTWARE\\Norvane\\Products\\Gamma", L"Version", std::wstring(300, L'9'), kViewNative);
    CreateKeyPath(L"SOFTWARE\\Norvane\\Products\\Delta", kViewNative);
    SetBinary(L"SOFTWARE\\Norvane\\Products\\Delta", L"Version", {'3', '.', '1', 0}, kViewNative);
    EXPECT_EQ((std::vector<std::string>{"Product: Alpha; Version: 4.2.0.17\r\n", "Product: Beta; Version: ERROR(0x2)\r\n",
                                        "Product: Delta; Version: 3.1\r\n", "Product: Gamma; Version: ERROR(0xEA)\r\n"}),
              NVTraceNS::ProductHeaderLines());

    OneScope();
    const std::vector<std::string> header = trace.HeaderLines();
    ASSERT_EQ(14u, header.size()) << trace.Dump();
    EXPECT_EQ((std::vector<std::string>{"FileVersion: UNKNOWN", "Product: Alpha; Version: 4.2.0.17",
                                        "Product: Beta; Version: ERROR(0x2)", "Product: Delta; Version: 3.1",
                                        "Product: Gamma; Version: ERROR(0xEA)", "installation: NETWORK"}),
              std::vector<std::string>(header.begin() + 6, header.begin() + 12));
}

TEST_F(TraceHeaderTest, LongProductLineIsCutAndStillEndsInCrLf)
{
    const std::wstring name(250, L'p');
    CreateKeyPath((std::wstring(kProducts) + L"\\" + name).c_str(), kViewNative);
    SetString((std::wstring(kProducts) + L"\\" + name).c_str(), L"Version", L"1.0", kViewNative);
    const std::string full = "Product: " + std::string(250, 'p') + "; Version: 1.0\r\n";
    ASSERT_GT(full.size(), 260u);
    EXPECT_EQ((std::vector<std::string>{full.substr(0, 258) + "\r\n"}), NVTraceNS::ProductHeaderLines());
}

TEST_F(TraceHeaderTest, ProductKeyThatCannotBeOpenedGivesItsErrorLine)
{
    const std::wstring locked = std::wstring(kProducts) + L"\\Locked";
    CreateKeyPath(locked.c_str(), kViewNative);
    // An empty DACL: nobody may read the key.
    ACL empty;
    ASSERT_TRUE(::InitializeAcl(&empty, sizeof(empty), ACL_REVISION));
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, locked.c_str(), 0, WRITE_DAC, &key));
    ASSERT_EQ(ERROR_SUCCESS, ::SetSecurityInfo(key, SE_REGISTRY_KEY, DACL_SECURITY_INFORMATION, nullptr, nullptr, &empty,
                                               nullptr));
    ::RegCloseKey(key);

    const std::vector<std::string> lines = NVTraceNS::ProductHeaderLines();

    // Give the key back to the sandbox, which deletes it.
    ASSERT_EQ(ERROR_SUCCESS, ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, locked.c_str(), 0, WRITE_DAC, &key));
    ::SetSecurityInfo(key, SE_REGISTRY_KEY, DACL_SECURITY_INFORMATION | UNPROTECTED_DACL_SECURITY_INFORMATION, nullptr,
                      nullptr, nullptr, nullptr);
    ::RegCloseKey(key);

    EXPECT_EQ((std::vector<std::string>{"Product: Locked ERROR(0x5)\r\n"}), lines);
}

TEST_F(TraceHeaderTest, InstallationIsLocalOnlyForANetworkSupportDwordOfZero)
{
    EXPECT_EQ("installation: NETWORK\r\n", NVTraceNS::InstallationHeaderLine()); // no policy key
    CreateKeyPath(kPolicies, kViewNative);
    EXPECT_EQ("installation: NETWORK\r\n", NVTraceNS::InstallationHeaderLine()); // no value
    SetDword(kPolicies, L"NetworkSupport", 0, kViewNative);
    EXPECT_EQ("installation: LOCAL\r\n", NVTraceNS::InstallationHeaderLine());
    SetDword(kPolicies, L"NetworkSupport", 1, kViewNative);
    EXPECT_EQ("installation: NETWORK\r\n", NVTraceNS::InstallationHeaderLine());
    SetString(kPolicies, L"NetworkSupport", L"0", kViewNative);
    EXPECT_EQ("installation: NETWORK\r\n", NVTraceNS::InstallationHeaderLine());
}

TEST_F(TraceHeaderTest, LocalInstallationInTheFile)
{
    SetDword(kPolicies, L"NetworkSupport", 0, kViewNative);
    OneScope();
    const std::vector<std::string> header = trace.HeaderLines();
    ASSERT_EQ(11u, header.size());
    EXPECT_EQ("installation: LOCAL", header[8]);
}

TEST_F(TraceHeaderTest, AppendedFileGetsNoSecondHeader)
{
    OneScope();
    TraceCapture::ResetInProcess();
    SetDword(L"SOFTWARE\\Norvane\\Tracing", L"NewFileAlways", 0, kViewNative);
    TraceCapture::ResetInProcess();
    OneScope();
    const std::vector<std::uint8_t> bytes = trace.Bytes();
    const std::string text(bytes.begin(), bytes.end());
    EXPECT_EQ(0u, text.find("trace3\r\n"));
    EXPECT_EQ(std::string::npos, text.find("trace3\r\n", 1));
    EXPECT_EQ(std::string::npos, text.find("Compiled: ", text.find("Compiled: ") + 1));
    EXPECT_EQ((std::vector<std::string>{"t 03/07/26", "T 04:05:06.007", "> CFoo::Bar", "<", "N 03-07-2026",
                                        "t 03/07/26", "T 04:05:06.007", "> CFoo::Bar", "<"}),
              trace.AllLines());
}

TEST_F(TraceHeaderTest, FileVersionIsUnknownWhenTheVersionLibraryItsFunctionsOrTheModulesPathCannotBeHad)
{
    LoadedLibrary dll;
    ASSERT_TRUE(dll.loaded());
    ASSERT_EQ("FileVersion: 3.0.1.0\r\n", NVTraceNS::FileVersionHeaderLine(dll.module()));
    {
        ImportFault<decltype(&::LoadLibraryExW)> fault("LoadLibraryExW", nullptr, ERROR_MOD_NOT_FOUND);
        EXPECT_EQ("FileVersion: UNKNOWN\r\n", NVTraceNS::FileVersionHeaderLine(dll.module()));
        EXPECT_EQ(1u, fault.calls());
    }
    for (unsigned missing = 1; missing <= 3; ++missing) {
        ImportFault<decltype(&::GetProcAddress)> fault("GetProcAddress", nullptr, ERROR_PROC_NOT_FOUND, missing);
        EXPECT_EQ("FileVersion: UNKNOWN\r\n", NVTraceNS::FileVersionHeaderLine(dll.module())) << missing;
        EXPECT_EQ(3u, fault.calls()); // all three are looked up, then the missing one refused
    }
    {
        ImportFault<decltype(&::GetModuleFileNameA)> fault("GetModuleFileNameA", 0, ERROR_INSUFFICIENT_BUFFER);
        EXPECT_EQ("FileVersion: UNKNOWN\r\n", NVTraceNS::FileVersionHeaderLine(dll.module()));
        EXPECT_EQ(1u, fault.calls());
    }
    {
        // A path that filled the whole buffer was cut: not the module's.
        ImportFault<decltype(&::GetModuleFileNameA)> fault("GetModuleFileNameA", MAX_PATH, ERROR_INSUFFICIENT_BUFFER);
        EXPECT_EQ("FileVersion: UNKNOWN\r\n", NVTraceNS::FileVersionHeaderLine(dll.module()));
        EXPECT_EQ(1u, fault.calls());
    }
}

namespace {

// Version.dll's functions are looked up at run time; GetProcAddress hands out a
// stand-in for one of them.
const char* g_standInName = nullptr;
FARPROC g_standIn = nullptr;
FARPROC(WINAPI* g_realGetProcAddress)(HMODULE, LPCSTR) = nullptr;

FARPROC WINAPI StandInGetProcAddress(HMODULE module, LPCSTR name)
{
    if (!IS_INTRESOURCE(name) && std::strcmp(name, g_standInName) == 0)
        return g_standIn;
    return g_realGetProcAddress(module, name);
}

template <class Fn>
std::string FileVersionLineWithStandIn(HMODULE module, const char* name, Fn standIn)
{
    ImportPatch patch(::GetModuleHandleW(nullptr), {{"GetProcAddress", reinterpret_cast<void*>(&StandInGetProcAddress)}});
    EXPECT_TRUE(patch.ok());
    g_realGetProcAddress = reinterpret_cast<FARPROC(WINAPI*)(HMODULE, LPCSTR)>(patch.Original("GetProcAddress"));
    g_standInName = name;
    g_standIn = reinterpret_cast<FARPROC>(reinterpret_cast<void*>(standIn));
    return NVTraceNS::FileVersionHeaderLine(module);
}

BOOL WINAPI FailingGetFileVersionInfo(LPCSTR, DWORD, DWORD, LPVOID)
{
    ::SetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
    return FALSE;
}

BOOL WINAPI FailingVerQueryValue(LPCVOID, LPCSTR, LPVOID*, PUINT)
{
    return FALSE;
}

BOOL WINAPI VerQueryValueWithoutInfo(LPCVOID, LPCSTR, LPVOID* value, PUINT length)
{
    *value = nullptr;
    *length = sizeof(VS_FIXEDFILEINFO);
    return TRUE;
}

BOOL WINAPI VerQueryValueWithShortInfo(LPCVOID block, LPCSTR, LPVOID* value, PUINT length)
{
    *value = const_cast<LPVOID>(block);
    *length = sizeof(VS_FIXEDFILEINFO) - 1;
    return TRUE;
}

} // namespace

TEST_F(TraceHeaderTest, FileVersionIsUnknownWhenTheVersionBlockOrItsFixedPartCannotBeRead)
{
    LoadedLibrary dll;
    ASSERT_TRUE(dll.loaded());
    EXPECT_EQ("FileVersion: UNKNOWN\r\n",
              FileVersionLineWithStandIn(dll.module(), "GetFileVersionInfoA", &FailingGetFileVersionInfo));
    EXPECT_EQ("FileVersion: UNKNOWN\r\n",
              FileVersionLineWithStandIn(dll.module(), "VerQueryValueA", &FailingVerQueryValue));
    EXPECT_EQ("FileVersion: UNKNOWN\r\n",
              FileVersionLineWithStandIn(dll.module(), "VerQueryValueA", &VerQueryValueWithoutInfo));
    EXPECT_EQ("FileVersion: UNKNOWN\r\n",
              FileVersionLineWithStandIn(dll.module(), "VerQueryValueA", &VerQueryValueWithShortInfo));
    // The stand-ins are what made the difference: the real functions read it.
    EXPECT_EQ("FileVersion: 3.0.1.0\r\n", NVTraceNS::FileVersionHeaderLine(dll.module()));
}

TEST_F(TraceHeaderTest, MachineNameThatCannotBeReadLeavesTheLineEmpty)
{
    {
        ImportFault<decltype(&::GetComputerNameExA)> fault("GetComputerNameExA", FALSE, ERROR_MORE_DATA);
        TraceCapture::ResetInProcess();
        OneScope();
        TraceCapture::ResetInProcess();
        EXPECT_EQ(1u, fault.calls());
    }
    const std::vector<std::string> header = trace.HeaderLines();
    ASSERT_EQ(11u, header.size());
    EXPECT_EQ("Machine name: ", header[4]);
}
