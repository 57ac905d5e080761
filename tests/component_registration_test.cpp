// Component registration: the SysComponents list entry written and removed by
// CComponentRegistrar, the class's update-registry function, the module's
// RegisterServer/UnRegisterServer, the DLL's DllRegisterServer/DllUnregisterServer
// and regsvr32 run on the built DLL as an installer would.
#include <windows.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "com/componentregistrar.h"
#include "com/ids.h"
#include "com/nvcommodule.h"
#include "com/nvdbconverter.h"
#include "com/objectmap.h"
#include "support/dll_loader.h"
#include "support/import_fault.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "support/trace_capture.h"

using namespace nvtest;

namespace {

constexpr const wchar_t kSys[] = L"SOFTWARE\\Norvane\\Core\\SysComponents";
constexpr const wchar_t kCore[] = L"SOFTWARE\\Norvane\\Core";
constexpr const wchar_t kClsidText[] = L"{ED01113E-C548-4DA6-BE80-98624031487C}";
constexpr CLSID kOtherClsid = {0x0C1D2E3F, 0x4A5B, 0x4C6D, {0x8E, 0x9F, 0x10, 0x21, 0x32, 0x43, 0x54, 0x65}};

std::vector<BYTE> StringBytes(const std::wstring& s)
{
    const BYTE* p = reinterpret_cast<const BYTE*>(s.c_str());
    return std::vector<BYTE>(p, p + (s.size() + 1) * sizeof(wchar_t));
}

RegValue Entry(const std::wstring& modulePath)
{
    return RegValue{REG_SZ, StringBytes(std::wstring(kClsidText) + L":" + modulePath)};
}

// The list as it should be: exactly these values, no subkeys.
RegTree ListWith(const std::vector<std::pair<std::wstring, RegValue>>& values)
{
    RegTree t;
    t.exists = true;
    t.keys = {L""};
    for (const auto& [name, v] : values)
        t.values[L"|" + name] = v;
    return t;
}

// No COM class or type library keys for our ids, in either view.
void ExpectNoComClassKeys()
{
    for (REGSAM view : {kView32, kView64}) {
        EXPECT_FALSE(KeyExists((std::wstring(L"SOFTWARE\\Classes\\CLSID\\") + kClsidText).c_str(), view));
        EXPECT_FALSE(KeyExists(L"SOFTWARE\\Classes\\TypeLib\\{666E8CCD-CCFD-4C87-A89B-C5DABC3FED58}", view));
        EXPECT_FALSE(KeyExists(L"SOFTWARE\\Classes\\Interface\\{4C13C034-952C-4FF3-9ABC-D0C3FCBE8B5D}", view));
    }
}

class ComponentRegistrationTest : public RegistrySandbox {
protected:
    void SetUp() override
    {
        RegistrySandbox::SetUp();
        ASSERT_EQ(S_OK, g_NVComModule.Init(g_NVObjectMap, ::GetModuleHandleW(nullptr), &nvcom::kLIBID_NVDBConvLib));
        modulePath = g_NVComModule.m_wstrModulePath;
    }
    void TearDown() override
    {
        g_NVComModule.Term();
        RegistrySandbox::TearDown();
    }
    std::wstring modulePath;
};

} // namespace

// ---------------------------------------------------------------------------
// CComponentRegistrar

TEST_F(ComponentRegistrationTest, RegisterComponentWritesClassIdAndModulePathInOwnViewOnly)
{
    EXPECT_EQ(S_OK, CComponentRegistrar::RegisterComponent(kSys, L"CNVDBConverter", nvcom::kCLSID_NVDBConverter));

    const RegTree expected = ListWith({{L"CNVDBConverter", Entry(modulePath)}});
    const RegTree list = Snapshot(kSys, kView64);
    EXPECT_TRUE(expected == list) << DiffTrees(expected, list);
    EXPECT_EQ(std::vector<std::wstring>{L"Core"}, SubkeyNames(L"SOFTWARE\\Norvane", kView64));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane", kView32));
}

TEST_F(ComponentRegistrationTest, RegisteringTwiceLeavesOneValueWithTheLatestPath)
{
    ASSERT_EQ(S_OK, CComponentRegistrar::RegisterComponent(kSys, L"CNVDBConverter", nvcom::kCLSID_NVDBConverter));
    g_NVComModule.m_wstrModulePath = L"D:\\Other Place\\NVDBConv.dll";
    EXPECT_EQ(S_OK, CComponentRegistrar::RegisterComponent(kSys, L"CNVDBConverter", nvcom::kCLSID_NVDBConverter));

    const RegTree expected = ListWith({{L"CNVDBConverter", Entry(L"D:\\Other Place\\NVDBConv.dll")}});
    const RegTree list = Snapshot(kSys, kView64);
    EXPECT_TRUE(expected == list) << DiffTrees(expected, list);
}

