// The machine-wide conversion lock: Convert, Rollback and Cleanup wait for another
// holder a bounded time and then fail with NV_E_CONVERSION_BUSY having changed
// nothing; a lock released in time lets them go on; a converter whose database
// changed while it waited refuses; a holder that died leaves the lock to the next
// caller; and two processes converting one database end with every user moved once.
#include <windows.h>
#include <aclapi.h>
#include <psapi.h>
#include <sddl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/handles.h"
#include "frame/conversionlock.h"
#include "nvstore_inspect.h"
#include "support/conversion_fixture.h"
#include "support/dll_loader.h"
#include "support/import_fault.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "support/test_converter.h"
#include "support/token_scope.h"
#include "support/trace_capture.h"
#include "support/db_paths.h"
#include "support/test_results.h"
#include "support/text_util.h"

using namespace nvtest;
namespace inspect = nvstore::inspect;

namespace {

constexpr const wchar_t kBackup10[] = L"SOFTWARE\\Norvane\\DB-v1.0";

// Holds the conversion lock on a thread of its own until Release (or, with
// abandon, ends that thread still owning it).
class LockHolder {
public:
    explicit LockHolder(bool abandon = false)
    {
        // The handle outlives the thread: a mutex whose last handle closed is gone
        // rather than abandoned.
        // Made as the library makes it, so that its owner is the one another
        // converter's lock would have.
        PSECURITY_DESCRIPTOR sd = nullptr;
        ::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;;GA;;;SY)(A;;GA;;;BA)", SDDL_REVISION_1, &sd,
                                                               nullptr);
        nv::unique_hlocal sdOwner(sd);
        SECURITY_ATTRIBUTES sa{sizeof(sa), sd, FALSE};
        m_mutex.reset(::CreateMutexW(&sa, FALSE, nvframe::kConversionMutexName));
        m_thread = std::thread([this, abandon] {
            const HANDLE mutex = m_mutex.get();
            m_ok = mutex && ::WaitForSingleObject(mutex, 5000) == WAIT_OBJECT_0;
            ::SetEvent(m_taken.get());
            if (abandon)
                return; // the thread ends owning the mutex
            ::WaitForSingleObject(m_release.get(), 60000);
            if (m_beforeRelease)
                m_beforeRelease();
            ::ReleaseMutex(mutex);
        });
        ::WaitForSingleObject(m_taken.get(), 10000);
        if (abandon)
            m_thread.join();
    }
    ~LockHolder() { Release(); }
    bool ok() const { return m_ok; }
    // Work done on the holder's thread just before it lets go.
    void BeforeRelease(std::function<void()> work) { m_beforeRelease = std::move(work); }
    void ReleaseAfter(DWORD ms)
    {
        m_delayed = std::thread([this, ms] {
            ::Sleep(ms);
            ::SetEvent(m_release.get());
        });
    }
    void Release()
    {
        ::SetEvent(m_release.get());
        if (m_delayed.joinable())
            m_delayed.join();
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    nv::unique_handle_null m_mutex;
    nv::unique_handle_null m_taken{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    nv::unique_handle_null m_release{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::function<void()> m_beforeRelease;
    std::thread m_thread;
    std::thread m_delayed;
    bool m_ok = false;
};

class ConversionLockTest : public TraceCaptureTest {
protected:
    void SetUp() override
    {
        TraceCaptureTest::SetUp();
        m_savedWait = nvframe::g_conversionLockWaitMs;
    }
    void TearDown() override
    {
        nvframe::g_conversionLockWaitMs = m_savedWait;
        TraceCaptureTest::TearDown();
    }
    // Whether CBaseConverter::Convert's scope holds this line; a failure shows the trace.
    testing::AssertionResult ConvertScopeHas(const std::string& line) const
    {
        if (HasLine(trace.LinesInScope("CBaseConverter::Convert"), line))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << "no line \"" << line << "\" in\n" << trace.Dump();
    }

    void FillDatabase(REGSAM view = kView32)
    {
        SetString(kDbPath, L"Version", L"1.0", view);
        SetDword(kDbPath, L"Flags", 7, view);
        SetString(L"SOFTWARE\\Norvane\\DB\\Data\\Users\\S-1-5-21-7-8-9-1001", L"Name", L"alice", view);
    }

    // Exactly these lines in CBaseConverter::Convert's scope; a failure shows the trace.
    void ExpectConvertScopeLines(const std::vector<std::string>& lines) const
    {
        EXPECT_EQ(lines, trace.LinesInScope("CBaseConverter::Convert")) << trace.Dump();
    }

    // Convert refused as busy, ran none of the converter's steps and made no backup;
    // `line` is the caller's.
    static void ExpectConvertRefusedBusy(TestConverter& converter, int line)
    {
        SCOPED_TRACE(testing::Message() << "checked at line " << line);
        EXPECT_EQ(nvframe::NV_E_CONVERSION_BUSY, converter.Convert());
        EXPECT_TRUE(converter.calls.empty());
        EXPECT_FALSE(KeyExists(kBackup10, kView32));
    }

    DWORD m_savedWait = 0;
};

} // namespace

TEST_F(ConversionLockTest, HeldForTheWholeWaitConvertRollbackAndCleanupFailBusyAndChangeNothing)
{
    FillDatabase();
    SetString(kDbPath, L"Backup", kBackup10, kView32);
    SetDword(kBackup10, L"Saved", 1, kView32);
    const RegTree db = Snapshot(kDbPath, kView32);
    const RegTree backup = Snapshot(kBackup10, kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    nvframe::g_conversionLockWaitMs = 200;
    LockHolder holder;
    ASSERT_TRUE(holder.ok());

    EXPECT_EQ(nvframe::NV_E_CONVERSION_BUSY, converter.Convert());
    EXPECT_EQ(nvframe::NV_E_CONVERSION_BUSY, converter.Rollback());
    EXPECT_EQ(nvframe::NV_E_CONVERSION_BUSY, converter.Cleanup());
    EXPECT_TRUE(converter.calls.empty());
    EXPECT_EQ("", DiffTrees(db, Snapshot(kDbPath, kView32)));
    EXPECT_EQ("", DiffTrees(backup, Snapshot(kBackup10, kView32)));
    ExpectConvertScopeLines({
        "U waiting up to 200 ms for another conversion to end",
        "U another conversion still holds the database after 200 ms",
        "E -2147024726 ",
    });
}

TEST_F(ConversionLockTest, ReleasedWithinTheWaitConvertGoesOn)
{
    FillDatabase();
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    nvframe::g_conversionLockWaitMs = 20000;
    LockHolder holder;
    ASSERT_TRUE(holder.ok());
    holder.ReleaseAfter(1500);

    EXPECT_EQ(S_OK, converter.Convert());
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Convert", "do_Cleanup"}), converter.calls);
    EXPECT_FALSE(KeyExists(kBackup10, kView32));
    const auto lines = trace.LinesInScope("CBaseConverter::Convert");
    ASSERT_FALSE(lines.empty()) << trace.Dump();
    EXPECT_EQ("U waiting up to 20000 ms for another conversion to end", lines.front());
}

TEST_F(ConversionLockTest, DatabaseChangedWhileWaitingMakesConvertRefuse)
{
    FillDatabase();
    const RegTree before = Snapshot(kDbPath, kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    nvframe::g_conversionLockWaitMs = 20000;
    LockHolder holder;
    ASSERT_TRUE(holder.ok());
    // What another process's conversion leaves: the next format's "Version".
    holder.BeforeRelease([] { SetString(kDbPath, L"Version", L"2.0", kView32); });
    holder.ReleaseAfter(300);

    ExpectConvertRefusedBusy(converter, __LINE__);
    RegTree expected = before;
    expected.values[L"|Version"].data = {'2', 0, '.', 0, '0', 0, 0, 0};
    const RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expected == after) << DiffTrees(expected, after);
    EXPECT_TRUE(ConvertScopeHas("U the database changed since this converter last saw it: Version 1.0, no MainDB, now "
                                "Version 2.0, no MainDB"));
}

// Another process converted the database between this converter's load and its
// Convert, without this one ever waiting: it refuses all the same.
TEST_F(ConversionLockTest, DatabaseChangedBeforeTheCallMakesConvertRefuseWithoutAWait)
{
    FillDatabase();
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    CreateKeyPath(L"SOFTWARE\\Norvane\\DB\\MainDB", kView32);
    const RegTree before = Snapshot(kDbPath, kView32);

    ExpectConvertRefusedBusy(converter, __LINE__);
    EXPECT_EQ("", DiffTrees(before, Snapshot(kDbPath, kView32)));
    ExpectConvertScopeLines({
        "U the database changed since this converter last saw it: Version 1.0, no MainDB, now Version "
        "1.0, MainDB present",
        "E -2147024726 ",
    });
}

// What the converter does itself is not another converter's change: a second
// Convert of the same load runs as the format has it.
TEST_F(ConversionLockTest, ConvertersOwnChangesDoNotMakeItsNextConvertRefuse)
{
    FillDatabase();
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    converter.convertWork = [] { SetString(kDbPath, L"Version", L"2.0", kView32); };
    EXPECT_EQ(S_OK, converter.Convert());
    converter.convertWork = [] { SetString(kDbPath, L"Version", L"2.5", kView32); };
    EXPECT_EQ(S_OK, converter.Convert());
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Convert", "do_Cleanup", "do_Backup", "do_Convert",
                                        "do_Cleanup"}),
              converter.calls);
}

