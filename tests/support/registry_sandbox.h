// Registry fixtures shared by every test.
//
// RegistrySandbox wipes the suite's keys (HKLM\SOFTWARE\Norvane, and the policy key
// HKLM\SOFTWARE\Policies\Norvane) in both registry views before and after each test.
// The helpers read and write values in an explicit view and take whole-tree
// snapshots, so a test can compare a tree value by value.
#pragma once
#include <windows.h>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

namespace nvtest {

constexpr REGSAM kView32 = KEY_WOW64_32KEY;
constexpr REGSAM kView64 = KEY_WOW64_64KEY;
constexpr REGSAM kViewNative = 0;

// Deletes HKLM\<path> and everything below it in the given view; true when it is gone.
bool DeleteTree(const wchar_t* path, REGSAM view);
bool KeyExists(const wchar_t* path, REGSAM view);
// Removes every key a test may have touched, in both views.
void WipeSuiteKeys();

// Creates HKLM\<path> (and its parents) in the view; asserts on failure.
void CreateKeyPath(const wchar_t* path, REGSAM view);
void SetString(const wchar_t* path, const wchar_t* name, const std::wstring& value, REGSAM view,
               DWORD type = REG_SZ);
void SetDword(const wchar_t* path, const wchar_t* name, DWORD value, REGSAM view);
void SetBinary(const wchar_t* path, const wchar_t* name, const std::vector<BYTE>& value, REGSAM view,
               DWORD type = REG_BINARY);
void DeleteValue(const wchar_t* path, const wchar_t* name, REGSAM view);

struct RegValue {
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
    bool operator==(const RegValue& o) const { return type == o.type && data == o.data; }
    bool operator!=(const RegValue& o) const { return !(*this == o); }
};

// Reads one value; false when the key or the value is missing.
bool GetValue(const wchar_t* path, const wchar_t* name, REGSAM view, RegValue* out);
// A REG_SZ/REG_EXPAND_SZ value as text (without its terminator); empty optional-like: found=false.
bool GetString(const wchar_t* path, const wchar_t* name, REGSAM view, std::wstring* out);
bool GetDword(const wchar_t* path, const wchar_t* name, REGSAM view, DWORD* out);

// A whole tree: every key (relative path, "" for the root) and every value
// ("relative\\path" + '|' + value name, "" for the default value).
struct RegTree {
    std::vector<std::wstring> keys;            // sorted, relative paths
    std::map<std::wstring, RegValue> values;   // "path|name" -> value
    bool exists = false;
    bool operator==(const RegTree& o) const { return exists == o.exists && keys == o.keys && values == o.values; }
};
RegTree Snapshot(const wchar_t* path, REGSAM view);
std::vector<std::wstring> SubkeyNames(const wchar_t* path, REGSAM view);
std::vector<std::wstring> ValueNames(const wchar_t* path, REGSAM view);

// The key's DACL in SDDL form ("D:(A;OICI;KA;;;SY)..."); "<no key>" when the key
// cannot be opened, "<error>" when its security cannot be read.
std::wstring DaclText(const wchar_t* path, REGSAM view);
// The entries of an SDDL text, without the "D:" and its control flags: Wine 8's
// SetSecurityInfo does not carry PROTECTED_DACL_SECURITY_INFORMATION into the
// key's control word, so the "P" that Windows shows never appears here.
std::wstring DaclEntries(const std::wstring& sddl);
// Replaces the key's DACL by the one of an SDDL text, protected; asserts on failure.
void SetDacl(const wchar_t* path, REGSAM view, const wchar_t* sddl);
// Protected keys of the project: LocalSystem and Administrators full control, inherited
// by subkeys, and nothing for anyone else.
constexpr const wchar_t kAdministratorsOnlyEntries[] = L"(A;OICI;KA;;;SY)(A;OICI;KA;;;BA)";

// Human-readable difference of two trees (empty when equal), for assertion messages.
std::string DiffTrees(const RegTree& expected, const RegTree& actual);

// Both views of everything the suite keeps (HKLM\SOFTWARE\Norvane).
struct SuiteSnapshot {
    RegTree v32, v64;
};
SuiteSnapshot SnapshotSuite();
// Expects the suite's keys in both views as they were; line names the caller's line.
void ExpectSuiteUnchanged(const SuiteSnapshot& before, int line = 0);

std::string Narrow(const std::wstring& w);
std::wstring Widen(const std::string& s);

class RegistrySandbox : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Machine containers that the legacy writer makes in this process get 1024-bit
    // keys (nvwriter::SetHostKeyBits): a 2048-bit key costs a third of a second to
    // make, and most tests make one. A test that looks at the key sets this to false
    // before SetUp.
    bool m_quickHostKey = true;
};

} // namespace nvtest
