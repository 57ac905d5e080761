// The SDK header include/nvdbconv/nvdbconv.h: its "converted" test judges by the
// layout of the database key in the 32-bit view, whatever "Version" reads; its
// names and codes are the ones the library and the format use; and the library's
// exports have the header's types. And the reason a host loads the library once per
// step: the step is chosen when the library is loaded.
#include <windows.h>
#include <nvdbconv/nvdbconv.h>
#include <gtest/gtest.h>
#include <memory>

#include "frame/dblayout.h"
#include "support/dll_loader.h"
#include "support/registry_sandbox.h"
#include "support/db_paths.h"
#include "writer/legacy_writer.h"

using namespace nvtest;

namespace {


// The layout as both homes of the test see it: the header's function and the
// library's name for it must agree.
bool Layout30()
{
    const bool header = NVDBConvIsDatabaseLayout30() != FALSE;
    EXPECT_EQ(header, nvframe::IsDatabaseLayout30());
    return header;
}

} // namespace

class SdkHeaderTest : public RegistrySandbox {};

TEST_F(SdkHeaderTest, NoDatabaseIsNotConverted)
{
    ASSERT_FALSE(KeyExists(kDbPath, kView32));
    EXPECT_FALSE(Layout30());
}

TEST_F(SdkHeaderTest, ADatabaseKeyWithoutDataAndMainDBIsConvertedWhateverVersionReads)
{
    for (const wchar_t* version : {L"2.0", L"2.1", L"3.0", L""}) {
        SCOPED_TRACE(Narrow(version));
        ASSERT_TRUE(DeleteTree(kDbPath, kView32));
        SetString(kDbPath, L"Version", version, kView32);
        CreateKeyPath(L"SOFTWARE\\Norvane\\DB\\Policies", kView32);
        EXPECT_TRUE(Layout30());
    }
}

TEST_F(SdkHeaderTest, DataOrMainDBUnderTheDatabaseKeyIsNotConverted)
{
    SetString(kDbPath, L"Version", L"2.1", kView32);
    CreateKeyPath(L"SOFTWARE\\Norvane\\DB\\Data", kView32);
    EXPECT_FALSE(Layout30());
    ASSERT_TRUE(DeleteTree(L"SOFTWARE\\Norvane\\DB\\Data", kView32));
    CreateKeyPath(L"SOFTWARE\\Norvane\\DB\\MainDB", kView32);
    EXPECT_FALSE(Layout30());
    ASSERT_TRUE(DeleteTree(L"SOFTWARE\\Norvane\\DB\\MainDB", kView32));
    EXPECT_TRUE(Layout30());
}

// The converters keep the database in the 32-bit view: a key in the 64-bit view
// alone is no database, and a 64-bit Data does not make the 32-bit one unfinished.
TEST_F(SdkHeaderTest, OnlyThe32BitViewCounts)
{
    SetString(kDbPath, L"Version", L"2.1", kView64);
    EXPECT_FALSE(Layout30());
    SetString(kDbPath, L"Version", L"2.1", kView32);
    CreateKeyPath(L"SOFTWARE\\Norvane\\DB\\Data", kView64);
    CreateKeyPath(L"SOFTWARE\\Norvane\\DB\\MainDB", kView64);
    EXPECT_TRUE(Layout30());
}

// A Data key that exists but may not be read is not "certainly absent".
TEST_F(SdkHeaderTest, ADataKeyThatCannotBeOpenedIsNotConverted)
{
    SetString(kDbPath, L"Version", L"2.1", kView32);
    CreateKeyPath(L"SOFTWARE\\Norvane\\DB\\Data", kView32);
    SetDacl(L"SOFTWARE\\Norvane\\DB\\Data", kView32, L"D:P");
    EXPECT_FALSE(Layout30());
    SetDacl(L"SOFTWARE\\Norvane\\DB\\Data", kView32, L"D:P(A;OICI;KA;;;BA)(A;OICI;KA;;;SY)");
}

