// Look-ups the library makes once per process and keeps: the system libraries it
// loads from the system folder, the functions it finds in them, and ntdll's string
// comparison. Only a first use can fail, so this executable's one test is the first
// user of each of them in its process and takes them in turn: each first use
// failing (or racing), then the next use making the look-up again.
#include <windows.h>
#include <wincrypt.h>
#include <lm.h>
#include <gtest/gtest.h>
#include <cstring>
#include <thread>
#include <vector>

#include "common/handles.h"
#include "common/systemimports.h"
#include "legacydb/regset.h"
#include "security/securitycontext.h"
#include "support/computer_name.h"
#include "support/import_fault.h"
#include "support/import_patch.h"
#include "support/key_containers.h"

using namespace nvtest;

namespace {

// ---- two threads loading netapi32 at once ----

FARPROC(WINAPI* g_realGetProcAddress)(HMODULE, LPCSTR) = nullptr;
HMODULE(WINAPI* g_realLoadLibraryExW)(LPCWSTR, HANDLE, DWORD) = nullptr;
BOOL(WINAPI* g_realFreeLibrary)(HMODULE) = nullptr;
volatile LONG g_netapiLoads = 0;
volatile LONG g_netapiFrees = 0;
HANDLE g_firstLoading = nullptr;
HANDLE g_secondDone = nullptr;

bool IsNetapi32(LPCWSTR name) { return name && _wcsicmp(name, L"netapi32.dll") == 0; }

// The first load of netapi32 waits, once it has its module, until the second
// thread's call is done: that thread stores its module first.
HMODULE WINAPI RacingLoadLibraryExW(LPCWSTR name, HANDLE file, DWORD flags)
{
    HMODULE module = g_realLoadLibraryExW(name, file, flags);
    if (IsNetapi32(name) && ::InterlockedIncrement(&g_netapiLoads) == 1) {
        ::SetEvent(g_firstLoading);
        ::WaitForSingleObject(g_secondDone, 10000);
    }
    return module;
}

BOOL WINAPI CountingFreeLibrary(HMODULE module)
{
    if (module == ::GetModuleHandleW(L"netapi32.dll"))
        ::InterlockedIncrement(&g_netapiFrees);
    return g_realFreeLibrary(module);
}

// ---- crypt32 functions that answer their size query and then fail once ----

using ExportFn = decltype(&::CryptExportPublicKeyInfo);
using SignFn = decltype(&::CryptSignCertificate);
ExportFn g_realExport = nullptr;
SignFn g_realSign = nullptr;
int g_exportFailures = 0;
int g_signFailures = 0;

BOOL WINAPI ExportSizeThenFailOnce(HCRYPTPROV_OR_NCRYPT_KEY_HANDLE prov, DWORD spec, DWORD encoding,
                                   PCERT_PUBLIC_KEY_INFO info, DWORD* cb)
{
    if (info && g_exportFailures == 0) {
        ++g_exportFailures;
        ::SetLastError(static_cast<DWORD>(NTE_BAD_KEY_STATE));
        return FALSE;
    }
    return g_realExport(prov, spec, encoding, info, cb);
}

BOOL WINAPI SignSizeThenFailOnce(HCRYPTPROV_OR_NCRYPT_KEY_HANDLE prov, DWORD spec, DWORD encoding, const BYTE* data,
                                 DWORD cbData, PCRYPT_ALGORITHM_IDENTIFIER algorithm, const void* aux, BYTE* signature,
                                 DWORD* cbSignature)
{
    if (signature && g_signFailures == 0) {
        ++g_signFailures;
        ::SetLastError(static_cast<DWORD>(NTE_BAD_KEY_STATE));
        return FALSE;
    }
    return g_realSign(prov, spec, encoding, data, cbData, algorithm, aux, signature, cbSignature);
}

FARPROC WINAPI StandInGetProcAddress(HMODULE module, LPCSTR name)
{
    FARPROC real = g_realGetProcAddress(module, name);
    if (IS_INTRESOURCE(name))
        return real;
    if (std::strcmp(name, "CryptExportPublicKeyInfo") == 0) {
        g_realExport = reinterpret_cast<ExportFn>(reinterpret_cast<void*>(real));
        return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&ExportSizeThenFailOnce));
    }
    if (std::strcmp(name, "CryptSignCertificate") == 0) {
        g_realSign = reinterpret_cast<SignFn>(reinterpret_cast<void*>(real));
        return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&SignSizeThenFailOnce));
    }
    return real;
}

