// The COM module, its class factory and CNVDBConverter: module state, class
// object lookup, lock counting, aggregation, INVComponentInit; in process and
// through the real DLL's exports.
#include <windows.h>
#include <objbase.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "com/ids.h"
#include "com/nvcomponentinit.h"
#include "com/nvcommodule.h"
#include "com/nvdbconverter.h"
#include "com/objectmap.h"
#include "common/handles.h"
#include "com/dbconverter.h"
#include "support/allocation_faults.h"
#include "support/dll_loader.h"
#include "support/import_fault.h"
#include "support/registry_sandbox.h"
#include "support/test_converter.h"
#include "support/trace_capture.h"
#include "support/db_paths.h"

using namespace nvtest;

namespace {

// A class this server does not serve.
constexpr CLSID kOtherClsid = {0x0C1D2E3F, 0x4A5B, 0x4C6D, {0x8E, 0x9F, 0x10, 0x21, 0x32, 0x43, 0x54, 0x65}};

std::wstring GuidText(REFGUID g)
{
    wchar_t text[39] = {};
    ::StringFromGUID2(g, text, 39);
    return text;
}

// An outer object that aggregates: counts its references, answers nothing else.
class OuterUnknown final : public IUnknown {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** ppv) override
    {
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++refs); }
    ULONG STDMETHODCALLTYPE Release() override { return static_cast<ULONG>(--refs); }
    LONG refs = 1;
};

// The process's module, initialised with the library's object map over this
// executable, as the entry function does it for the DLL.
class ComModuleTest : public RegistrySandbox {
protected:
    void SetUp() override
    {
        RegistrySandbox::SetUp();
        ASSERT_EQ(S_OK, g_NVComModule.Init(g_NVObjectMap, ::GetModuleHandleW(nullptr), &nvcom::kLIBID_NVDBConvLib));
        ASSERT_EQ(0, g_NVComModule.GetLockCount());
    }
    void TearDown() override
    {
        EXPECT_EQ(0, g_NVComModule.GetLockCount());
        g_NVComModule.Term();
        g_DBConverter.m_pConverter.reset();
        RegistrySandbox::TearDown();
    }

    // A 2.0 test converter whose do_Convert fails with NTE_BAD_KEY_STATE, in the
    // holder that Init converts through.
    static TestConverter* HoldFailingConverter()
    {
        auto* converter = new TestConverter(0, 0, L"DB-v2.0");
        converter->convertResult = NTE_BAD_KEY_STATE;
        g_DBConverter.m_pConverter.reset(converter);
        return converter;
    }

    nv::com_ptr<IClassFactory> Factory()
    {
        nv::com_ptr<IClassFactory> cf;
        EXPECT_EQ(S_OK, g_NVComModule.GetClassObject(nvcom::kCLSID_NVDBConverter, IID_IClassFactory, cf.put_void()));
        return cf;
    }
};

} // namespace

// ---------------------------------------------------------------------------
// Fixed identifiers

TEST(ComIdsTest, InterfaceIdentifierIsTheDeclaredUuidAndIdsAreDistinct)
{
    EXPECT_TRUE(::IsEqualIID(nvcom::kIID_INVComponentInit, __uuidof(INVComponentInit)));
    EXPECT_EQ(std::wstring(L"{ED01113E-C548-4DA6-BE80-98624031487C}"), GuidText(nvcom::kCLSID_NVDBConverter));
    EXPECT_EQ(std::wstring(L"{4C13C034-952C-4FF3-9ABC-D0C3FCBE8B5D}"), GuidText(nvcom::kIID_INVComponentInit));
    EXPECT_EQ(std::wstring(L"{666E8CCD-CCFD-4C87-A89B-C5DABC3FED58}"), GuidText(nvcom::kLIBID_NVDBConvLib));
}

