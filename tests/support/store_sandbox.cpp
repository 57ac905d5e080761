#include "support/store_sandbox.h"

#include <objbase.h>
#include <cwchar>
#include "common/procaddress.h"
#include "common/storecontract.h"
#include "nvstore_inspect.h"
#include "support/dll_loader.h"
#include "support/process_runner.h"

namespace nvtest {

std::wstring StoreServerPath() { return ExeDirectory() + L"NVStore.dll"; }

std::wstring RegisteredStoreServerPath()
{
    wchar_t clsid[64] = {};
    ::StringFromGUID2(nvstore::kClsidUserStore, clsid, 64);
    const std::wstring path = std::wstring(L"SOFTWARE\\Classes\\CLSID\\") + clsid + L"\\InprocServer32";
    std::wstring value;
    if (!GetString(path.c_str(), L"", kView64, &value))
        return std::wstring();
    return value;
}

HRESULT RegisterStoreServer()
{
    HMODULE module = ::LoadLibraryW(StoreServerPath().c_str());
    if (!module)
        return HRESULT_FROM_WIN32(::GetLastError());
    using RegisterFn = HRESULT(__stdcall*)();
    auto reg = nv::GetProcAs<RegisterFn>(module, "DllRegisterServer");
    const HRESULT hr = reg ? reg() : E_NOINTERFACE;
    ::FreeLibrary(module);
    return hr;
}

int RunAndCapture(const std::wstring& commandLine, std::string* output, DWORD timeoutMs)
{
    ProcessRun run = RunProcess(commandLine, timeoutMs);
    if (output)
        *output = run.out;
    if (!run.started || run.timedOut)
        return -1;
    return static_cast<int>(run.exitCode);
}

void StoreSandbox::SetUp()
{
    RegistrySandbox::SetUp();
    nvstore::inspect::DeleteStoreKeyContainers();
    if (::_wcsicmp(RegisteredStoreServerPath().c_str(), StoreServerPath().c_str()) != 0) {
        ASSERT_EQ(S_OK, RegisterStoreServer());
    }
    if (m_quickKeys)
        nvstore::inspect::SetUserKeyBits(1024);
    const HRESULT hr = ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    ASSERT_TRUE(SUCCEEDED(hr)) << std::hex << hr;
    m_comInitialized = true;
}

void StoreSandbox::TearDown()
{
    if (m_comInitialized) {
        ::CoUninitialize();
        m_comInitialized = false;
    }
    nvstore::inspect::DeleteStoreKeyContainers();
    RegistrySandbox::TearDown();
}

} // namespace nvtest