TEST_F(ComponentRegistrationTest, RegisterComponentWritesTheGivenClassIdUpperCaseWithBraces)
{
    EXPECT_EQ(S_OK, CComponentRegistrar::RegisterComponent(kSys, L"COther", kOtherClsid));
    std::wstring data;
    ASSERT_TRUE(GetString(kSys, L"COther", kView64, &data));
    EXPECT_EQ(L"{0C1D2E3F-4A5B-4C6D-8E9F-102132435465}:" + modulePath, data);
}

TEST_F(ComponentRegistrationTest, UnregisteringTheLastComponentDeletesTheListKey)
{
    ASSERT_EQ(S_OK, CComponentRegistrar::RegisterComponent(kSys, L"CNVDBConverter", nvcom::kCLSID_NVDBConverter));
    EXPECT_EQ(S_OK, CComponentRegistrar::UnregisterComponent(kSys, L"CNVDBConverter"));
    EXPECT_FALSE(KeyExists(kSys, kView64));
    // Only the list key goes; its parent stays.
    EXPECT_TRUE(KeyExists(kCore, kView64));
}

TEST_F(ComponentRegistrationTest, UnregisteringWithOtherComponentsLeftKeepsTheKeyAndTheirValues)
{
    SetString(kSys, L"CNVOther", L"{00000000-0000-0000-0000-000000000001}:C:\\x.dll", kView64);
    ASSERT_EQ(S_OK, CComponentRegistrar::RegisterComponent(kSys, L"CNVDBConverter", nvcom::kCLSID_NVDBConverter));
    const RegTree others = ListWith(
        {{L"CNVOther", RegValue{REG_SZ, StringBytes(L"{00000000-0000-0000-0000-000000000001}:C:\\x.dll")}}});

    EXPECT_EQ(S_OK, CComponentRegistrar::UnregisterComponent(kSys, L"CNVDBConverter"));
    RegTree list = Snapshot(kSys, kView64);
    EXPECT_TRUE(others == list) << DiffTrees(others, list);

    // A second unregistration is harmless.
    EXPECT_EQ(S_OK, CComponentRegistrar::UnregisterComponent(kSys, L"CNVDBConverter"));
    list = Snapshot(kSys, kView64);
    EXPECT_TRUE(others == list) << DiffTrees(others, list);
}

TEST_F(ComponentRegistrationTest, UnregisteringKeepsAListKeyThatStillHasSubkeys)
{
    CreateKeyPath((std::wstring(kSys) + L"\\Sub").c_str(), kView64);
    ASSERT_EQ(S_OK, CComponentRegistrar::RegisterComponent(kSys, L"CNVDBConverter", nvcom::kCLSID_NVDBConverter));
    EXPECT_EQ(S_OK, CComponentRegistrar::UnregisterComponent(kSys, L"CNVDBConverter"));
    EXPECT_TRUE(KeyExists(kSys, kView64));
    EXPECT_TRUE(ValueNames(kSys, kView64).empty());
}

TEST_F(ComponentRegistrationTest, UnregisteringWhenTheListKeyIsMissingReturnsTheOpenError)
{
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND),
              CComponentRegistrar::UnregisterComponent(kSys, L"CNVDBConverter"));
    // The 32-bit view's list does not count.
    SetString(kSys, L"CNVDBConverter", L"x", kView32);
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND),
              CComponentRegistrar::UnregisterComponent(kSys, L"CNVDBConverter"));
    std::wstring kept;
    EXPECT_TRUE(GetString(kSys, L"CNVDBConverter", kView32, &kept));
}

// ---------------------------------------------------------------------------
// The update-registry function and the module

TEST_F(ComponentRegistrationTest, UpdateRegistryRegistersAndUnregistersTheConverterClass)
{
    EXPECT_EQ(S_OK, CNVDBConverter::UpdateRegistry(TRUE));
    const RegTree expected = ListWith({{L"CNVDBConverter", Entry(modulePath)}});
    const RegTree list = Snapshot(kSys, kView64);
    EXPECT_TRUE(expected == list) << DiffTrees(expected, list);

    EXPECT_EQ(S_OK, CNVDBConverter::UpdateRegistry(FALSE));
    EXPECT_FALSE(KeyExists(kSys, kView64));
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), CNVDBConverter::UpdateRegistry(FALSE));
}

