// CDBConverter, the converter holder: version detection in both registry views,
// the "Version" text rules, the converter factory table and the exports'
// behaviour (E_FAIL without a converter, GetDBVersion's argument checks).
#include <windows.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "converter2/converter2.h"
#include "converter3/converter3.h"
#include "com/converterfactory.h"
#include "com/dbconverter.h"
#include "support/legacy_db_tree.h"
#include "support/raised_code.h"
#include "support/registry_sandbox.h"
#include "support/test_converter.h"
#include "support/trace_capture.h"
#include "support/db_paths.h"
#include "support/test_results.h"
#include "support/frame_traces.h"

using namespace nvtest;

namespace {

constexpr DWORD kSentinel = 0xdeadbeef;

class DBConverterTest : public RegistrySandbox {};

// Two stand-ins for the real converters, told apart by their backup names.
struct FakeConverter2 : TestConverter {
    FakeConverter2() : TestConverter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0") {}
};
struct FakeConverter3 : TestConverter {
    FakeConverter3() : TestConverter(KEY_WOW64_32KEY, 0, L"DB-v2.0") {}
};

CBaseConverter* NoMemory()
{
    return nullptr;
}

const nvframe::ConverterKind kFakeKinds[] = {
    {1, "Using CConverter2", &nvframe::NewConverter<FakeConverter2>, nullptr},
    {2, "Using CConverter3", &nvframe::NewConverter<FakeConverter3>, nullptr},
    {3, "Using CConverter3", &nvframe::NewConverter<FakeConverter3>, &nvframe::DatabaseStillHoldsMainDB},
};

// The backup name of what the fake table makes for a version, or "null".
std::wstring FakeKindFor(DWORD version)
{
    std::unique_ptr<CBaseConverter> c(nvframe::CreateConverterFrom(kFakeKinds, 3, version));
    return c ? c->GetBackupName() : std::wstring(L"null");
}

} // namespace

// ---------------------------------------------------------------------------
// The "Version" text

TEST(ParseDatabaseVersionTest, MajorFromLeadingNumberMinorAfterFirstPoint)
{
    struct Case {
        const wchar_t* text;
        DWORD version;
    } cases[] = {
        {L"1.0", 0x00010000},
        {L"2.0", 0x00020000},
        {L"3.0", 0x00030000},
        {L"1", 0x00010000},
        {L"2", 0x00020000},
        {L"2.5", 0x00020005},
        {L"DB-v1.0", 0x00000000},   // no leading digits: major 0, minor 0
        {L"v2.7", 0x00000007},      // major 0, the minor still counts
        {L"", 0x00000000},
        {L"  2.1", 0x00020001},     // leading blanks
        {L"\t1.0", 0x00010000},
        {L"+3.2", 0x00030002},      // a sign
        {L"-1.0", 0xFFFF0000},      // the major is shifted, not masked
        {L"1.-1", 0x0001FFFF},      // the minor is masked to 16 bits
        {L"1.70000", 0x00011170},
        {L"70000.1", 0x11700001},  // 70000 = 0x11170, shifted within 32 bits
        {L"2.0.9", 0x00020000},     // only the first point counts
        {L"1x.5", 0x00010005},      // the major stops at the first non-digit
        {L".5", 0x00000005},
        {L"3.", 0x00030000},
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.version, nvframe::ParseDatabaseVersion(c.text)) << Narrow(c.text);
}

// ---------------------------------------------------------------------------
// The factory

TEST_F(DBConverterTest, FactoryTableListsMajorsOneToThreeWithTheirTraceLinesAndMainDBCondition)
{
    ASSERT_EQ(3u, nvframe::g_converterKindCount);
    EXPECT_EQ(1, nvframe::g_converterKinds[0].major);
    EXPECT_STREQ("Using CConverter2", nvframe::g_converterKinds[0].traceLine);
    EXPECT_EQ(nullptr, nvframe::g_converterKinds[0].applies);
    EXPECT_EQ(2, nvframe::g_converterKinds[1].major);
    EXPECT_STREQ("Using CConverter3", nvframe::g_converterKinds[1].traceLine);
    EXPECT_EQ(nullptr, nvframe::g_converterKinds[1].applies);
    EXPECT_EQ(3, nvframe::g_converterKinds[2].major);
    EXPECT_STREQ("Using CConverter3", nvframe::g_converterKinds[2].traceLine);
    EXPECT_EQ(&nvframe::DatabaseStillHoldsMainDB, nvframe::g_converterKinds[2].applies);
}

