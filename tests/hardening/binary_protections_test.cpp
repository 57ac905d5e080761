// What a security reviewer checks in every binary the project ships, read from the
// files in the bin folder (the lists are shipped-binaries.txt, what a release
// ships, and demo-binaries.txt, the test and demo tools, which get the same
// checks; the build writes both):
// ASLR with high-entropy addresses, DEP, a relocation table, no section both
// writable and executable, the stack protector in use, stripped with a debug link
// whose CRC matches the debug file beside it, a version resource, the exact export
// list of the library, and the imports (static and delay-loaded) against an
// allow-list.
#include <windows.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <cctype>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "nv_version.h"
#include "support/dll_loader.h"
#include "support/pe_file.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"

using namespace nvtest;

namespace {

// The libraries Windows always takes from the system directory (the KnownDLLs of
// every supported release, and ntdll, which every process has). Whatever else a
// tool needs before main runs could be planted beside it.
const std::set<std::string> kAlwaysFromSystemDirectory = {
    "advapi32.dll", "gdi32.dll",  "kernel32.dll", "msvcrt.dll", "ntdll.dll",  "ole32.dll",
    "oleaut32.dll", "rpcrt4.dll", "sechost.dll",  "shell32.dll", "shlwapi.dll", "user32.dll",
};

// Every import of every binary, exactly, static and delay-loaded. A new one fails
// the test until someone has looked at it and added it here (and it must be in
// kAlwaysFromSystemDirectory: each of these is loaded by an elevated installer or
// run elevated); one that is gone fails until it is dropped here. crypt32 and
// netapi32 are reached at run time from the system directory instead.
// (The stack protector's support library takes its canary from advapi32.)
const std::map<std::string, std::set<std::string>> kAllowedImports = {
    {"NVDBConv.dll", {"advapi32.dll", "kernel32.dll", "msvcrt.dll", "ole32.dll", "oleaut32.dll"}},
    {"NVStore.dll", {"advapi32.dll", "kernel32.dll", "msvcrt.dll", "ole32.dll", "oleaut32.dll"}},
    {"nvdbconv.exe", {"advapi32.dll", "kernel32.dll", "msvcrt.dll", "ole32.dll", "oleaut32.dll"}},
    {"nvdbgen.exe", {"advapi32.dll", "kernel32.dll", "msvcrt.dll"}},
    {"nvstorectl.exe", {"advapi32.dll", "kernel32.dll", "msvcrt.dll", "ole32.dll", "oleaut32.dll"}},
    {"nvtrace.exe", {"advapi32.dll", "kernel32.dll", "msvcrt.dll"}},
};

// What a release ships; the other binaries above are test and demo tools.
const std::vector<std::string> kReleased = {"NVDBConv.dll", "nvdbconv.exe", "nvtrace.exe"};

const std::vector<std::string> kLibraryExports = {"Cleanup",           "Convert",          "DllCanUnloadNow",
                                                  "DllGetClassObject", "DllRegisterServer", "DllUnregisterServer",
                                                  "GetDBVersion",      "Rollback"};

std::vector<std::string> ListedBinaries(const wchar_t* listName)
{
    std::vector<std::string> names;
    const std::vector<BYTE> list = ReadFileBytes(ExeDirectory() + listName);
    std::string line;
    for (BYTE b : list) {
        if (b == '\n' || b == '\r') {
            if (!line.empty())
                names.push_back(line);
            line.clear();
        } else {
            line += static_cast<char>(b);
        }
    }
    if (!line.empty())
        names.push_back(line);
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> ReleasedBinaries() { return ListedBinaries(L"shipped-binaries.txt"); }
std::vector<std::string> DemoBinaries() { return ListedBinaries(L"demo-binaries.txt"); }

std::vector<std::string> AllBinaries()
{
    std::vector<std::string> names = ReleasedBinaries();
    for (const std::string& name : DemoBinaries())
        names.push_back(name);
    std::sort(names.begin(), names.end());
    return names;
}

std::string Join(const std::vector<std::string>& items)
{
    std::string text;
    for (const std::string& i : items)
        text += (text.empty() ? "" : " ") + i;
    return text;
}

class ShippedBinary : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(pe.Read(Path(), &error)) << GetParam() << ": " << error;
    }
    std::wstring Path() const { return ExeDirectory() + Widen(GetParam()); }
    PeFile pe;
};

std::string ParamName(const ::testing::TestParamInfo<std::string>& info)
{
    std::string name;
    for (char c : info.param)
        name += isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name;
}

} // namespace

TEST(ShippedBinaries, ListsNameTheLibraryTheStoreAndEveryTool)
{
    std::vector<std::string> expected;
    for (const auto& entry : kAllowedImports)
        expected.push_back(entry.first);
    EXPECT_EQ(expected, AllBinaries()) << "a binary needs its line in kAllowedImports";
}