TEST_F(ConversionLockTest, LockOfAHolderThatEndedWithoutReleasingItIsTakenOver)
{
    FillDatabase();
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    nvframe::g_conversionLockWaitMs = 200;
    LockHolder dead(true);
    ASSERT_TRUE(dead.ok());

    EXPECT_EQ(S_OK, converter.Convert());
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Convert", "do_Cleanup"}), converter.calls);
    EXPECT_TRUE(ConvertScopeHas("U the previous holder of the conversion lock ended without releasing it"));
}

// Another thread of the same process calling into the same converter waits for the
// first as another process would: the converter's count of its locks is per thread.
TEST_F(ConversionLockTest, SecondThreadOnTheSameConverterWaitsForTheFirst)
{
    FillDatabase();
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    nvframe::g_conversionLockWaitMs = 200;
    nv::unique_handle_null inside(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    nv::unique_handle_null goOn(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    converter.convertWork = [&] {
        ::SetEvent(inside.get());
        ::WaitForSingleObject(goOn.get(), 30000);
    };
    HRESULT first = E_FAIL;
    std::thread converting([&] { first = converter.Convert(); });
    ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(inside.get(), 30000));

    EXPECT_EQ(nvframe::NV_E_CONVERSION_BUSY, converter.Cleanup());
    ::SetEvent(goOn.get());
    converting.join();
    EXPECT_EQ(S_OK, first);
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Convert", "do_Cleanup"}), converter.calls);
}

// A Rollback deletes and restores the key the converter's handle named; what the
// converter remembers of the database is read through a handle opened anew, so its
// next Convert is not taken for another converter's work.
TEST_F(ConversionLockTest, ConvertAfterItsOwnRollbackRunsAgain)
{
    // In the library's own view, where Rollback deletes and restores it.
    FillDatabase(kView64);
    TestConverter converter(0, 0, L"DB-v2.0");
    converter.convertResult = kHookFailure;
    EXPECT_EQ(kHookFailure, converter.Convert());
    converter.convertResult = S_OK;
    EXPECT_EQ(S_OK, converter.Convert());
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Convert", "do_Rollback", "do_Backup", "do_Convert",
                                        "do_Cleanup"}),
              converter.calls);
}