// Major 1 gets a CConverter2, major 2 a CConverter3, major 3 a CConverter3 while
// MainDB opens in the 32-bit view; every other version gets none.
TEST_F(DBConverterTest, CreateConverterBuildsCConverter2ForMajorOneCConverter3ForMajorsTwoAndThreeAndNoneForOthers)
{
    CreateKeyPath(kMainDbPath, kView32);
    nv::CNVRegKey unused;
    for (DWORD v : {0x00010000u, 0x00010003u}) {
        std::unique_ptr<CBaseConverter> c(CBaseConverter::CreateConverter(v, unused));
        EXPECT_NE(nullptr, dynamic_cast<CConverter2*>(c.get())) << std::hex << v;
    }
    for (DWORD v : {0x00020000u, 0x00020001u, 0x00030000u}) {
        std::unique_ptr<CBaseConverter> c(CBaseConverter::CreateConverter(v, unused));
        EXPECT_NE(nullptr, dynamic_cast<CConverter3*>(c.get())) << std::hex << v;
    }
    for (DWORD v : {0x00000000u, 0x00040000u}) {
        std::unique_ptr<CBaseConverter> c(CBaseConverter::CreateConverter(v, unused));
        EXPECT_EQ(nullptr, c.get()) << std::hex << v;
    }
    DeleteTree(kMainDbPath, kView32);
    std::unique_ptr<CBaseConverter> none(CBaseConverter::CreateConverter(0x00030000u, unused));
    EXPECT_EQ(nullptr, none.get());
}

TEST_F(DBConverterTest, FactoryChoosesByMajorAndIgnoresMinor)
{
    EXPECT_EQ(std::wstring(L"DB-v1.0"), FakeKindFor(0x00010000));
    EXPECT_EQ(std::wstring(L"DB-v1.0"), FakeKindFor(0x00010009));
    EXPECT_EQ(std::wstring(L"DB-v2.0"), FakeKindFor(0x00020000));
    EXPECT_EQ(std::wstring(L"DB-v2.0"), FakeKindFor(0x0002FFFF));
    EXPECT_EQ(std::wstring(L"null"), FakeKindFor(0x00000000));
    EXPECT_EQ(std::wstring(L"null"), FakeKindFor(0x00000001));
    EXPECT_EQ(std::wstring(L"null"), FakeKindFor(0x00040000));
    EXPECT_EQ(std::wstring(L"null"), FakeKindFor(0xFFFF0000));
    EXPECT_EQ(std::wstring(L"null"), FakeKindFor(0x00110000));
}

TEST_F(DBConverterTest, MajorThreeGetsConverterOnlyWhileMainDBOpensIn32BitView)
{
    EXPECT_EQ(std::wstring(L"null"), FakeKindFor(0x00030000));

    CreateKeyPath(kMainDbPath, kView64);
    EXPECT_FALSE(nvframe::DatabaseStillHoldsMainDB());
    EXPECT_EQ(std::wstring(L"null"), FakeKindFor(0x00030000));

    CreateKeyPath(kMainDbPath, kView32);
    EXPECT_TRUE(nvframe::DatabaseStillHoldsMainDB());
    EXPECT_EQ(std::wstring(L"DB-v2.0"), FakeKindFor(0x00030000));
    EXPECT_EQ(std::wstring(L"DB-v2.0"), FakeKindFor(0x00030001));
}

TEST_F(DBConverterTest, FactoryReturnsNullWhenAllocationYieldsNull)
{
    const nvframe::ConverterKind kinds[] = {{1, "Using CConverter2", &NoMemory, nullptr}};
    EXPECT_EQ(nullptr, nvframe::CreateConverterFrom(kinds, 1, 0x00010000));
}

