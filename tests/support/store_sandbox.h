// Fixture for tests that use the reference store (NVStore.dll).
//
// StoreSandbox is a RegistrySandbox (the store's data lives under
// HKLM\SOFTWARE\Norvane\Store, so it is wiped with the rest) that also deletes the
// store's key containers before and after each test, makes sure NVStore.dll from
// the test folder is the registered server, and initialises COM (apartment
// threaded) for the test's thread. New key pairs are 1024-bit unless a test sets
// m_quickKeys = false before SetUp (the store's default is 2048).
#pragma once
#include <windows.h>
#include <string>
#include "support/registry_sandbox.h"

namespace nvtest {

// The full path of NVStore.dll next to the test executable.
std::wstring StoreServerPath();
// The InprocServer32 path registered for the store's class (64-bit view), or "".
std::wstring RegisteredStoreServerPath();
// Registers the store server by calling its DllRegisterServer; its result.
HRESULT RegisterStoreServer();

// Runs a command line, waits for it, and gives its exit code and its standard
// output (bytes as written). -1 when the process could not be started or did not end
// within timeoutMs (it is then ended). Launches go through RunProcess.
int RunAndCapture(const std::wstring& commandLine, std::string* output, DWORD timeoutMs = 60000);

class StoreSandbox : public RegistrySandbox {
protected:
    void SetUp() override;
    void TearDown() override;

    bool m_quickKeys = true;

private:
    bool m_comInitialized = false;
};

} // namespace nvtest