// A mutex of the lock's name that another account made first (here: owned by
// Users, open to Everyone, held) stalls nobody: the conversion goes on without it.
TEST_F(ConversionLockTest, LockMadeByAnotherAccountIsNotWaitedFor)
{
    FillDatabase();
    PSECURITY_DESCRIPTOR sd = nullptr;
    ASSERT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"O:BUD:(A;;GA;;;WD)", SDDL_REVISION_1, &sd,
                                                                       nullptr));
    nv::unique_hlocal sdOwner(sd);
    SECURITY_ATTRIBUTES sa{sizeof(sa), sd, FALSE};
    nv::unique_handle_null squatted(::CreateMutexW(&sa, FALSE, nvframe::kConversionMutexName));
    ASSERT_TRUE(squatted);
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR read = nullptr;
    ASSERT_EQ(DWORD(ERROR_SUCCESS), ::GetSecurityInfo(squatted.get(), SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION,
                                                      &owner, nullptr, nullptr, nullptr, &read));
    nv::unique_hlocal readOwner(read);
    BYTE users[SECURITY_MAX_SID_SIZE];
    DWORD cb = sizeof(users);
    ASSERT_TRUE(::CreateWellKnownSid(WinBuiltinUsersSid, nullptr, users, &cb));
    ASSERT_TRUE(::EqualSid(owner, users)) << "the platform did not keep the owner the mutex was made with";

    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    nvframe::g_conversionLockWaitMs = 200;
    // Held by a thread of its own, so that this thread's wait would time out.
    LockHolder holder;
    ASSERT_TRUE(holder.ok());
    EXPECT_EQ(S_OK, converter.Convert());
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Convert", "do_Cleanup"}), converter.calls);
    EXPECT_TRUE(ConvertScopeHas("U conversion lock Global\\NVDBConv.Conversion belongs to another account: going on "
                                "without it"));
}