TEST_F(DBConverterTest, FactorySkipsKindsNotBuiltIntoTheLibrary)
{
    const nvframe::ConverterKind kinds[] = {
        {1, "Using CConverter2", nullptr, nullptr},
        {2, "Using CConverter3", &nvframe::NewConverter<FakeConverter3>, nullptr},
    };
    EXPECT_EQ(nullptr, nvframe::CreateConverterFrom(kinds, 2, 0x00010000));
    std::unique_ptr<CBaseConverter> c(nvframe::CreateConverterFrom(kinds, 2, 0x00020000));
    ASSERT_NE(nullptr, c.get());
    EXPECT_EQ(std::wstring(L"DB-v2.0"), c->GetBackupName());
}

// ---------------------------------------------------------------------------
// Version detection

namespace {

struct Detected {
    HRESULT hr;
    DWORD version;
    bool converter;
};

Detected Detect()
{
    CDBConverter holder;
    HRESULT hr = holder.FinalConstruct();
    return {hr, holder.m_dwVersion, holder.m_pConverter != nullptr};
}

} // namespace

TEST_F(DBConverterTest, VersionInOwnViewIsReadFirst)
{
    SetVersionInBothViews(L"2.0", L"1.0");
    Detected d = Detect();
    EXPECT_EQ(S_OK, d.hr);
    EXPECT_EQ(0x00020000u, d.version);
}

TEST_F(DBConverterTest, VersionIn32BitViewOnlyIsFoundByTheSecondOpen)
{
    SetString(kDbPath, L"Version", L"1.0", kView32);
    Detected d = Detect();
    EXPECT_EQ(S_OK, d.hr);
    EXPECT_EQ(0x00010000u, d.version);
}

// The second view is tried only when the first key does not open, not when it
// holds no "Version".
TEST_F(DBConverterTest, DatabaseKeyInOwnViewWithoutVersionHidesThe32BitVersion)
{
    CreateKeyPath(kDbPath, kView64);
    SetString(kDbPath, L"Version", L"1.0", kView32);
    Detected d = Detect();
    EXPECT_EQ(S_OK, d.hr);
    EXPECT_EQ(0u, d.version);
    EXPECT_FALSE(d.converter);
}

TEST_F(DBConverterTest, DatabaseKeyAbsentInBothViewsGivesVersionZeroAndTheOpenError)
{
    Detected d = Detect();
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), d.hr);
    EXPECT_EQ(0u, d.version);
    EXPECT_FALSE(d.converter);
}

TEST_F(DBConverterTest, VersionValueTheReaderRefusesLeavesVersionZero)
{
    struct Case {
        const char* what;
        DWORD type;
        std::vector<BYTE> data;
    } cases[] = {
        {"REG_DWORD", REG_DWORD, {1, 0, 1, 0}},
        {"REG_BINARY text", REG_BINARY, {'1', 0, '.', 0, '0', 0, 0, 0}},
        {"unterminated REG_SZ", REG_SZ, {'1', 0, '.', 0, '0', 0}},
        {"odd-sized REG_SZ", REG_SZ, {'1', 0, '.', 0, '0', 0, 0, 0, 0}},
        {"REG_MULTI_SZ", REG_MULTI_SZ, {'1', 0, 0, 0, 0, 0}},
    };
    for (const Case& c : cases) {
        WipeSuiteKeys();
        SetBinary(kDbPath, L"Version", c.data, kView32, c.type);
        Detected d = Detect();
        EXPECT_EQ(S_OK, d.hr) << c.what;
        EXPECT_EQ(0u, d.version) << c.what;
        EXPECT_FALSE(d.converter) << c.what;
    }
}

TEST_F(DBConverterTest, VersionTooLongForItsBufferLeavesVersionZero)
{
    SetString(kDbPath, L"Version", L"2" + std::wstring(259, L'0'), kView64);
    EXPECT_EQ(0u, Detect().version);

    // 259 characters and the terminator still fit.
    SetString(kDbPath, L"Version", L"2." + std::wstring(257, L'0'), kView64);
    EXPECT_EQ(0x00020000u, Detect().version);
}

TEST_F(DBConverterTest, VersionOfTypeExpandStringIsRead)
{
    SetString(kDbPath, L"Version", L"2.0", kView32, REG_EXPAND_SZ);
    EXPECT_EQ(0x00020000u, Detect().version);
}

