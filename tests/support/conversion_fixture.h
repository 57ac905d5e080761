// Fixtures for the format 2.0 to 3.0 conversion run end to end: a database made by
// the 2.0 writer, COM on the test thread (as the installer has it) and the trace
// captured. What the store must hold afterwards is in store_expectations.h, the DER
// readers behind it in store_der.h.
//
// Db20ConversionTest is a TraceCaptureTest: every test starts with a wiped registry
// (the reference store's data included) and a trace file at verbosity 10. Like
// StoreSandbox it deletes the store's key containers before and after the test,
// makes sure NVStore.dll of the test folder is the registered store, and has the
// store make 1024-bit user keys unless m_quickKeys is set to false before SetUp.
// Databases written through WriteDatabase() have their machine containers deleted
// again at the end of the test.
#pragma once
#include <windows.h>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

#include "support/db_paths.h"
#include "support/registry_sandbox.h"
#include "support/store_expectations.h"
#include "support/text_util.h"
#include "support/trace_capture.h"
#include "writer/db20_writer.h"

namespace nvtest {

// The lines a scope wrote itself: nested scopes (their enter, lines and leave) are
// left out. Empty when the scope is not in the trace.
std::vector<std::string> OwnLines(const TraceCapture& trace, const std::string& scope, std::size_t occurrence = 0);

// Leaves a key that anybody may read, and whose access list may be changed back,
// but that nobody may open for full access: deleting it fails with access denied.
void LockRegistryKey(const std::wstring& path, REGSAM view);
// Gives the key its inherited access list back (nothing when it is missing).
void UnlockRegistryKey(const std::wstring& path, REGSAM view);

class ComApartment {
public:
    ComApartment();
    ~ComApartment();
    ComApartment(const ComApartment&) = delete;
    ComApartment& operator=(const ComApartment&) = delete;
    HRESULT result() const { return m_hr; }

private:
    HRESULT m_hr;
};

class Db20ConversionTest : public TraceCaptureTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // Draws a database (no cached domains unless asked, with these defects) without
    // writing it.
    static nvwriter::Db20Database MakeDatabase(unsigned users, std::uint32_t seed = 7, unsigned domains = 0,
                                               std::vector<std::pair<unsigned, nvwriter::Db20Defect>> defects = {});
    // Writes it (asserting success) and remembers its container for the clean-up.
    void WriteDatabase(const nvwriter::Db20Database& db);

    // Removes the store's class registration (both views); RestoreStoreRegistration
    // (also run by TearDown) registers it again.
    static void UnregisterStore();
    // LockRegistryKey in the 32-bit view, undone at TearDown.
    void LockKey(const std::wstring& path);
    static void RestoreStoreRegistration();

    std::vector<nvwriter::Db20Database> m_written;
    ComApartment* m_com = nullptr;
    bool m_quickKeys = true;
    std::vector<std::wstring> m_locked;
};

} // namespace nvtest