namespace {

// A mutex of the lock's name that nobody may open for use.
nv::unique_handle_null SquatLockDenyingEveryone()
{
    PSECURITY_DESCRIPTOR sd = nullptr;
    EXPECT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"O:BUD:(D;;GA;;;WD)", SDDL_REVISION_1, &sd,
                                                                       nullptr));
    nv::unique_hlocal sdOwner(sd);
    SECURITY_ATTRIBUTES sa{sizeof(sa), sd, FALSE};
    return nv::unique_handle_null(::CreateMutexW(&sa, FALSE, nvframe::kConversionMutexName));
}

} // namespace

TEST_F(ConversionLockTest, LockNobodyMayOpenLetsAnAdministratorGoOnWithoutIt)
{
    FillDatabase();
    nv::unique_handle_null squatted = SquatLockDenyingEveryone();
    ASSERT_TRUE(squatted);
    nv::unique_handle_null probe(::CreateMutexW(nullptr, FALSE, nvframe::kConversionMutexName));
    ASSERT_FALSE(probe) << "the platform let the lock be opened";
    ASSERT_EQ(DWORD(ERROR_ACCESS_DENIED), ::GetLastError());

    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    EXPECT_EQ(S_OK, converter.Convert());
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Convert", "do_Cleanup"}), converter.calls);
    EXPECT_TRUE(ConvertScopeHas("U conversion lock Global\\NVDBConv.Conversion belongs to another account: going on "
                                "without it"));
}