TEST_F(DBConverterTest, VersionTextsAreParsedAsTheRulesSay)
{
    struct Case {
        const wchar_t* text;
        DWORD version;
    } cases[] = {{L"1", 0x00010000}, {L"DB-v1.0", 0}, {L"2.5", 0x00020005}, {L"3.0", 0x00030000}, {L"", 0}};
    for (const Case& c : cases) {
        WipeSuiteKeys();
        SetString(kDbPath, L"Version", c.text, kView32);
        Detected d = Detect();
        EXPECT_EQ(S_OK, d.hr) << Narrow(c.text);
        EXPECT_EQ(c.version, d.version) << Narrow(c.text);
        // Majors 1 and 2 have their converters; major 3 only while MainDB exists.
        EXPECT_EQ((c.version >> 16) == 1 || (c.version >> 16) == 2, d.converter) << Narrow(c.text);
    }
}

TEST_F(DBConverterTest, DetectionWritesNothing)
{
    SetString(kDbPath, L"Version", L"1.0", kView32);
    CreateKeyPath(kMainDbPath, kView32);
    const RegTree before32 = Snapshot(L"SOFTWARE\\Norvane", kView32);
    Detect();
    EXPECT_TRUE(before32 == Snapshot(L"SOFTWARE\\Norvane", kView32));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane", kView64));
}

TEST_F(DBConverterTest, FinalConstructReplacesAConverterHeldBefore)
{
    SetString(kDbPath, L"Version", L"4.0", kView64);
    CDBConverter holder;
    bool destroyed = false;
    auto* old = new TestConverter(0, 0, L"DB-old");
    old->destroyed = &destroyed;
    holder.m_pConverter.reset(old);

    EXPECT_EQ(S_OK, holder.FinalConstruct());
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(nullptr, holder.m_pConverter.get());
    EXPECT_EQ(0x00040000u, holder.m_dwVersion);
}

TEST_F(DBConverterTest, HolderDeletesItsConverterWhenDestroyed)
{
    bool destroyed = false;
    {
        CDBConverter holder;
        auto* c = new TestConverter(0, 0, L"DB-x");
        c->destroyed = &destroyed;
        holder.m_pConverter.reset(c);
    }
    EXPECT_TRUE(destroyed);
}

// ---------------------------------------------------------------------------
// The exports' behaviour

TEST_F(DBConverterTest, ActionsWithoutConverterAnswerEFail)
{
    CDBConverter holder;
    EXPECT_EQ(E_FAIL, holder.Convert());
    EXPECT_EQ(E_FAIL, holder.Rollback());
    EXPECT_EQ(E_FAIL, holder.Cleanup());
}

TEST_F(DBConverterTest, ActionsReachTheHeldConverter)
{
    SetString(kDbPath, L"Version", L"1.0", kView64);
    CDBConverter holder;
    auto* c = new TestConverter(0, 0, L"DB-v2.0");
    holder.m_pConverter.reset(c);
    c->cleanupResult = kCleanupFailure;

    EXPECT_EQ(kCleanupFailure, holder.Convert());
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Convert", "do_Cleanup", "do_Rollback"}), c->calls);
    c->calls.clear();
    c->rollbackResult = kRollbackFailure;
    EXPECT_EQ(kRollbackFailure, holder.Rollback());
    EXPECT_EQ(kCleanupFailure, holder.Cleanup());
    EXPECT_EQ((std::vector<std::string>{"do_Rollback", "do_Cleanup"}), c->calls);
}

TEST_F(DBConverterTest, GetDBVersionReportsVersionAndTargetOfHeldConverter)
{
    CDBConverter holder;
    holder.m_dwVersion = 0x00010000;
    DWORD current = kSentinel, target = kSentinel;
    EXPECT_EQ(S_OK, holder.GetDBVersion(&current, &target));
    EXPECT_EQ(0x00010000u, current);
    EXPECT_EQ(0u, target);

    holder.m_pConverter.reset(new TestConverter(0, 0, L"DB-v1.0"));
    current = target = kSentinel;
    EXPECT_EQ(S_OK, holder.GetDBVersion(&current, &target));
    EXPECT_EQ(0x00010000u, current);
    EXPECT_EQ(TestConverter::kTargetVersion, target);
}