// The store and the database writer are for tests and demonstrations: a release
// ships the library, its host and the trace decoder only.
TEST(ShippedBinaries, ReleaseListHoldsTheLibraryTheHostAndTheDecoderOnly)
{
    std::vector<std::string> expected = kReleased;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, ReleasedBinaries());
    EXPECT_EQ((std::vector<std::string>{"NVStore.dll", "nvdbgen.exe", "nvstorectl.exe"}), DemoBinaries());
}

TEST_P(ShippedBinary, HasAslrHighEntropyAndDep)
{
    EXPECT_EQ(IMAGE_FILE_MACHINE_AMD64, pe.machine);
    EXPECT_TRUE(pe.dllCharacteristics & IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE) << std::hex << pe.dllCharacteristics;
    EXPECT_TRUE(pe.dllCharacteristics & IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA) << std::hex << pe.dllCharacteristics;
    EXPECT_TRUE(pe.dllCharacteristics & IMAGE_DLLCHARACTERISTICS_NX_COMPAT) << std::hex << pe.dllCharacteristics;
    EXPECT_FALSE(pe.fileCharacteristics & IMAGE_FILE_RELOCS_STRIPPED);
}

TEST_P(ShippedBinary, HasARelocationTable)
{
    const IMAGE_DATA_DIRECTORY& relocs = pe.directory(IMAGE_DIRECTORY_ENTRY_BASERELOC);
    EXPECT_NE(0u, relocs.VirtualAddress);
    EXPECT_GT(relocs.Size, 8u); // at least one block with one entry
    EXPECT_NE(nullptr, pe.AtRva(relocs.VirtualAddress, relocs.Size));
}

TEST_P(ShippedBinary, HasNoSectionBothWritableAndExecutable)
{
    ASSERT_FALSE(pe.sections.empty());
    for (const PeSection& s : pe.sections)
        EXPECT_FALSE(s.writable() && s.executable())
            << s.name << " characteristics 0x" << std::hex << s.characteristics;
}

TEST_P(ShippedBinary, IsStrippedWithADebugLinkToItsDebugFile)
{
    EXPECT_EQ(0u, pe.numberOfSymbols);
    for (const PeSection& s : pe.sections)
        EXPECT_NE(0u, s.name.rfind(".debug_", 0)) << s.name << " left in a shipped binary";

    std::string linkName;
    std::uint32_t linkCrc = 0;
    ASSERT_TRUE(pe.DebugLink(&linkName, &linkCrc));
    EXPECT_EQ(GetParam() + ".debug", linkName);
    const std::vector<BYTE> debugFile = ReadFileBytes(ExeDirectory() + Widen(linkName));
    ASSERT_FALSE(debugFile.empty()) << linkName << " is missing beside " << GetParam();
    EXPECT_EQ(linkCrc, Crc32(debugFile)) << linkName << " does not belong to this build of " << GetParam();
}

// The debug file keeps the symbols; the shipped code must call the protector's
// failure routine from the functions it guards.
TEST_P(ShippedBinary, UsesTheStackProtector)
{
    PeFile debug;
    std::string error;
    ASSERT_TRUE(debug.Read(Path() + L".debug", &error)) << error;
    const std::map<std::string, DWORD> symbols = debug.Symbols();
    ASSERT_EQ(1u, symbols.count("__stack_chk_fail")) << "no stack protector linked into " << GetParam();
    ASSERT_EQ(1u, symbols.count("__stack_chk_guard"));
    EXPECT_GE(pe.CountCallsTo(symbols.at("__stack_chk_fail")), 2u) << "no guarded function in " << GetParam();
}

TEST_P(ShippedBinary, CarriesTheVersionResource)
{
    EXPECT_TRUE(pe.HasVersionResource());
    DWORD handle = 0;
    const DWORD size = ::GetFileVersionInfoSizeW(Path().c_str(), &handle);
    ASSERT_NE(0u, size);
    std::vector<BYTE> data(size);
    ASSERT_TRUE(::GetFileVersionInfoW(Path().c_str(), 0, size, data.data()));
    VS_FIXEDFILEINFO* info = nullptr;
    UINT length = 0;
    ASSERT_TRUE(::VerQueryValueW(data.data(), L"\\", reinterpret_cast<void**>(&info), &length));
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(static_cast<DWORD>(MAKELONG(NV_VERSION_MINOR, NV_VERSION_MAJOR)), info->dwFileVersionMS);
    EXPECT_EQ(static_cast<DWORD>(MAKELONG(NV_VERSION_BUILD, NV_VERSION_PATCH)), info->dwFileVersionLS);
    EXPECT_EQ(info->dwFileVersionMS, info->dwProductVersionMS);
    EXPECT_EQ(info->dwFileVersionLS, info->dwProductVersionLS);
    wchar_t* text = nullptr;
    ASSERT_TRUE(::VerQueryValueW(data.data(), L"\\StringFileInfo\\040904b0\\FileVersion",
                                 reinterpret_cast<void**>(&text), &length));
    EXPECT_EQ(Widen(NV_VERSION_TEXT), std::wstring(text));
}