TEST_F(ConversionLockTest, LockNobodyMayOpenKeepsOutACallerWhoIsNoAdministrator)
{
    FillDatabase();
    const RegTree before = Snapshot(kDbPath, kView32);
    nv::unique_handle_null squatted = SquatLockDenyingEveryone();
    ASSERT_TRUE(squatted);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    HRESULT hr = S_OK;
    {
        NonAdministratorScope user;
        hr = converter.Convert();
    }
    EXPECT_EQ(E_ACCESSDENIED, hr);
    EXPECT_TRUE(converter.calls.empty());
    EXPECT_EQ("", DiffTrees(before, Snapshot(kDbPath, kView32)));
    EXPECT_TRUE(ConvertScopeHas("U conversion lock Global\\NVDBConv.Conversion cannot be opened"));
}

TEST_F(ConversionLockTest, AnotherKindOfObjectUnderTheLocksNameFailsWithTheOpenError)
{
    FillDatabase();
    const RegTree before = Snapshot(kDbPath, kView32);
    nv::unique_handle_null event(::CreateEventW(nullptr, TRUE, FALSE, nvframe::kConversionMutexName));
    ASSERT_TRUE(event);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE), converter.Convert());
    EXPECT_TRUE(converter.calls.empty());
    EXPECT_EQ("", DiffTrees(before, Snapshot(kDbPath, kView32)));
    EXPECT_TRUE(ConvertScopeHas("U conversion lock Global\\NVDBConv.Conversion cannot be opened"));
}

TEST(ConversionLockOwnerTest, OnlySystemAdministratorsAndThisAccountAreTrusted)
{
    auto sid = [](const wchar_t* text) {
        PSID p = nullptr;
        EXPECT_TRUE(::ConvertStringSidToSidW(text, &p));
        return nv::unique_hlocal(p);
    };
    const nv::unique_hlocal system = sid(L"S-1-5-18"), admins = sid(L"S-1-5-32-544"), users = sid(L"S-1-5-32-545"),
                            everyone = sid(L"S-1-1-0"), self = sid(L"S-1-5-21-1-2-3-1000"),
                            other = sid(L"S-1-5-21-1-2-3-1001");
    EXPECT_TRUE(nvframe::IsTrustedLockOwner(system.get(), self.get()));
    EXPECT_TRUE(nvframe::IsTrustedLockOwner(admins.get(), self.get()));
    EXPECT_TRUE(nvframe::IsTrustedLockOwner(self.get(), self.get()));
    EXPECT_FALSE(nvframe::IsTrustedLockOwner(users.get(), self.get()));
    EXPECT_FALSE(nvframe::IsTrustedLockOwner(everyone.get(), self.get()));
    EXPECT_FALSE(nvframe::IsTrustedLockOwner(other.get(), self.get()));
    EXPECT_FALSE(nvframe::IsTrustedLockOwner(other.get(), nullptr));
    EXPECT_FALSE(nvframe::IsTrustedLockOwner(nullptr, self.get()));
}

TEST_F(ConversionLockTest, TheLockIsForSystemAndAdministratorsOnly)
{
    NVTraceNS::CTraceScope scope("test", 0);
    nvframe::LockCount count;
    nvframe::CConversionLock lock(scope, count);
    ASSERT_EQ(S_OK, lock.Result());
    EXPECT_TRUE(lock.Outermost());
    EXPECT_EQ(1u, count.depth);
    EXPECT_EQ(::GetCurrentThreadId(), count.thread);
    nv::unique_handle_null mutex(::OpenMutexW(READ_CONTROL, FALSE, nvframe::kConversionMutexName));
    ASSERT_TRUE(mutex);
    PSECURITY_DESCRIPTOR sd = nullptr;
    ASSERT_EQ(DWORD(ERROR_SUCCESS), ::GetSecurityInfo(mutex.get(), SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION,
                                                      nullptr, nullptr, nullptr, nullptr, &sd));
    nv::unique_hlocal sdOwner(sd);
    LPWSTR text = nullptr;
    ASSERT_TRUE(::ConvertSecurityDescriptorToStringSecurityDescriptorW(sd, SDDL_REVISION_1,
                                                                       DACL_SECURITY_INFORMATION, &text, nullptr));
    nv::unique_hlocal textOwner(text);
    // As Wine reads it back; Windows maps the generic right to the mutex's own bits.
    EXPECT_EQ(std::wstring(L"(A;;GA;;;SY)(A;;GA;;;BA)"), DaclEntries(text));
}