TEST_F(ComponentRegistrationTest, ModuleRegisterServerRunsEachClassRegistration)
{
    EXPECT_EQ(S_OK, g_NVComModule.RegisterServer(FALSE, nullptr));
    const RegTree expected = ListWith({{L"CNVDBConverter", Entry(modulePath)}});
    const RegTree list = Snapshot(kSys, kView64);
    EXPECT_TRUE(expected == list) << DiffTrees(expected, list);
    ExpectNoComClassKeys();

    EXPECT_EQ(S_OK, g_NVComModule.UnRegisterServer(nullptr));
    EXPECT_FALSE(KeyExists(kSys, kView64));
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), g_NVComModule.UnRegisterServer(nullptr));
}

TEST_F(ComponentRegistrationTest, ModuleRegistrationOfAnotherClassTouchesNothing)
{
    EXPECT_EQ(S_OK, g_NVComModule.RegisterServer(FALSE, &kOtherClsid));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane", kView64));
    EXPECT_EQ(S_OK, g_NVComModule.RegisterServer(FALSE, &nvcom::kCLSID_NVDBConverter));
    EXPECT_TRUE(KeyExists(kSys, kView64));
    EXPECT_EQ(S_OK, g_NVComModule.UnRegisterServer(&kOtherClsid));
    EXPECT_TRUE(KeyExists(kSys, kView64));
}

// The library carries no type library: asking for one fails after the class
// registration was done.
TEST_F(ComponentRegistrationTest, ModuleRegisterServerWithTypeLibraryFailsForLackOfOne)
{
    HRESULT hr = g_NVComModule.RegisterServer(TRUE, nullptr);
    EXPECT_EQ(TYPE_E_CANTLOADLIBRARY, hr);
    EXPECT_TRUE(KeyExists(kSys, kView64));
    ExpectNoComClassKeys();
}

// ---------------------------------------------------------------------------
// The DLL

class DllRegistrationTest : public RegistrySandbox {};

TEST_F(DllRegistrationTest, DllRegisterServerAddsOnlyTheComponentEntry)
{
    LoadedLibrary dll;
    ASSERT_TRUE(dll.loaded());
    EXPECT_EQ(S_OK, dll.DllRegisterServer());

    const RegTree expected = ListWith({{L"CNVDBConverter", Entry(dll.path())}});
    const RegTree list = Snapshot(kSys, kView64);
    EXPECT_TRUE(expected == list) << DiffTrees(expected, list);
    EXPECT_EQ(std::vector<std::wstring>{L"Core"}, SubkeyNames(L"SOFTWARE\\Norvane", kView64));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane", kView32));
    ExpectNoComClassKeys();

    EXPECT_EQ(S_OK, dll.DllUnregisterServer());
    EXPECT_FALSE(KeyExists(kSys, kView64));
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), dll.DllUnregisterServer());
}

namespace {

// Runs a command line and returns its exit code (or ~0 when it cannot start or hangs).
DWORD RunAndWait(const std::wstring& commandLine)
{
    const ProcessRun run = RunProcess(commandLine, 60000);
    if (!run.started) {
        ADD_FAILURE() << "CreateProcess failed: " << run.startError << " for " << Narrow(commandLine);
        return ~0u;
    }
    EXPECT_FALSE(run.timedOut) << Narrow(commandLine);
    return run.timedOut ? ~0u : run.exitCode;
}

std::wstring Regsvr32()
{
    wchar_t dir[MAX_PATH];
    UINT n = ::GetSystemDirectoryW(dir, MAX_PATH);
    return std::wstring(dir, n) + L"\\regsvr32.exe";
}

} // namespace

