#include "support/registry_sandbox.h"

#include <aclapi.h>
#include <sddl.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <sstream>

#include "writer/host_provisioning.h"

namespace nvtest {

namespace {

constexpr const wchar_t* kSuiteKeys[] = {
    L"SOFTWARE\\Norvane",
    L"SOFTWARE\\Policies\\Norvane",
};

HKEY OpenKey(const wchar_t* path, REGSAM access)
{
    HKEY h = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, access, &h) != ERROR_SUCCESS)
        return nullptr;
    return h;
}

void WalkTree(HKEY key, const std::wstring& rel, RegTree& tree)
{
    tree.keys.push_back(rel);
    for (DWORD i = 0;; ++i) {
        wchar_t name[16384];
        DWORD cch = 16384, type = 0, cb = 0;
        LONG r = ::RegEnumValueW(key, i, name, &cch, nullptr, &type, nullptr, &cb);
        if (r != ERROR_SUCCESS)
            break;
        RegValue v;
        v.type = type;
        v.data.resize(cb);
        DWORD cb2 = cb;
        ::RegQueryValueExW(key, name, nullptr, &type, cb ? v.data.data() : nullptr, &cb2);
        v.data.resize(cb2);
        tree.values[rel + L"|" + name] = std::move(v);
    }
    std::vector<std::wstring> subs;
    for (DWORD i = 0;; ++i) {
        wchar_t name[256];
        DWORD cch = 256;
        if (::RegEnumKeyExW(key, i, name, &cch, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        subs.emplace_back(name);
    }
    for (const auto& s : subs) {
        HKEY child = nullptr;
        if (::RegOpenKeyExW(key, s.c_str(), 0, KEY_READ, &child) == ERROR_SUCCESS) {
            WalkTree(child, rel.empty() ? s : rel + L"\\" + s, tree);
            ::RegCloseKey(child);
        }
    }
}

} // namespace

std::string Narrow(const std::wstring& w)
{
    if (w.empty())
        return {};
    int n = ::WideCharToMultiByte(CP_UTF8, 0, w.data(), static_cast<int>(w.size()), nullptr, 0, nullptr, nullptr);
    std::string s(static_cast<size_t>(n), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, w.data(), static_cast<int>(w.size()), s.data(), n, nullptr, nullptr);
    return s;
}

std::wstring Widen(const std::string& s)
{
    if (s.empty())
        return {};
    int n = ::MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
    std::wstring w(static_cast<size_t>(n), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), w.data(), n);
    return w;
}

bool DeleteTree(const wchar_t* path, REGSAM view)
{
    HKEY h = OpenKey(path, KEY_ALL_ACCESS | view);
    if (!h)
        return !KeyExists(path, view);
    ::RegDeleteTreeW(h, nullptr);
    ::RegCloseKey(h);
    ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, path, view, 0);
    return !KeyExists(path, view);
}

bool KeyExists(const wchar_t* path, REGSAM view)
{
    HKEY h = OpenKey(path, KEY_READ | view);
    if (h)
        ::RegCloseKey(h);
    return h != nullptr;
}

void RegistrySandbox::SetUp()
{
    nvwriter::SetHostKeyBits(m_quickHostKey ? 1024 : 0);
    WipeSuiteKeys();
}

void RegistrySandbox::TearDown()
{
    WipeSuiteKeys();
    nvwriter::SetHostKeyBits(0);
}

void WipeSuiteKeys()
{
    for (const wchar_t* k : kSuiteKeys) {
        EXPECT_TRUE(DeleteTree(k, kView32)) << Narrow(k);
        EXPECT_TRUE(DeleteTree(k, kView64)) << Narrow(k);
    }
}

void CreateKeyPath(const wchar_t* path, REGSAM view)
{
    HKEY h = nullptr;
    LONG r = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_ALL_ACCESS | view, nullptr, &h, nullptr);
    ASSERT_EQ(ERROR_SUCCESS, r) << Narrow(path);
    ::RegCloseKey(h);
}