TEST_F(DBConverterTest, GetDBVersionWithOneNullPointerIsInvalidArgAndWritesNothing)
{
    CDBConverter holder;
    holder.m_dwVersion = 0x00020000;
    DWORD value = kSentinel;
    EXPECT_EQ(E_INVALIDARG, holder.GetDBVersion(nullptr, &value));
    EXPECT_EQ(kSentinel, value);
    EXPECT_EQ(E_INVALIDARG, holder.GetDBVersion(&value, nullptr));
    EXPECT_EQ(kSentinel, value);
    EXPECT_EQ(E_INVALIDARG, holder.GetDBVersion(nullptr, nullptr));
}

// ---------------------------------------------------------------------------
// Trace

namespace {

class DBConverterTraceTest : public TraceCaptureTest {};

} // namespace

TEST_F(DBConverterTraceTest, DetectionTracesTheVersionReadAndTheFactoryChoice)
{
    SetString(kDbPath, L"Version", L"1.0", kView32);
    Detect();
    // The holder goes at the end of Detect, and its converter with it.
    EXPECT_EQ(kDetected10Lines, trace.Lines())
        << trace.Dump();
}

TEST_F(DBConverterTraceTest, VersionWithoutConverterTracesReturningNull)
{
    SetString(kDbPath, L"Version", L"4.1", kView64);
    Detect();
    EXPECT_EQ((Lines{
                  "> CDBConverter::FinalConstruct",
                  "U wszVersion = 4.1",
                  "U m_dwVersion = 0x40001",
                  "> CBaseConverter::CreateConverter", "U Returning NULL", "<",
                  "<",
              }),
              trace.Lines())
        << trace.Dump();
}

TEST_F(DBConverterTraceTest, UnreadableVersionStillTracesTheVersionWord)
{
    SetDword(kDbPath, L"Version", 0x00020000, kView64);
    Detect();
    EXPECT_EQ((Lines{
                  "> CDBConverter::FinalConstruct",
                  "U m_dwVersion = 0x0",
                  "> CBaseConverter::CreateConverter", "U Returning NULL", "<",
                  "<",
              }),
              trace.Lines())
        << trace.Dump();
}

TEST_F(DBConverterTraceTest, MissingDatabaseTracesOnlyTheOpenError)
{
    Detect();
    EXPECT_EQ((Lines{"> CDBConverter::FinalConstruct", "E -2147024894 ", "<"}), trace.Lines()) << trace.Dump();
}

TEST_F(DBConverterTraceTest, ChosenConverterIsTracedBeforeItIsBuilt)
{
    SetString(kDbPath, L"Version", L"3.0", kView32);
    CreateKeyPath(kMainDbPath, kView32);
    std::unique_ptr<CBaseConverter> three(nvframe::CreateConverterFrom(kFakeKinds, 3, 0x00030000));
    std::unique_ptr<CBaseConverter> one(nvframe::CreateConverterFrom(kFakeKinds, 3, 0x00010000));
    EXPECT_EQ((Lines{
                  "> CBaseConverter::CreateConverter", "U Using CConverter3",
                  "> CBaseConverter::CBaseConverter", "<",
                  "<",
                  "> CBaseConverter::CreateConverter", "U Using CConverter2",
                  "> CBaseConverter::CBaseConverter", "<",
                  "<",
              }),
              trace.Lines())
        << trace.Dump();
}

// The holder's lock cannot be made: construction raises the error, a shortage as
// E_OUTOFMEMORY.
TEST(DBConverterConstructionTest, LockThatCannotBeMadeRaisesOutOfMemoryOrTheSystemsError)
{
    EXPECT_EQ(E_OUTOFMEMORY, RaisedMakingWithoutCriticalSection<CDBConverter>(ERROR_NOT_ENOUGH_MEMORY));
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_INVALID_PARAMETER),
              RaisedMakingWithoutCriticalSection<CDBConverter>(ERROR_INVALID_PARAMETER));
}