// ---- the platform failing the lock's own checks ------------------------------------
// A lock made before this converter's is checked for its owner; a check the system
// cannot answer fails the operation with the system's error, before any step runs.

namespace {

// Convert ends with `expected`, ran no step and left the database as it was; `line`
// is the caller's.
void ExpectConvertFailsChangingNothing(TestConverter& converter, HRESULT expected, int line)
{
    SCOPED_TRACE(testing::Message() << "checked at line " << line);
    const RegTree before = Snapshot(kDbPath, kView32);
    EXPECT_EQ(expected, converter.Convert());
    EXPECT_TRUE(converter.calls.empty());
    EXPECT_FALSE(KeyExists(kBackup10, kView32));
    EXPECT_EQ("", DiffTrees(before, Snapshot(kDbPath, kView32)));
}

constexpr const char kOwnerUnreadLine[] = "U the owner of conversion lock Global\\NVDBConv.Conversion cannot be read";

// A database to convert and a lock made (and held) before the converter's own, so
// that the converter checks the owner of the lock it finds.
class LockMadeBeforeTest : public ConversionLockTest {
protected:
    void SetUp() override
    {
        ConversionLockTest::SetUp();
        FillDatabase();
        holder.emplace();
        ASSERT_TRUE(holder->ok());
        madeConverter.emplace(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    }
    void TearDown() override
    {
        madeConverter.reset();
        holder.reset();
        ConversionLockTest::TearDown();
    }
    TestConverter& converter() { return *madeConverter; }

    std::optional<LockHolder> holder;
    std::optional<TestConverter> madeConverter;
};

} // namespace

TEST_F(LockMadeBeforeTest, OwnerOfAnExistingLockThatCannotBeReadFailsConvertWithTheSystemsError)
{
    ImportFault<decltype(&::GetSecurityInfo)> fault("GetSecurityInfo", ERROR_ACCESS_DENIED, ERROR_ACCESS_DENIED);
    ExpectConvertFailsChangingNothing(converter(), E_ACCESSDENIED, __LINE__);
    EXPECT_EQ(1u, fault.calls());
    ExpectConvertScopeLines({kOwnerUnreadLine, "E -2147024891 "});
}

TEST_F(LockMadeBeforeTest, TokenThatCannotBeOpenedFailsConvertWithItsErrorOrUnexpectedWithoutOne)
{
    {
        ImportFault<decltype(&::OpenProcessToken)> fault("OpenProcessToken", FALSE, ERROR_ACCESS_DENIED);
        ExpectConvertFailsChangingNothing(converter(), E_ACCESSDENIED, __LINE__);
        EXPECT_EQ(1u, fault.calls());
    }
    {
        ImportFault<decltype(&::OpenProcessToken)> fault("OpenProcessToken", FALSE, ERROR_SUCCESS);
        ExpectConvertFailsChangingNothing(converter(), E_UNEXPECTED, __LINE__);
    }
    const std::vector<std::string> lines = trace.AllLines();
    EXPECT_EQ(2, std::count(lines.begin(), lines.end(), std::string(kOwnerUnreadLine))) << trace.Dump();
}

TEST_F(LockMadeBeforeTest, TokenWhoseUserCannotBeReadFailsConvertUnexpected)
{
    // The size query, then the read: the read of the token's user fails.
    ImportFault<decltype(&::GetTokenInformation)> fault("GetTokenInformation", FALSE, ERROR_ACCESS_DENIED, 2);
    ExpectConvertFailsChangingNothing(converter(), E_UNEXPECTED, __LINE__);
    EXPECT_EQ(1u, fault.failed());
    ExpectConvertScopeLines({kOwnerUnreadLine, "E -2147418113 "});
}

TEST_F(ConversionLockTest, FailedWaitForTheLockFailsConvertWithTheWaitsErrorOrUnexpectedWithoutOne)
{
    FillDatabase();
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    {
        ImportFault<decltype(&::WaitForSingleObject)> fault("WaitForSingleObject", WAIT_FAILED, ERROR_INVALID_HANDLE,
                                                            1);
        ExpectConvertFailsChangingNothing(converter, HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE), __LINE__);
        EXPECT_EQ(1u, fault.failed());
    }
    {
        ImportFault<decltype(&::WaitForSingleObject)> fault("WaitForSingleObject", WAIT_FAILED, ERROR_SUCCESS, 1);
        ExpectConvertFailsChangingNothing(converter, E_UNEXPECTED, __LINE__);
    }
}