TEST_F(DllRegistrationTest, Regsvr32RegistersAndUnregistersTheBuiltDll)
{
    const std::wstring dllPath = ExeDirectory() + L"NVDBConv.dll";
    SetString(kSys, L"CNVOther", L"{00000000-0000-0000-0000-000000000001}:C:\\x.dll", kView64);

    EXPECT_EQ(0u, RunAndWait(L"\"" + Regsvr32() + L"\" /s \"" + dllPath + L"\""));
    RegValue entry;
    ASSERT_TRUE(GetValue(kSys, L"CNVDBConverter", kView64, &entry));
    EXPECT_TRUE(Entry(dllPath) == entry) << Narrow(std::wstring(reinterpret_cast<const wchar_t*>(entry.data.data())));
    EXPECT_EQ((std::vector<std::wstring>{L"CNVDBConverter", L"CNVOther"}), [] {
        auto names = ValueNames(kSys, kView64);
        std::sort(names.begin(), names.end());
        return names;
    }());
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane", kView32));
    ExpectNoComClassKeys();

    EXPECT_EQ(0u, RunAndWait(L"\"" + Regsvr32() + L"\" /u /s \"" + dllPath + L"\""));
    EXPECT_EQ(std::vector<std::wstring>{L"CNVOther"}, ValueNames(kSys, kView64));

    // Removing the other entry too, the last unregistration removes the list key.
    DeleteValue(kSys, L"CNVOther", kView64);
    EXPECT_EQ(0u, RunAndWait(L"\"" + Regsvr32() + L"\" /s \"" + dllPath + L"\""));
    EXPECT_TRUE(KeyExists(kSys, kView64));
    EXPECT_EQ(0u, RunAndWait(L"\"" + Regsvr32() + L"\" /u /s \"" + dllPath + L"\""));
    EXPECT_FALSE(KeyExists(kSys, kView64));
    EXPECT_TRUE(KeyExists(kCore, kView64));
}

TEST_F(DllRegistrationTest, Regsvr32ReportsFailedUnregistrationWhenNothingIsRegistered)
{
    const std::wstring dllPath = ExeDirectory() + L"NVDBConv.dll";
    EXPECT_NE(0u, RunAndWait(L"\"" + Regsvr32() + L"\" /u /s \"" + dllPath + L"\""));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane", kView64));
}

// ---------------------------------------------------------------------------
// Trace

namespace {

// What a successful RegisterServer and UnRegisterServer of the module trace.
const Lines kRegisterThenUnregister = {
    "> CNVComModule::RegisterServer",
    "> Updateregistry - SYS", "> CComponentRegistrar::RegisterComponent", "<", "<",
    "<",
    "> CNVComModule::UnRegisterServer",
    "> Updateregistry - SYS", "> CComponentRegistrar::UnregisterComponent", "<", "<",
    "<",
};

} // namespace

TEST_F(ComponentRegistrationTest, RegistrationAndUnregistrationAreTracedAtEachLevel)
{
    TraceCapture trace;
    trace.Start();
    ASSERT_EQ(S_OK, g_NVComModule.RegisterServer(FALSE, nullptr));
    ASSERT_EQ(S_OK, g_NVComModule.UnRegisterServer(nullptr));
    ASSERT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), g_NVComModule.UnRegisterServer(nullptr));
    Lines expected = kRegisterThenUnregister;
    expected.insert(expected.end(), {"> CNVComModule::UnRegisterServer", "> Updateregistry - SYS",
                                     "> CComponentRegistrar::UnregisterComponent", "E -2147024894 ", "<",
                                     "E -2147024894 ", "<", "E -2147024894 ", "<"});
    EXPECT_EQ(expected, trace.Lines())
        << trace.Dump();
}

TEST_F(DllRegistrationTest, DllRegisterServerIsTracedInTheDll)
{
    TraceCapture trace;
    trace.Start();
    {
        LoadedLibrary dll;
        EXPECT_EQ(S_OK, dll.DllRegisterServer());
        EXPECT_EQ(S_OK, dll.DllUnregisterServer());
    }
    Lines expected = {"> CNVComModule::Init", "<", "> CDBConverter::FinalConstruct", "E -2147024894 ", "<"};
    expected.insert(expected.end(), kRegisterThenUnregister.begin(), kRegisterThenUnregister.end());
    EXPECT_EQ(expected, trace.Lines())
        << trace.Dump();
}

TEST_F(ComponentRegistrationTest, ClassIdThatCannotBeWrittenAsTextFailsUnexpectedAndWritesNothing)
{
    ImportFault<decltype(&::StringFromGUID2)> fault("StringFromGUID2", 0, ERROR_SUCCESS);
    EXPECT_EQ(E_UNEXPECTED, CComponentRegistrar::RegisterComponent(kSys, L"CNVDBConverter", nvcom::kCLSID_NVDBConverter));
    EXPECT_EQ(1u, fault.calls());
    EXPECT_FALSE(KeyExists(kSys, kView64));
}
