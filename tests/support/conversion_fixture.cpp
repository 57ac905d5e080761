#include "support/conversion_fixture.h"

#include <objbase.h>
#include <aclapi.h>
#include "common/storecontract.h"
#include "nvstore_inspect.h"
#include "support/store_sandbox.h"

namespace nvtest {

std::vector<std::string> OwnLines(const TraceCapture& trace, const std::string& scope, std::size_t occurrence)
{
    std::vector<std::string> own;
    int depth = 0;
    for (const std::string& line : trace.LinesInScope(scope, occurrence)) {
        if (line.rfind("> ", 0) == 0) {
            ++depth;
            continue;
        }
        if (line == "<") {
            --depth;
            continue;
        }
        if (depth == 0)
            own.push_back(line);
    }
    return own;
}

void LockRegistryKey(const std::wstring& path, REGSAM view)
{
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, WRITE_DAC | view, &key));
    EXPLICIT_ACCESSW ea{};
    ea.grfAccessPermissions = KEY_READ | WRITE_DAC | READ_CONTROL;
    ea.grfAccessMode = SET_ACCESS;
    ea.grfInheritance = NO_INHERITANCE;
    ea.Trustee.TrusteeForm = TRUSTEE_IS_NAME;
    ea.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
    wchar_t everyone[] = L"EVERYONE";
    ea.Trustee.ptstrName = everyone;
    PACL acl = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::SetEntriesInAclW(1, &ea, nullptr, &acl));
    const DWORD r = ::SetSecurityInfo(key, SE_REGISTRY_KEY,
                                      DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                      acl, nullptr);
    ::LocalFree(acl);
    ::RegCloseKey(key);
    ASSERT_EQ(ERROR_SUCCESS, r);
    // The lock holds: full access is refused now.
    HKEY probe = nullptr;
    ASSERT_EQ(ERROR_ACCESS_DENIED, ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_ALL_ACCESS | view, &probe));
}

void UnlockRegistryKey(const std::wstring& path, REGSAM view)
{
    HKEY key = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, WRITE_DAC | view, &key) != ERROR_SUCCESS)
        return;
    ::SetSecurityInfo(key, SE_REGISTRY_KEY, DACL_SECURITY_INFORMATION | UNPROTECTED_DACL_SECURITY_INFORMATION, nullptr,
                      nullptr, nullptr, nullptr);
    ::RegCloseKey(key);
}

void Db20ConversionTest::LockKey(const std::wstring& path)
{
    m_locked.push_back(path);
    LockRegistryKey(path, kView32);
}

ComApartment::ComApartment() : m_hr(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)) {}

ComApartment::~ComApartment()
{
    if (SUCCEEDED(m_hr))
        ::CoUninitialize();
}

void Db20ConversionTest::SetUp()
{
    TraceCaptureTest::SetUp();
    nvstore::inspect::DeleteStoreKeyContainers();
    RestoreStoreRegistration();
    if (m_quickKeys)
        nvstore::inspect::SetUserKeyBits(1024);
    m_com = new ComApartment();
    ASSERT_TRUE(SUCCEEDED(m_com->result())) << std::hex << m_com->result();
}

void Db20ConversionTest::TearDown()
{
    for (const std::wstring& path : m_locked)
        UnlockRegistryKey(path, kView32);
    m_locked.clear();
    for (const nvwriter::Db20Database& db : m_written)
        EXPECT_EQ(S_OK, nvwriter::DeleteDb20Container(db));
    m_written.clear();
    delete m_com;
    m_com = nullptr;
    nvstore::inspect::DeleteStoreKeyContainers();
    RestoreStoreRegistration();
    TraceCaptureTest::TearDown();
}

void Db20ConversionTest::UnregisterStore()
{
    const std::wstring clsidKey = L"SOFTWARE\\Classes\\CLSID\\" + GuidText(nvstore::kClsidUserStore);
    DeleteTree(clsidKey.c_str(), kView64);
    DeleteTree(clsidKey.c_str(), kView32);
    ASSERT_FALSE(KeyExists(clsidKey.c_str(), kView64));
}

void Db20ConversionTest::RestoreStoreRegistration()
{
    if (::_wcsicmp(RegisteredStoreServerPath().c_str(), StoreServerPath().c_str()) != 0) {
        ASSERT_EQ(S_OK, RegisterStoreServer());
    }
}

nvwriter::Db20Database Db20ConversionTest::MakeDatabase(unsigned users, std::uint32_t seed, unsigned domains,
                                                       std::vector<std::pair<unsigned, nvwriter::Db20Defect>> defects)
{
    nvwriter::Db20Options options;
    options.seed = seed;
    options.userCount = users;
    options.domainCount = domains;
    options.defects = std::move(defects);
    return nvwriter::MakeDb20Database(options);
}

void Db20ConversionTest::WriteDatabase(const nvwriter::Db20Database& db)
{
    // A database written again over itself has one container to delete.
    bool known = false;
    for (const nvwriter::Db20Database& written : m_written)
        known = known || IsEqualGUID(written.hostId, db.hostId);
    if (!known)
        m_written.push_back(db);
    ASSERT_EQ(S_OK, nvwriter::WriteDb20Database(db));
}

} // namespace nvtest
