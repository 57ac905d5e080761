#include "support/store_sandbox.h"

#include <objbase.h>
#include <cwchar>
#include <vector>
#include "common/procaddress.h"
#include "converter3/nvstore_api.h"
#include "nvstore_inspect.h"
#include "support/dll_loader.h"

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
    SECURITY_ATTRIBUTES sa{sizeof(sa), nullptr, TRUE};
    HANDLE readEnd = nullptr, writeEnd = nullptr;
    if (!::CreatePipe(&readEnd, &writeEnd, &sa, 0))
        return -1;
    ::SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
    HANDLE nul = ::CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &sa,
                               OPEN_EXISTING, 0, nullptr);
    STARTUPINFOW si{};
    si.cb = sizeof(si);
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = nul;
    si.hStdOutput = writeEnd;
    si.hStdError = nul;
    PROCESS_INFORMATION pi{};
    std::vector<wchar_t> cmd(commandLine.begin(), commandLine.end());
    cmd.push_back(L'\0');
    const BOOL started = ::CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr,
                                          nullptr, &si, &pi);
    ::CloseHandle(writeEnd);
    if (nul != INVALID_HANDLE_VALUE)
        ::CloseHandle(nul);
    if (!started) {
        ::CloseHandle(readEnd);
        return -1;
    }
    std::string out;
    char buf[4096];
    DWORD n = 0;
    while (::ReadFile(readEnd, buf, sizeof(buf), &n, nullptr) && n > 0)
        out.append(buf, n);
    ::CloseHandle(readEnd);
    DWORD code = static_cast<DWORD>(-1);
    if (::WaitForSingleObject(pi.hProcess, timeoutMs) == WAIT_OBJECT_0)
        ::GetExitCodeProcess(pi.hProcess, &code);
    ::CloseHandle(pi.hThread);
    ::CloseHandle(pi.hProcess);
    if (output)
        *output = out;
    return static_cast<int>(code);
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