TEST(ComIdsTest, ObjectMapHoldsOneEntryForTheConverterClass)
{
    ASSERT_NE(nullptr, g_NVObjectMap[0].pclsid);
    EXPECT_TRUE(::IsEqualCLSID(nvcom::kCLSID_NVDBConverter, *g_NVObjectMap[0].pclsid));
    EXPECT_EQ(&CNVDBConverter::UpdateRegistry, g_NVObjectMap[0].pfnUpdateRegistry);
    EXPECT_EQ(&CNVDBConverter::CreateInstance, g_NVObjectMap[0].pfnCreateInstance);
    EXPECT_EQ(nullptr, g_NVObjectMap[1].pclsid);
}

// ---------------------------------------------------------------------------
// CNVComModule::Init

TEST(ComModuleInitTest, InitStoresModulePathAndDefaultHostName)
{
    NVObjectMapEntry map[] = {{nullptr, nullptr, nullptr, nullptr}};
    CNVComModule module;
    HMODULE self = ::GetModuleHandleW(nullptr);
    EXPECT_EQ(S_OK, module.Init(map, self, &nvcom::kLIBID_NVDBConvLib));

    wchar_t path[MAX_PATH];
    DWORD n = ::GetModuleFileNameW(self, path, MAX_PATH);
    EXPECT_EQ(std::wstring(path, n), module.m_wstrModulePath);
    EXPECT_EQ(std::wstring(L"NvHost"), module.m_wstrHostName);
    EXPECT_EQ(self, module.m_hInst);
    EXPECT_EQ(&nvcom::kLIBID_NVDBConvLib, module.m_plibid);
    EXPECT_EQ(map, module.m_pObjMap);
    EXPECT_EQ(0, module.GetLockCount());
    EXPECT_EQ(S_OK, module.DllCanUnloadNow());
}

TEST(ComModuleInitTest, InitKeepsHostNameSetBefore)
{
    NVObjectMapEntry map[] = {{nullptr, nullptr, nullptr, nullptr}};
    CNVComModule module;
    module.m_wstrHostName = L"OtherHost";
    EXPECT_EQ(S_OK, module.Init(map, ::GetModuleHandleW(nullptr), &nvcom::kLIBID_NVDBConvLib));
    EXPECT_EQ(std::wstring(L"OtherHost"), module.m_wstrHostName);
}

TEST(ComModuleInitTest, InitWithInstanceWithoutFileNameFailsWithTheLastError)
{
    NVObjectMapEntry map[] = {{nullptr, nullptr, nullptr, nullptr}};
    CNVComModule module;
    module.m_wstrModulePath = L"unchanged";
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND),
              module.Init(map, reinterpret_cast<HINSTANCE>(0x12340000), &nvcom::kLIBID_NVDBConvLib));
    EXPECT_EQ(std::wstring(L"unchanged"), module.m_wstrModulePath);
    EXPECT_TRUE(module.m_wstrHostName.empty());
}