static void SetRaw(const wchar_t* path, const wchar_t* name, DWORD type, const void* data, DWORD cb, REGSAM view)
{
    HKEY h = nullptr;
    LONG r = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_ALL_ACCESS | view, nullptr, &h, nullptr);
    ASSERT_EQ(ERROR_SUCCESS, r) << Narrow(path);
    // RegSetValueExW adds a terminator to a string value when the character after
    // the data happens to be NUL; pad with non-zero bytes so that what the test
    // writes is exactly what lands.
    std::vector<BYTE> padded(cb + 2, 0xFF);
    if (cb)
        std::memcpy(padded.data(), data, cb);
    r = ::RegSetValueExW(h, name, 0, type, data ? padded.data() : nullptr, cb);
    ::RegCloseKey(h);
    ASSERT_EQ(ERROR_SUCCESS, r) << Narrow(path) << "|" << (name ? Narrow(name) : "");
}

void SetString(const wchar_t* path, const wchar_t* name, const std::wstring& value, REGSAM view, DWORD type)
{
    SetRaw(path, name, type, value.c_str(), static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)), view);
}

void SetDword(const wchar_t* path, const wchar_t* name, DWORD value, REGSAM view)
{
    SetRaw(path, name, REG_DWORD, &value, sizeof(value), view);
}

void SetBinary(const wchar_t* path, const wchar_t* name, const std::vector<BYTE>& value, REGSAM view, DWORD type)
{
    SetRaw(path, name, type, value.empty() ? nullptr : value.data(), static_cast<DWORD>(value.size()), view);
}

void DeleteValue(const wchar_t* path, const wchar_t* name, REGSAM view)
{
    HKEY h = OpenKey(path, KEY_ALL_ACCESS | view);
    if (h) {
        ::RegDeleteValueW(h, name);
        ::RegCloseKey(h);
    }
}

bool GetValue(const wchar_t* path, const wchar_t* name, REGSAM view, RegValue* out)
{
    HKEY h = OpenKey(path, KEY_READ | view);
    if (!h)
        return false;
    DWORD type = 0, cb = 0;
    LONG r = ::RegQueryValueExW(h, name, nullptr, &type, nullptr, &cb);
    if (r == ERROR_SUCCESS) {
        out->type = type;
        out->data.resize(cb);
        r = ::RegQueryValueExW(h, name, nullptr, &type, cb ? out->data.data() : nullptr, &cb);
        out->data.resize(cb);
    }
    ::RegCloseKey(h);
    return r == ERROR_SUCCESS;
}

bool GetString(const wchar_t* path, const wchar_t* name, REGSAM view, std::wstring* out)
{
    RegValue v;
    if (!GetValue(path, name, view, &v) || (v.type != REG_SZ && v.type != REG_EXPAND_SZ))
        return false;
    std::wstring s(reinterpret_cast<const wchar_t*>(v.data.data()), v.data.size() / sizeof(wchar_t));
    while (!s.empty() && s.back() == L'\0')
        s.pop_back();
    *out = s;
    return true;
}

bool GetDword(const wchar_t* path, const wchar_t* name, REGSAM view, DWORD* out)
{
    RegValue v;
    if (!GetValue(path, name, view, &v) || v.type != REG_DWORD || v.data.size() != 4)
        return false;
    std::memcpy(out, v.data.data(), 4);
    return true;
}

RegTree Snapshot(const wchar_t* path, REGSAM view)
{
    RegTree tree;
    HKEY h = OpenKey(path, KEY_READ | view);
    if (!h)
        return tree;
    tree.exists = true;
    WalkTree(h, L"", tree);
    ::RegCloseKey(h);
    std::sort(tree.keys.begin(), tree.keys.end());
    return tree;
}