// ---- ntdll not found by name ----

HMODULE(WINAPI* g_realGetModuleHandleW)(LPCWSTR) = nullptr;
int g_ntdllRefusals = 0;

HMODULE WINAPI NoNtdllGetModuleHandleW(LPCWSTR name)
{
    if (name && _wcsicmp(name, L"ntdll.dll") == 0) {
        ++g_ntdllRefusals;
        ::SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    return g_realGetModuleHandleW(name);
}

struct TaskMemory : CRYPT_DATA_BLOB {
    TaskMemory() : CRYPT_DATA_BLOB{0xdeadbeef, nullptr} {}
    ~TaskMemory() { ::CoTaskMemFree(pbData); }
};

} // namespace

class FirstUseTest : public ProvisionedHostTest {};

TEST_F(FirstUseTest, EachLookUpThatFailsOnFirstUseFailsThatCallOnlyAndTwoFirstLoadsKeepOneReference)
{
    // crypt32 that cannot be loaded: its functions answer FALSE with the loader's error.
    {
        ImportFault<decltype(&::LoadLibraryExW)> fault("LoadLibraryExW", nullptr, ERROR_MOD_NOT_FOUND, 1);
        CRYPT_DATA_BLOB bytes{1, const_cast<BYTE*>(reinterpret_cast<const BYTE*>("x"))};
        DWORD cb = 0;
        ::SetLastError(ERROR_SUCCESS);
        EXPECT_FALSE(nv::sys::CryptEncodeObject(X509_ASN_ENCODING, X509_OCTET_STRING, &bytes, nullptr, &cb));
        EXPECT_EQ(static_cast<DWORD>(ERROR_MOD_NOT_FOUND), ::GetLastError());
        ASSERT_EQ(1u, fault.failed()) << "crypt32 was loaded before this test";
    }
    // A function that cannot be found: FALSE with the loader's error; found at the next call.
    {
        ImportFault<decltype(&::GetProcAddress)> fault("GetProcAddress", nullptr, ERROR_PROC_NOT_FOUND, 1);
        CRYPT_DATA_BLOB bytes{1, const_cast<BYTE*>(reinterpret_cast<const BYTE*>("x"))};
        DWORD cb = 0;
        EXPECT_FALSE(nv::sys::CryptEncodeObject(X509_ASN_ENCODING, X509_OCTET_STRING, &bytes, nullptr, &cb));
        EXPECT_EQ(static_cast<DWORD>(ERROR_PROC_NOT_FOUND), ::GetLastError());
        EXPECT_EQ(1u, fault.failed());
        EXPECT_TRUE(nv::sys::CryptEncodeObject(X509_ASN_ENCODING, X509_OCTET_STRING, &bytes, nullptr, &cb));
        EXPECT_EQ(3u, cb); // 04 01 'x'
        EXPECT_EQ(2u, fault.calls());
    }

    // Two threads making the first call into netapi32 at once: both are answered,
    // and the reference the later store lost is given back.
    {
        g_firstLoading = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
        g_secondDone = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
        ImportPatch patch(::GetModuleHandleW(nullptr),
                          {{"LoadLibraryExW", reinterpret_cast<void*>(&RacingLoadLibraryExW)},
                           {"FreeLibrary", reinterpret_cast<void*>(&CountingFreeLibrary)}});
        ASSERT_TRUE(patch.ok());
        g_realLoadLibraryExW = reinterpret_cast<decltype(g_realLoadLibraryExW)>(patch.Original("LoadLibraryExW"));
        g_realFreeLibrary = reinterpret_cast<decltype(g_realFreeLibrary)>(patch.Original("FreeLibrary"));
        ASSERT_NE(nullptr, g_realLoadLibraryExW);
        ASSERT_NE(nullptr, g_realFreeLibrary);
        NET_API_STATUS first = ERROR_INVALID_FUNCTION;
        std::thread racer([&] { first = nv::sys::NetApiBufferFree(nullptr); });
        ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(g_firstLoading, 10000));
        LPBYTE info = nullptr;
        const NET_API_STATUS second = nv::sys::NetWkstaGetInfo(nullptr, 100, &info);
        ::SetEvent(g_secondDone);
        racer.join();
        EXPECT_EQ(NERR_Success, second);
        ASSERT_NE(nullptr, info);
        EXPECT_STRCASEEQ(Narrow(ComputerName()).c_str(),
                         Narrow(reinterpret_cast<const WKSTA_INFO_100*>(info)->wki100_computername).c_str());
        EXPECT_EQ(NERR_Success, nv::sys::NetApiBufferFree(info));
        EXPECT_EQ(::NetApiBufferFree(nullptr), first);
        EXPECT_EQ(2, g_netapiLoads);
        EXPECT_EQ(1, g_netapiFrees);
        ::CloseHandle(g_firstLoading);
        ::CloseHandle(g_secondDone);
    }

    // A network function that cannot be found answers the loader's error, or
    // ERROR_PROC_NOT_FOUND when it left none.
    {
        ImportFault<decltype(&::GetProcAddress)> fault("GetProcAddress", nullptr, ERROR_INVALID_HANDLE, 1);
        LPBYTE info = nullptr;
        EXPECT_EQ(static_cast<NET_API_STATUS>(ERROR_INVALID_HANDLE), nv::sys::NetServerGetInfo(nullptr, 101, &info));
        EXPECT_EQ(nullptr, info);
    }
    {
        ImportFault<decltype(&::GetProcAddress)> fault("GetProcAddress", nullptr, ERROR_SUCCESS, 1);
        LPBYTE info = nullptr;
        EXPECT_EQ(static_cast<NET_API_STATUS>(ERROR_PROC_NOT_FOUND), nv::sys::NetServerGetInfo(nullptr, 101, &info));
        EXPECT_EQ(nullptr, info);
        EXPECT_EQ(1u, fault.failed());
    }

    // ntdll not found for the name comparison: the record set does not open; the
    // next open looks again and opens.
    {
        CNVDBRegSet set;
        {
            ImportPatch patch(::GetModuleHandleW(nullptr),
                              {{"GetModuleHandleW", reinterpret_cast<void*>(&NoNtdllGetModuleHandleW)}});
            ASSERT_TRUE(patch.ok());
            g_realGetModuleHandleW = reinterpret_cast<decltype(g_realGetModuleHandleW)>(patch.Original("GetModuleHandleW"));
            EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND), set.Open(ComputerName().c_str(), 0));
            EXPECT_EQ(1, g_ntdllRefusals);
        }
        EXPECT_FALSE(set.IsOpen());
        ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
        EXPECT_EQ(L"SOFTWARE\\Norvane\\DB\\MainDB\\Users", set.GetUsersPath());
    }

    // The second of two calls whose size query was answered fails: the public key
    // and the signature are not handed out.
    {
        ImportPatch patch(::GetModuleHandleW(nullptr),
                          {{"GetProcAddress", reinterpret_cast<void*>(&StandInGetProcAddress)}});
        ASSERT_TRUE(patch.ok());
        g_realGetProcAddress = reinterpret_cast<decltype(g_realGetProcAddress)>(patch.Original("GetProcAddress"));
        CFPSecurityContext ctx;
        ASSERT_EQ(S_OK, ctx.FinalConstruct(KEY_WOW64_32KEY));
        TaskMemory key;
        EXPECT_EQ(NTE_BAD_KEY_STATE, ctx.GetPublicKey(&key));
        EXPECT_EQ(0xdeadbeefu, key.cbData);
        EXPECT_EQ(1, g_exportFailures);
        const BYTE toBeSigned[] = {0x30, 0x03, 0x02, 0x01, 0x05};
        CRYPT_DATA_BLOB in{sizeof(toBeSigned), const_cast<BYTE*>(toBeSigned)};
        TaskMemory signedRecord;
        EXPECT_EQ(NTE_BAD_KEY_STATE, ctx.SignBLOB(&in, &signedRecord, ctx.Provider(), AT_KEYEXCHANGE, nullptr));
        EXPECT_EQ(0xdeadbeefu, signedRecord.cbData);
        EXPECT_EQ(1, g_signFailures);
        // Failed once only: both succeed now.
        TaskMemory key2;
        EXPECT_EQ(S_OK, ctx.GetPublicKey(&key2));
        EXPECT_EQ(ProvisionedHostTest::PublicKeyOf(kTestHostId),
                  std::vector<BYTE>(key2.pbData, key2.pbData + key2.cbData));
        TaskMemory signed2;
        EXPECT_EQ(S_OK, ctx.SignBLOB(&in, &signed2, ctx.Provider(), AT_KEYEXCHANGE, nullptr));
        ctx.FinalRelease();
    }
}