// Two installers converting one database at once: the test holds the lock until
// both have loaded the library for the 2.0 database (so both converters are made
// for it) and are on their way to the lock; one then converts every user, the other
// finds the database converted and stops.
namespace {

// A child process with standard error in a file of its own.
class Child {
public:
    explicit Child(const std::wstring& commandLine, const std::wstring& errPath) : m_errPath(errPath)
    {
        SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
        m_err.reset(::CreateFileW(errPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, nullptr));
        STARTUPINFOW si{};
        si.cb = sizeof(si);
        si.dwFlags = STARTF_USESTDHANDLES;
        si.hStdError = m_err.get();
        si.hStdOutput = m_err.get();
        std::wstring cmd = commandLine;
        PROCESS_INFORMATION pi{};
        if (::CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi)) {
            m_process.reset(pi.hProcess);
            ::CloseHandle(pi.hThread);
        }
    }
    bool started() const { return static_cast<bool>(m_process); }
    // True once the child has the library loaded (its converter is made at load).
    bool HasLoaded(const wchar_t* module) const
    {
        HMODULE modules[512];
        DWORD cb = 0;
        if (!::K32EnumProcessModules(m_process.get(), modules, sizeof(modules), &cb))
            return false;
        for (DWORD i = 0; i < cb / sizeof(HMODULE); ++i) {
            wchar_t name[MAX_PATH];
            if (::K32GetModuleBaseNameW(m_process.get(), modules[i], name, MAX_PATH) && ::_wcsicmp(name, module) == 0)
                return true;
        }
        return false;
    }
    DWORD Wait(DWORD ms)
    {
        DWORD code = 0xdeadbeef;
        if (::WaitForSingleObject(m_process.get(), ms) == WAIT_OBJECT_0)
            ::GetExitCodeProcess(m_process.get(), &code);
        m_err.reset();
        return code;
    }
    std::string Output() const { return ReadFileBytes(m_errPath); }

private:
    std::wstring m_errPath;
    nv::unique_hfile m_err;
    nv::unique_handle_null m_process;
};

class TwoConvertersTest : public Db20ConversionTest {};

} // namespace