TEST_P(ShippedBinary, ImportsExactlyItsAllowedLibraries)
{
    const auto allowed = kAllowedImports.find(GetParam());
    ASSERT_NE(kAllowedImports.end(), allowed) << "no allow-list entry for " << GetParam();
    const std::vector<std::string> imported = pe.ImportedDlls();
    ASSERT_FALSE(imported.empty());
    std::vector<std::string> unexpected, gone;
    for (const std::string& dll : imported)
        if (!allowed->second.count(dll))
            unexpected.push_back(dll);
    for (const std::string& dll : allowed->second)
        if (std::find(imported.begin(), imported.end(), dll) == imported.end())
            gone.push_back(dll);
    EXPECT_TRUE(unexpected.empty()) << GetParam() << " imports " << Join(unexpected)
                                    << ": look at why, then add it to kAllowedImports";
    EXPECT_TRUE(gone.empty()) << GetParam() << " no longer imports " << Join(gone) << ": drop it from kAllowedImports";
}

// Each of them runs elevated or is loaded by an elevated installer, from a folder
// where a DLL may have been planted: whatever the loader resolves before its code
// runs, and whatever a delay load resolves through the default search, must be
// something Windows takes from the system directory only.
TEST_P(ShippedBinary, ImportsOnlyWhatWindowsTakesFromTheSystemDirectory)
{
    const std::vector<std::string> dlls = pe.ImportedDlls();
    ASSERT_FALSE(dlls.empty());
    for (const std::string& dll : dlls)
        EXPECT_EQ(1u, kAlwaysFromSystemDirectory.count(dll)) << GetParam() << " imports " << dll;
    for (const PeImport& import : pe.Imports())
        EXPECT_FALSE(import.delayed) << GetParam() << ": " << import.dll << ": delay loads search the default path";
    const auto allowed = kAllowedImports.find(GetParam());
    ASSERT_NE(kAllowedImports.end(), allowed);
    for (const std::string& dll : allowed->second)
        EXPECT_EQ(1u, kAlwaysFromSystemDirectory.count(dll)) << "allow-list of " << GetParam() << " names " << dll;
}

INSTANTIATE_TEST_SUITE_P(Bin, ShippedBinary, ::testing::ValuesIn(AllBinaries()), ParamName);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(ShippedBinary);

TEST(ShippedBinaries, LibraryExportsExactlyItsEightFunctions)
{
    PeFile pe;
    std::string error;
    ASSERT_TRUE(pe.Read(ExeDirectory() + L"NVDBConv.dll", &error)) << error;
    EXPECT_EQ(kLibraryExports, pe.Exports());
}

// The import checks see delay loads as MinGW links them: GNU ld leaves the
// delay-load directory empty, and the descriptors are found in the sections.
TEST(ShippedBinaries, ImportReaderSeesADelayLoadedLibrary)
{
    PeFile pe;
    std::string error;
    ASSERT_TRUE(pe.Read(ExeDirectory() + L"delayload_probe.dll", &error)) << error;
    std::vector<PeImport> delayed;
    for (const PeImport& import : pe.Imports())
        if (import.delayed)
            delayed.push_back(import);
    ASSERT_EQ(1u, delayed.size()) << Join(pe.ImportedDlls());
    EXPECT_EQ("crypt32.dll", delayed[0].dll);
    EXPECT_EQ(std::vector<std::string>{"CryptDecodeObject"}, delayed[0].functions);
    const std::vector<std::string> dlls = pe.ImportedDlls();
    EXPECT_NE(dlls.end(), std::find(dlls.begin(), dlls.end(), std::string("crypt32.dll"))) << Join(dlls);
}

// The checks read what they claim to: a file without the protections fails them.
TEST(ShippedBinaries, ChecksRejectABinaryWithoutProtections)
{
    PeFile pe;
    std::string error;
    ASSERT_TRUE(pe.Read(ExeDirectory() + L"unprotected_probe.dll", &error)) << error;
    EXPECT_FALSE(pe.dllCharacteristics & IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE);
    EXPECT_FALSE(pe.dllCharacteristics & IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA);
    EXPECT_FALSE(pe.dllCharacteristics & IMAGE_DLLCHARACTERISTICS_NX_COMPAT);
    EXPECT_NE(0u, pe.numberOfSymbols);
    std::string linkName;
    std::uint32_t crc = 0;
    EXPECT_FALSE(pe.DebugLink(&linkName, &crc));
    EXPECT_EQ(0u, pe.Symbols().count("__stack_chk_fail"));
    const std::vector<std::string> dlls = pe.ImportedDlls();
    EXPECT_NE(dlls.end(), std::find(dlls.begin(), dlls.end(), std::string("version.dll"))) << Join(dlls);
}

TEST(ShippedBinaries, CommandLineHostPrintsTheProjectVersion)
{
    const ProcessRun run = RunProcess(QuoteArg(ExeDirectory() + L"nvdbconv.exe") + L" --version", 60000);
    ASSERT_TRUE(run.started);
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_EQ(std::string("nvdbconv ") + NV_VERSION_TEXT + "\n", run.out);
}