TEST(SdkHeaderValues, CodesVersionsAndNamesAreTheFormatsAndTheLibrarys)
{
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_BUSY), NV_E_CONVERSION_BUSY);
    EXPECT_EQ(static_cast<HRESULT>(0x80040201), NV_E_USER_INCOMPLETE);
    EXPECT_EQ(0x00010000u, NVDBCONV_VERSION_1_0);
    EXPECT_EQ(0x00020000u, NVDBCONV_VERSION_2_0);
    EXPECT_EQ(0x00030000u, NVDBCONV_VERSION_3_0);
    EXPECT_EQ(0x00020001u, NVDBCONV_MAKE_VERSION(2, 1));
    EXPECT_EQ(2u, NVDBCONV_VERSION_MAJOR(0x00020001u));
    EXPECT_STREQ(L"SOFTWARE\\Norvane\\DB", NVDBCONV_KEY_DATABASE);
    EXPECT_EQ(static_cast<REGSAM>(KEY_WOW64_32KEY), static_cast<REGSAM>(NVDBCONV_DATABASE_VIEW));
    EXPECT_STREQ(L"Backup", NVDBCONV_VALUE_BACKUP);
    EXPECT_STREQ(L"SOFTWARE\\Norvane\\DB-v1.0", NVDBCONV_KEY_BACKUP_10);
    EXPECT_STREQ(L"SOFTWARE\\Norvane\\DB-v2.0", NVDBCONV_KEY_BACKUP_20);
    EXPECT_STREQ(L"SOFTWARE\\Norvane\\Tracing", NVDBCONV_KEY_TRACING);
    EXPECT_STREQ(L"SOFTWARE\\Norvane\\Policies\\Default", NVDBCONV_KEY_POLICY);
    EXPECT_STREQ(L"StrictConversion", NVDBCONV_VALUE_STRICT_CONVERSION);
    EXPECT_STREQ(L"SOFTWARE\\Norvane\\DBConversion\\HeldUsers", NVDBCONV_KEY_HELD_USERS);
}

// Every name the header gives is an export of the built library, and the four
// that the import libraries carry are exported by name.
TEST_F(SdkHeaderTest, EveryExportNameResolvesInTheLibrary)
{
    LoadedLibrary library;
    ASSERT_TRUE(library.loaded());
    for (const char* name : {NVDBCONV_EXPORT_CONVERT, NVDBCONV_EXPORT_ROLLBACK, NVDBCONV_EXPORT_CLEANUP,
                             NVDBCONV_EXPORT_GETDBVERSION, NVDBCONV_EXPORT_DLLREGISTERSERVER,
                             NVDBCONV_EXPORT_DLLUNREGISTERSERVER, NVDBCONV_EXPORT_DLLCANUNLOADNOW,
                             NVDBCONV_EXPORT_DLLGETCLASSOBJECT}) {
        EXPECT_NE(nullptr, reinterpret_cast<void*>(::GetProcAddress(library.module(), name))) << name;
    }
    // No database: the holder has no converter, as the header's comments say.
    DWORD current = 0xdeadbeef, target = 0xdeadbeef;
    EXPECT_EQ(S_OK, library.GetDBVersion(&current, &target));
    EXPECT_EQ(0u, current);
    EXPECT_EQ(0u, target);
    EXPECT_EQ(E_FAIL, library.Convert());
}

// After a step, the same load still reports the step it was loaded for; only a new
// load sees the version that step wrote.
TEST_F(SdkHeaderTest, TheStepIsChosenAtLoadSoTheNextStepNeedsANewLoad)
{
    nvwriter::DbOptions options;
    options.users = 2;
    options.domains = 0;
    options.wipe = true;
    nvwriter::DbRecord record;
    ASSERT_EQ(S_OK, nvwriter::WriteDatabase(options, &record));

    auto library = std::make_unique<LoadedLibrary>();
    DWORD current = 0xdeadbeef, target = 0xdeadbeef;
    ASSERT_EQ(S_OK, library->GetDBVersion(&current, &target));
    EXPECT_EQ(NVDBCONV_VERSION_1_0, current);
    EXPECT_EQ(NVDBCONV_VERSION_2_0, target);
    ASSERT_EQ(S_OK, library->Convert());
    ASSERT_EQ(S_OK, library->GetDBVersion(&current, &target));
    EXPECT_EQ(NVDBCONV_VERSION_1_0, current);
    EXPECT_EQ(NVDBCONV_VERSION_2_0, target);

    library.reset();
    library = std::make_unique<LoadedLibrary>();
    ASSERT_EQ(S_OK, library->GetDBVersion(&current, &target));
    EXPECT_EQ(NVDBCONV_VERSION_2_0, current);
    EXPECT_EQ(NVDBCONV_VERSION_3_0, target);
}