std::vector<std::wstring> SubkeyNames(const wchar_t* path, REGSAM view)
{
    std::vector<std::wstring> out;
    HKEY h = OpenKey(path, KEY_READ | view);
    if (!h)
        return out;
    for (DWORD i = 0;; ++i) {
        wchar_t name[256];
        DWORD cch = 256;
        if (::RegEnumKeyExW(h, i, name, &cch, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        out.emplace_back(name);
    }
    ::RegCloseKey(h);
    return out;
}

std::vector<std::wstring> ValueNames(const wchar_t* path, REGSAM view)
{
    std::vector<std::wstring> out;
    HKEY h = OpenKey(path, KEY_READ | view);
    if (!h)
        return out;
    for (DWORD i = 0;; ++i) {
        wchar_t name[16384];
        DWORD cch = 16384;
        if (::RegEnumValueW(h, i, name, &cch, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        out.emplace_back(name);
    }
    ::RegCloseKey(h);
    return out;
}

std::string DiffTrees(const RegTree& expected, const RegTree& actual)
{
    std::ostringstream os;
    if (expected.exists != actual.exists)
        os << "tree exists: expected " << expected.exists << ", actual " << actual.exists << "\n";
    for (const auto& k : expected.keys)
        if (!std::binary_search(actual.keys.begin(), actual.keys.end(), k))
            os << "missing key: " << Narrow(k) << "\n";
    for (const auto& k : actual.keys)
        if (!std::binary_search(expected.keys.begin(), expected.keys.end(), k))
            os << "extra key: " << Narrow(k) << "\n";
    for (const auto& [name, v] : expected.values) {
        auto it = actual.values.find(name);
        if (it == actual.values.end())
            os << "missing value: " << Narrow(name) << "\n";
        else if (it->second != v)
            os << "changed value: " << Narrow(name) << " (type " << v.type << "->" << it->second.type << ", "
               << v.data.size() << "->" << it->second.data.size() << " bytes)\n";
    }
    for (const auto& [name, v] : actual.values)
        if (!expected.values.count(name))
            os << "extra value: " << Narrow(name) << "\n";
    return os.str();
}

std::wstring DaclText(const wchar_t* path, REGSAM view)
{
    HKEY h = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, READ_CONTROL | view, &h) != ERROR_SUCCESS)
        return L"<no key>";
    PSECURITY_DESCRIPTOR sd = nullptr;
    DWORD r = ::GetSecurityInfo(h, SE_REGISTRY_KEY, DACL_SECURITY_INFORMATION, nullptr, nullptr, nullptr, nullptr,
                                &sd);
    ::RegCloseKey(h);
    if (r != ERROR_SUCCESS)
        return L"<error>";
    LPWSTR text = nullptr;
    ::ConvertSecurityDescriptorToStringSecurityDescriptorW(sd, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text,
                                                           nullptr);
    std::wstring out = text ? text : L"";
    ::LocalFree(text);
    ::LocalFree(sd);
    return out;
}

std::wstring DaclEntries(const std::wstring& sddl)
{
    size_t paren = sddl.find(L'(');
    return paren == std::wstring::npos ? std::wstring() : sddl.substr(paren);
}

void SetDacl(const wchar_t* path, REGSAM view, const wchar_t* sddl)
{
    HKEY h = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, WRITE_DAC | view, &h));
    PSECURITY_DESCRIPTOR sd = nullptr;
    ASSERT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &sd, nullptr));
    BOOL present = FALSE, defaulted = FALSE;
    PACL dacl = nullptr;
    ::GetSecurityDescriptorDacl(sd, &present, &dacl, &defaulted);
    EXPECT_EQ(ERROR_SUCCESS, ::SetSecurityInfo(h, SE_REGISTRY_KEY,
                                               DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                                               nullptr, nullptr, dacl, nullptr));
    ::LocalFree(sd);
    ::RegCloseKey(h);
}

SuiteSnapshot SnapshotSuite()
{
    return {Snapshot(L"SOFTWARE\\Norvane", kView32), Snapshot(L"SOFTWARE\\Norvane", kView64)};
}

void ExpectSuiteUnchanged(const SuiteSnapshot& before, int line)
{
    const SuiteSnapshot after = SnapshotSuite();
    EXPECT_TRUE(before.v32 == after.v32) << "line " << line << ", 32-bit view:\n" << DiffTrees(before.v32, after.v32);
    EXPECT_TRUE(before.v64 == after.v64) << "line " << line << ", 64-bit view:\n" << DiffTrees(before.v64, after.v64);
}

} // namespace nvtest
