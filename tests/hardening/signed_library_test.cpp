// The library as it ships: Authenticode-signed (here with the throw-away test
// certificate of the signing check, which leaves the signed copy in bin/signed/).
// Signing must not change what the library does: it registers, loads and converts.
#include <windows.h>
#include <gtest/gtest.h>
#include <string>

#include "support/dll_loader.h"
#include "support/pe_file.h"
#include "support/registry_sandbox.h"
#include "support/db_paths.h"
#include "writer/legacy_writer.h"

using namespace nvtest;

namespace {

constexpr const wchar_t kSignedLibrary[] = L"signed\\NVDBConv.dll";
constexpr const wchar_t kSysComponents[] = L"SOFTWARE\\Norvane\\Core\\SysComponents";

class SignedLibraryTest : public RegistrySandbox {};

} // namespace

TEST_F(SignedLibraryTest, CarriesAnAuthenticodeSignature)
{
    PeFile pe;
    std::string error;
    ASSERT_TRUE(pe.Read(ExeDirectory() + kSignedLibrary, &error)) << error;
    const IMAGE_DATA_DIRECTORY& security = pe.directory(IMAGE_DIRECTORY_ENTRY_SECURITY);
    EXPECT_NE(0u, security.VirtualAddress); // a file offset for this directory
    EXPECT_GT(security.Size, 1000u);
    EXPECT_EQ(pe.bytes().size(), static_cast<size_t>(security.VirtualAddress) + security.Size);
    PeFile unsigned_;
    ASSERT_TRUE(unsigned_.Read(ExeDirectory() + L"NVDBConv.dll", &error)) << error;
    EXPECT_EQ(0u, unsigned_.directory(IMAGE_DIRECTORY_ENTRY_SECURITY).Size);
}

TEST_F(SignedLibraryTest, RegistersLoadsAndConverts)
{
    nvwriter::DbOptions options;
    options.users = 6;
    nvwriter::DbRecord record;
    ASSERT_EQ(S_OK, nvwriter::WriteDatabase(options, &record));

    LoadedLibrary dll(kSignedLibrary);
    ASSERT_TRUE(dll.loaded());
    ExpectDbVersions(dll, 0x00010000u, 0x00020000u, __LINE__);

    EXPECT_EQ(S_OK, dll.DllRegisterServer());
    std::wstring entry;
    ASSERT_TRUE(GetString(kSysComponents, L"CNVDBConverter", kViewNative, &entry));
    const std::wstring suffix = std::wstring(L":") + dll.path();
    ASSERT_GT(entry.size(), suffix.size());
    EXPECT_EQ(suffix, entry.substr(entry.size() - suffix.size())) << Narrow(entry);

    EXPECT_EQ(S_OK, dll.Convert());
    std::wstring version;
    EXPECT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"2.0", version);
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB-v1.0", kView32));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB-v1.0", kView64));

    EXPECT_EQ(S_OK, dll.DllUnregisterServer());
    EXPECT_FALSE(KeyExists(kSysComponents, kViewNative));
}