TEST(ComModuleInitTest, ClassObjectBeforeInitIsNotAvailable)
{
    CNVComModule module;
    void* out = reinterpret_cast<void*>(static_cast<uintptr_t>(0xdeadbeef));
    EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, module.GetClassObject(nvcom::kCLSID_NVDBConverter, IID_IClassFactory, &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(0, module.GetLockCount());
}

TEST(ComModuleInitTest, LockAndUnlockDecideDllCanUnloadNow)
{
    CNVComModule module;
    EXPECT_EQ(S_OK, module.DllCanUnloadNow());
    EXPECT_EQ(1, module.Lock());
    EXPECT_EQ(2, module.Lock());
    EXPECT_EQ(S_FALSE, module.DllCanUnloadNow());
    EXPECT_EQ(1, module.Unlock());
    EXPECT_EQ(S_FALSE, module.DllCanUnloadNow());
    EXPECT_EQ(0, module.Unlock());
    EXPECT_EQ(S_OK, module.DllCanUnloadNow());
}

// ---------------------------------------------------------------------------
// Class objects

TEST_F(ComModuleTest, ClassObjectOfUnknownClassIsNotAvailable)
{
    void* out = reinterpret_cast<void*>(static_cast<uintptr_t>(0xdeadbeef));
    EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, g_NVComModule.GetClassObject(kOtherClsid, IID_IClassFactory, &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(E_POINTER, g_NVComModule.GetClassObject(nvcom::kCLSID_NVDBConverter, IID_IClassFactory, nullptr));
}

TEST_F(ComModuleTest, ClassObjectAnswersOnlyIUnknownAndIClassFactory)
{
    void* out = reinterpret_cast<void*>(static_cast<uintptr_t>(0xdeadbeef));
    EXPECT_EQ(E_NOINTERFACE, g_NVComModule.GetClassObject(nvcom::kCLSID_NVDBConverter, IID_IDispatch, &out));
    EXPECT_EQ(nullptr, out);
    nv::com_ptr<IUnknown> unk;
    EXPECT_EQ(S_OK, g_NVComModule.GetClassObject(nvcom::kCLSID_NVDBConverter, IID_IUnknown, unk.put_void()));
    EXPECT_TRUE(unk);
    EXPECT_EQ(E_POINTER, unk->QueryInterface(IID_IClassFactory, nullptr));
}

TEST_F(ComModuleTest, ClassFactoryIsCachedAndLocksTheModuleWhileHeld)
{
    nv::com_ptr<IClassFactory> first = Factory();
    EXPECT_EQ(1, g_NVComModule.GetLockCount());
    EXPECT_EQ(S_FALSE, g_NVComModule.DllCanUnloadNow());
    nv::com_ptr<IClassFactory> second = Factory();
    EXPECT_EQ(first.get(), second.get());
    EXPECT_EQ(1, g_NVComModule.GetLockCount());
    second.reset();
    EXPECT_EQ(S_FALSE, g_NVComModule.DllCanUnloadNow());
    first.reset();
    EXPECT_EQ(0, g_NVComModule.GetLockCount());
    EXPECT_EQ(S_OK, g_NVComModule.DllCanUnloadNow());
    EXPECT_NE(nullptr, g_NVObjectMap[0].pCF);
}

TEST_F(ComModuleTest, TermReleasesTheCachedClassFactory)
{
    Factory().reset();
    ASSERT_NE(nullptr, g_NVObjectMap[0].pCF);
    g_NVComModule.Term();
    EXPECT_EQ(nullptr, g_NVObjectMap[0].pCF);
    EXPECT_EQ(S_OK, g_NVComModule.Init(g_NVObjectMap, ::GetModuleHandleW(nullptr), &nvcom::kLIBID_NVDBConvLib));
}

TEST_F(ComModuleTest, LockServerLocksAndUnlocksTheModule)
{
    nv::com_ptr<IClassFactory> cf = Factory();
    EXPECT_EQ(S_OK, cf->LockServer(TRUE));
    EXPECT_EQ(2, g_NVComModule.GetLockCount());
    cf.reset();
    EXPECT_EQ(S_FALSE, g_NVComModule.DllCanUnloadNow());
    cf = Factory();
    EXPECT_EQ(S_OK, cf->LockServer(FALSE));
    EXPECT_EQ(1, g_NVComModule.GetLockCount());
}

// ---------------------------------------------------------------------------
// Instances

TEST_F(ComModuleTest, InstanceLocksTheModuleWhileItLives)
{
    nv::com_ptr<INVComponentInit> object;
    {
        nv::com_ptr<IClassFactory> cf = Factory();
        EXPECT_EQ(S_OK, cf->CreateInstance(nullptr, __uuidof(INVComponentInit), object.put_void()));
    }
    ASSERT_TRUE(object);
    EXPECT_EQ(1, g_NVComModule.GetLockCount());
    EXPECT_EQ(S_FALSE, g_NVComModule.DllCanUnloadNow());
    EXPECT_EQ(2u, object->AddRef());
    EXPECT_EQ(1u, object->Release());
    object.reset();
    EXPECT_EQ(S_OK, g_NVComModule.DllCanUnloadNow());
}

TEST_F(ComModuleTest, InstanceAnswersIUnknownAndINVComponentInitOnly)
{
    nv::com_ptr<IUnknown> unk;
    ASSERT_EQ(S_OK, Factory()->CreateInstance(nullptr, IID_IUnknown, unk.put_void()));
    nv::com_ptr<INVComponentInit> init;
    EXPECT_EQ(S_OK, unk.query(init));
    nv::com_ptr<IUnknown> again;
    EXPECT_EQ(S_OK, init.query(again));
    EXPECT_EQ(unk.get(), again.get());

    nv::com_ptr<IDispatch> dispatch;
    EXPECT_EQ(E_NOINTERFACE, unk.query(dispatch));
    EXPECT_FALSE(dispatch);

    void* out = reinterpret_cast<void*>(static_cast<uintptr_t>(0xdeadbeef));
    EXPECT_EQ(E_NOINTERFACE, Factory()->CreateInstance(nullptr, IID_IDispatch, &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(E_POINTER, Factory()->CreateInstance(nullptr, IID_IUnknown, nullptr));
}

TEST_F(ComModuleTest, AggregationNeedsIUnknownAndDelegatesToTheOuterObject)
{
    OuterUnknown outer;
    void* out = reinterpret_cast<void*>(static_cast<uintptr_t>(0xdeadbeef));
    EXPECT_EQ(CLASS_E_NOAGGREGATION, Factory()->CreateInstance(&outer, __uuidof(INVComponentInit), &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(0, g_NVComModule.GetLockCount());

    IUnknown* inner = nullptr;
    ASSERT_EQ(S_OK, Factory()->CreateInstance(&outer, IID_IUnknown, reinterpret_cast<void**>(&inner)));
    ASSERT_NE(nullptr, inner);
    EXPECT_EQ(1, g_NVComModule.GetLockCount());
    EXPECT_EQ(1, outer.refs);

    INVComponentInit* init = nullptr;
    ASSERT_EQ(S_OK, inner->QueryInterface(__uuidof(INVComponentInit), reinterpret_cast<void**>(&init)));
    // The interface's references are the outer object's.
    EXPECT_EQ(2, outer.refs);
    EXPECT_EQ(S_OK, init->Term());
    init->Release();
    EXPECT_EQ(1, outer.refs);
    // Asking the aggregated interface for anything goes to the outer object.
    ASSERT_EQ(S_OK, inner->QueryInterface(__uuidof(INVComponentInit), reinterpret_cast<void**>(&init)));
    IUnknown* viaOuter = reinterpret_cast<IUnknown*>(static_cast<uintptr_t>(0xdeadbeef));
    EXPECT_EQ(E_NOINTERFACE, init->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&viaOuter)));
    EXPECT_EQ(nullptr, viaOuter);
    init->Release();
    // The inner object answers a null out-pointer as any COM object must.
    EXPECT_EQ(E_POINTER, inner->QueryInterface(IID_IUnknown, nullptr));
    EXPECT_EQ(1, outer.refs);

    EXPECT_EQ(0u, inner->Release());
    EXPECT_EQ(0, g_NVComModule.GetLockCount());
    EXPECT_EQ(1, outer.refs);
}

// Init runs the conversion through the holder and answers S_OK whatever it gave.
TEST_F(ComModuleTest, InitRunsConvertAndReturnsSOkEvenWhenConversionFails)
{
    SetString(kDbPath, L"Version", L"1.0", kView64);
    TestConverter* converter = HoldFailingConverter();

    nv::com_ptr<INVComponentInit> object;
    ASSERT_EQ(S_OK, Factory()->CreateInstance(nullptr, __uuidof(INVComponentInit), object.put_void()));
    EXPECT_EQ(S_OK, object->Init());
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Convert", "do_Rollback"}), converter->calls);

    // The rollback replaced the database key; a fresh converter opens the new one.
    converter = new TestConverter(0, 0, L"DB-v2.0");
    g_DBConverter.m_pConverter.reset(converter);
    EXPECT_EQ(S_OK, object->Init());
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Convert", "do_Cleanup"}), converter->calls);
}

TEST_F(ComModuleTest, InitWithoutConverterReturnsSOk)
{
    ASSERT_EQ(nullptr, g_DBConverter.m_pConverter.get());
    nv::com_ptr<INVComponentInit> object;
    ASSERT_EQ(S_OK, Factory()->CreateInstance(nullptr, __uuidof(INVComponentInit), object.put_void()));
    EXPECT_EQ(S_OK, object->Init());
}

TEST_F(ComModuleTest, TermReturnsSOkAndUndoesNothing)
{
    SetString(kDbPath, L"Version", L"1.0", kView64);
    auto* converter = new TestConverter(0, 0, L"DB-v2.0");
    g_DBConverter.m_pConverter.reset(converter);
    nv::com_ptr<INVComponentInit> object;
    ASSERT_EQ(S_OK, Factory()->CreateInstance(nullptr, __uuidof(INVComponentInit), object.put_void()));
    const RegTree before = Snapshot(L"SOFTWARE\\Norvane", kView64);
    EXPECT_EQ(S_OK, object->Term());
    EXPECT_TRUE(converter->calls.empty());
    EXPECT_TRUE(before == Snapshot(L"SOFTWARE\\Norvane", kView64));
}

// ---------------------------------------------------------------------------
// Through the real DLL

class ComDllTest : public RegistrySandbox {};

TEST_F(ComDllTest, ClassObjectCreateInstanceAndInitWorkThroughTheExports)
{
    LoadedLibrary dll;
    ASSERT_TRUE(dll.loaded());
    EXPECT_EQ(S_OK, dll.DllCanUnloadNow());

    nv::com_ptr<IClassFactory> cf;
    ASSERT_EQ(S_OK, dll.DllGetClassObject(nvcom::kCLSID_NVDBConverter, IID_IClassFactory, cf.put_void()));
    EXPECT_EQ(S_FALSE, dll.DllCanUnloadNow());

    nv::com_ptr<INVComponentInit> object;
    ASSERT_EQ(S_OK, cf->CreateInstance(nullptr, __uuidof(INVComponentInit), object.put_void()));
    cf.reset();
    EXPECT_EQ(S_FALSE, dll.DllCanUnloadNow());

    EXPECT_EQ(S_OK, object->Init());
    EXPECT_EQ(S_OK, object->Term());
    EXPECT_EQ(S_FALSE, dll.DllCanUnloadNow());
    object.reset();
    EXPECT_EQ(S_OK, dll.DllCanUnloadNow());
}

TEST_F(ComDllTest, DllGetClassObjectOfUnknownClassIsNotAvailable)
{
    LoadedLibrary dll;
    void* out = reinterpret_cast<void*>(static_cast<uintptr_t>(0xdeadbeef));
    EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, dll.DllGetClassObject(kOtherClsid, IID_IClassFactory, &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(S_OK, dll.DllCanUnloadNow());
}

TEST_F(ComDllTest, LockServerKeepsTheDllFromUnloading)
{
    LoadedLibrary dll;
    nv::com_ptr<IClassFactory> cf;
    ASSERT_EQ(S_OK, dll.DllGetClassObject(nvcom::kCLSID_NVDBConverter, IID_IClassFactory, cf.put_void()));
    EXPECT_EQ(S_OK, cf->LockServer(TRUE));
    cf.reset();
    EXPECT_EQ(S_FALSE, dll.DllCanUnloadNow());
    ASSERT_EQ(S_OK, dll.DllGetClassObject(nvcom::kCLSID_NVDBConverter, IID_IClassFactory, cf.put_void()));
    EXPECT_EQ(S_OK, cf->LockServer(FALSE));
    cf.reset();
    EXPECT_EQ(S_OK, dll.DllCanUnloadNow());
}

// ---------------------------------------------------------------------------
// Trace

namespace {

// An object created, initialised, terminated and released while no converter is
// held: Init's conversion answers E_FAIL.
const Lines kObjectLifeWithoutAConverter = {
    "> CNVDBConverter:FinalConstruct", "<",
    "> CNVDBConverter:Init", "E -2147467259 ", "<",
    "> CNVDBConverter:Term", "<",
    "> CNVDBConverter:FinalRelease", "<",
};

} // namespace

TEST_F(ComModuleTest, ObjectLifetimeTracesEachOperationWithItsOneColonScope)
{
    TraceCapture trace;
    trace.Start();
    nv::com_ptr<IClassFactory> cf = Factory();
    nv::com_ptr<INVComponentInit> object;
    ASSERT_EQ(S_OK, cf->CreateInstance(nullptr, __uuidof(INVComponentInit), object.put_void()));
    EXPECT_EQ(S_OK, object->Init());
    EXPECT_EQ(S_OK, object->Term());
    object.reset();
    cf.reset();
    // Without a converter the conversion answers E_FAIL, which only the trace shows.
    EXPECT_EQ(kObjectLifeWithoutAConverter, trace.Lines())
        << trace.Dump();
}

TEST_F(ComModuleTest, InitTracesTheFailureOfTheConversionItRan)
{
    SetString(kDbPath, L"Version", L"1.0", kView64);
    TraceCapture trace;
    trace.Start();
    HoldFailingConverter();
    nv::com_ptr<INVComponentInit> object;
    ASSERT_EQ(S_OK, Factory()->CreateInstance(nullptr, __uuidof(INVComponentInit), object.put_void()));
    EXPECT_EQ(S_OK, object->Init());

    const Lines inInit = trace.LinesInScope("CNVDBConverter:Init");
    ASSERT_FALSE(inInit.empty()) << trace.Dump();
    EXPECT_EQ("> CBaseConverter::Convert", inInit.front());
    EXPECT_EQ("E -2146893813 ", inInit.back());
    EXPECT_EQ(2u, trace.Count("E -2146893813 ")) << trace.Dump();   // Convert's and Init's
}

TEST_F(ComModuleTest, ModuleInitTracesItsScopeAndFailure)
{
    TraceCapture trace;
    trace.Start();
    NVObjectMapEntry map[] = {{nullptr, nullptr, nullptr, nullptr}};
    CNVComModule module;
    EXPECT_EQ(S_OK, module.Init(map, ::GetModuleHandleW(nullptr), &nvcom::kLIBID_NVDBConvLib));
    CNVComModule broken;
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND),
              broken.Init(map, reinterpret_cast<HINSTANCE>(0x12340000), &nvcom::kLIBID_NVDBConvLib));
    EXPECT_EQ((Lines{"> CNVComModule::Init", "<", "> CNVComModule::Init", "E -2147024770 ", "<"}), trace.Lines())
        << trace.Dump();
}

TEST_F(ComDllTest, DllLoadAndObjectLifetimeAreTraced)
{
    TraceCapture trace;
    trace.Start();
    {
        LoadedLibrary dll;
        nv::com_ptr<IClassFactory> cf;
        ASSERT_EQ(S_OK, dll.DllGetClassObject(nvcom::kCLSID_NVDBConverter, IID_IClassFactory, cf.put_void()));
        nv::com_ptr<INVComponentInit> object;
        ASSERT_EQ(S_OK, cf->CreateInstance(nullptr, __uuidof(INVComponentInit), object.put_void()));
        EXPECT_EQ(S_OK, object->Init());
        EXPECT_EQ(S_OK, object->Term());
    }
    Lines expected = {"> CNVComModule::Init", "<", "> CDBConverter::FinalConstruct", "E -2147024894 ", "<"};
    expected.insert(expected.end(), kObjectLifeWithoutAConverter.begin(), kObjectLifeWithoutAConverter.end());
    EXPECT_EQ(expected, trace.Lines())
        << trace.Dump();
}

// ---------------------------------------------------------------------------
// Memory shortage

TEST_F(ComModuleTest, ClassObjectThatCannotBeAllocatedIsOutOfMemoryAndMadeOnTheNextCall)
{
    void* out = reinterpret_cast<void*>(0xdeadbeef);
    {
        AllocationFaults oom(1);
        EXPECT_EQ(E_OUTOFMEMORY, g_NVComModule.GetClassObject(nvcom::kCLSID_NVDBConverter, IID_IClassFactory, &out));
        EXPECT_EQ(1u, oom.failed());
    }
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(nullptr, g_NVObjectMap[0].pCF); // nothing half-made is cached
    EXPECT_EQ(0, g_NVComModule.GetLockCount());
    EXPECT_TRUE(Factory());
}

TEST_F(ComModuleTest, InstanceThatCannotBeAllocatedIsOutOfMemoryAndLocksNothing)
{
    nv::com_ptr<IClassFactory> cf = Factory();
    void* out = reinterpret_cast<void*>(0xdeadbeef);
    {
        AllocationFaults oom(1);
        EXPECT_EQ(E_OUTOFMEMORY, cf->CreateInstance(nullptr, __uuidof(INVComponentInit), &out));
        EXPECT_EQ(1u, oom.failed());
    }
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(1, g_NVComModule.GetLockCount()); // the class object's own
}

// ---------------------------------------------------------------------------
// Entry checks of the creation function itself (the class factory makes them too)

TEST_F(ComModuleTest, CreationFunctionChecksItsOutPointerAndAggregationItself)
{
    EXPECT_EQ(E_POINTER, CNVDBConverter::CreateInstance(nullptr, IID_IUnknown, nullptr));
    OuterUnknown outer;
    void* out = reinterpret_cast<void*>(0xdeadbeef);
    EXPECT_EQ(CLASS_E_NOAGGREGATION, CNVDBConverter::CreateInstance(&outer, __uuidof(INVComponentInit), &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(1, outer.refs);
    EXPECT_EQ(0, g_NVComModule.GetLockCount());
}

TEST_F(ComModuleTest, ModuleWithoutAnObjectMapRegistersAndUnregistersNothing)
{
    CNVComModule module;
    EXPECT_EQ(S_OK, module.RegisterServer());
    EXPECT_EQ(S_OK, module.UnRegisterServer());
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane", kView64));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane", kView32));
}

namespace {

int g_registrations = 0;
HRESULT RefusedRegistration(BOOL)
{
    ++g_registrations;
    return E_ACCESSDENIED;
}

} // namespace

TEST_F(ComModuleTest, RegistrationRefusedByAClassIsTheResultAndNoTypeLibraryIsLoaded)
{
    NVObjectMapEntry map[] = {{&nvcom::kCLSID_NVDBConverter, &RefusedRegistration, nullptr, nullptr},
                              {nullptr, nullptr, nullptr, nullptr}};
    CNVComModule module;
    ASSERT_EQ(S_OK, module.Init(map, ::GetModuleHandleW(nullptr), &nvcom::kLIBID_NVDBConvLib));
    g_registrations = 0;
    {
        ImportFault<decltype(&::LoadTypeLibEx)> typeLib("LoadTypeLibEx", TYPE_E_CANTLOADLIBRARY, 0);
        EXPECT_EQ(E_ACCESSDENIED, module.RegisterServer(TRUE));
        EXPECT_EQ(0u, typeLib.calls());
    }
    EXPECT_EQ(1, g_registrations);
    module.Term();
}

TEST(ComModuleInitTest, ASecondInitKeepsTheLockAndTakesTheNewMap)
{
    NVObjectMapEntry first[] = {{nullptr, nullptr, nullptr, nullptr}};
    NVObjectMapEntry second[] = {{nullptr, nullptr, nullptr, nullptr}};
    CNVComModule module;
    HMODULE self = ::GetModuleHandleW(nullptr);
    ASSERT_EQ(S_OK, module.Init(first, self, &nvcom::kLIBID_NVDBConvLib));
    {
        // The lock made by the first Init is kept: no second one is made.
        ImportFault<decltype(&::InitializeCriticalSectionAndSpinCount)> fault(
            "InitializeCriticalSectionAndSpinCount", FALSE, ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(S_OK, module.Init(second, self, &nvcom::kLIBID_NVDBConvLib));
        EXPECT_EQ(0u, fault.calls());
    }
    EXPECT_EQ(second, module.m_pObjMap);
    nv::com_ptr<IClassFactory> cf;
    EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE,
              module.GetClassObject(nvcom::kCLSID_NVDBConverter, IID_IClassFactory, cf.put_void()));
}