TEST_F(TwoConvertersTest, TwoProcessesConvertingOneDatabaseMoveEveryUserOnce)
{
    const nvwriter::Db20Database db = MakeDatabase(6, 71);
    WriteDatabase(db);
    const std::wstring command = QuoteArg(ExeDirectory() + L"nvdbconv.exe") + L" --quiet convert";
    wchar_t tmp[MAX_PATH];
    ::GetTempPathW(MAX_PATH, tmp);
    const std::wstring base = std::wstring(tmp) + L"nvlock-" + std::to_wstring(::GetCurrentProcessId());
    DWORD codes[2] = {0xdeadbeef, 0xdeadbeef};
    std::string outputs[2];
    {
        LockHolder holder;
        ASSERT_TRUE(holder.ok());
        Child first(command, base + L"-1.txt");
        Child second(command, base + L"-2.txt");
        ASSERT_TRUE(first.started());
        ASSERT_TRUE(second.started());
        bool loaded = false;
        for (int i = 0; i < 600 && !loaded; ++i) {
            loaded = first.HasLoaded(L"NVDBConv.dll") && second.HasLoaded(L"NVDBConv.dll");
            if (!loaded)
                ::Sleep(50);
        }
        ASSERT_TRUE(loaded) << "the children did not load the library within 30 s";
        // Both are past their load (each makes its converter while the library loads);
        // the first Convert of each now meets the held lock.
        ::Sleep(1500);
        holder.Release();
        codes[0] = first.Wait(120000);
        codes[1] = second.Wait(120000);
        outputs[0] = first.Output();
        outputs[1] = second.Output();
    }
    ::DeleteFileW((base + L"-1.txt").c_str());
    ::DeleteFileW((base + L"-2.txt").c_str());
    const int converted = (codes[0] == 0) + (codes[1] == 0);
    EXPECT_EQ(1, converted) << "first: " << codes[0] << "\n" << outputs[0] << "\nsecond: " << codes[1] << "\n"
                            << outputs[1];
    const int loser = codes[0] == 0 ? 1 : 0;
    EXPECT_EQ(1u, codes[loser]) << outputs[loser];
    EXPECT_NE(std::string::npos, outputs[loser].find("0x800700AA NV_E_CONVERSION_BUSY")) << outputs[loser];

    for (const nvwriter::Db20User& u : db.users)
        ExpectUserConverted(u);
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Data", kView32));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB-v2.0", kView64));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB-v2.0", kView32));
    RegValue backup;
    EXPECT_FALSE(GetValue(kDbPath, L"Backup", kView32, &backup));
}

TEST_F(ConversionLockTest, LockSecurityThatCannotBeBuiltFailsConvertWithItsErrorOrUnexpectedWithoutOne)
{
    FillDatabase();
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    {
        ImportFault<decltype(&::ConvertStringSecurityDescriptorToSecurityDescriptorW)> fault(
            "ConvertStringSecurityDescriptorToSecurityDescriptorW", FALSE, ERROR_NOT_ENOUGH_MEMORY, 1);
        ExpectConvertFailsChangingNothing(converter, HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY), __LINE__);
        EXPECT_EQ(1u, fault.failed());
    }
    {
        ImportFault<decltype(&::ConvertStringSecurityDescriptorToSecurityDescriptorW)> fault(
            "ConvertStringSecurityDescriptorToSecurityDescriptorW", FALSE, ERROR_SUCCESS, 1);
        ExpectConvertFailsChangingNothing(converter, E_UNEXPECTED, __LINE__);
        EXPECT_EQ(1u, fault.failed());
    }
}

TEST_F(ConversionLockTest, LockThatCannotBeMadeFailsConvertWithTheSystemsErrorOrUnexpectedWithoutOne)
{
    FillDatabase();
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    {
        ImportFault<decltype(&::CreateMutexW)> fault("CreateMutexW", nullptr, ERROR_NO_SYSTEM_RESOURCES, 1);
        ExpectConvertFailsChangingNothing(converter, HRESULT_FROM_WIN32(ERROR_NO_SYSTEM_RESOURCES), __LINE__);
        EXPECT_EQ(1u, fault.failed());
    }
    {
        ImportFault<decltype(&::CreateMutexW)> fault("CreateMutexW", nullptr, ERROR_SUCCESS, 1);
        ExpectConvertFailsChangingNothing(converter, E_UNEXPECTED, __LINE__);
        EXPECT_EQ(1u, fault.failed());
    }
    const std::vector<std::string> lines = trace.AllLines();
    EXPECT_EQ(2, std::count(lines.begin(), lines.end(),
                            std::string("U conversion lock Global\\NVDBConv.Conversion cannot be opened")))
        << trace.Dump();
}
