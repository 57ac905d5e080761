// The machine-wide conversion lock: Convert, Rollback and Cleanup wait for another
// holder a bounded time and then fail with NV_E_CONVERSION_BUSY having changed
// nothing; a lock released in time lets them go on; a converter whose database
// changed while it waited refuses; a holder that died leaves the lock to the next
// caller; and two processes converting one database end with every user moved once.
#include <windows.h>
#include <aclapi.h>
#include <sddl.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "common/handles.h"
#include "frame/conversionlock.h"
#include "nvstore_inspect.h"
#include "support/conversion_fixture.h"
#include "support/dll_loader.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "support/test_converter.h"
#include "support/trace_capture.h"

using namespace nvtest;
namespace inspect = nvstore::inspect;

namespace {

constexpr const wchar_t kDb[] = L"SOFTWARE\\Norvane\\DB";
constexpr const wchar_t kBackup10[] = L"SOFTWARE\\Norvane\\DB-v1.0";

// Holds the conversion lock on a thread of its own until Release (or, with
// abandon, ends that thread still owning it).
class LockHolder {
public:
    explicit LockHolder(bool abandon = false)
    {
        // The handle outlives the thread: a mutex whose last handle closed is gone
        // rather than abandoned.
        m_mutex.reset(::CreateMutexW(nullptr, FALSE, nvframe::kConversionMutexName));
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
    void FillDatabase()
    {
        SetString(kDb, L"Version", L"1.0", kView32);
        SetDword(kDb, L"Flags", 7, kView32);
        SetString(L"SOFTWARE\\Norvane\\DB\\Data\\Users\\S-1-5-21-7-8-9-1001", L"Name", L"alice", kView32);
    }

    DWORD m_savedWait = 0;
};

bool HasLine(const std::vector<std::string>& lines, const std::string& line)
{
    for (const std::string& l : lines)
        if (l == line)
            return true;
    return false;
}

} // namespace

TEST_F(ConversionLockTest, HeldForTheWholeWaitConvertRollbackAndCleanupFailBusyAndChangeNothing)
{
    FillDatabase();
    SetString(kDb, L"Backup", kBackup10, kView32);
    SetDword(kBackup10, L"Saved", 1, kView32);
    const RegTree db = Snapshot(kDb, kView32);
    const RegTree backup = Snapshot(kBackup10, kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    nvframe::g_conversionLockWaitMs = 200;
    LockHolder holder;
    ASSERT_TRUE(holder.ok());

    EXPECT_EQ(nvframe::NV_E_CONVERSION_BUSY, converter.Convert());
    EXPECT_EQ(nvframe::NV_E_CONVERSION_BUSY, converter.Rollback());
    EXPECT_EQ(nvframe::NV_E_CONVERSION_BUSY, converter.Cleanup());
    EXPECT_TRUE(converter.calls.empty());
    EXPECT_EQ("", DiffTrees(db, Snapshot(kDb, kView32)));
    EXPECT_EQ("", DiffTrees(backup, Snapshot(kBackup10, kView32)));
    EXPECT_EQ((std::vector<std::string>{
                  "U waiting up to 200 ms for another conversion to end",
                  "U another conversion still holds the database after 200 ms",
                  "E -2147024726 ",
              }),
              trace.LinesInScope("CBaseConverter::Convert"))
        << trace.Dump();
}

TEST_F(ConversionLockTest, ReleasedWithinTheWaitConvertGoesOn)
{
    FillDatabase();
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    nvframe::g_conversionLockWaitMs = 20000;
    LockHolder holder;
    ASSERT_TRUE(holder.ok());
    holder.ReleaseAfter(300);

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
    const RegTree before = Snapshot(kDb, kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    nvframe::g_conversionLockWaitMs = 20000;
    LockHolder holder;
    ASSERT_TRUE(holder.ok());
    // What another process's conversion leaves: the next format's "Version".
    holder.BeforeRelease([] { SetString(kDb, L"Version", L"2.0", kView32); });
    holder.ReleaseAfter(300);

    EXPECT_EQ(nvframe::NV_E_CONVERSION_BUSY, converter.Convert());
    EXPECT_TRUE(converter.calls.empty());
    EXPECT_FALSE(KeyExists(kBackup10, kView32));
    RegTree expected = before;
    expected.values[L"|Version"].data = {'2', 0, '.', 0, '0', 0, 0, 0};
    const RegTree after = Snapshot(kDb, kView32);
    EXPECT_TRUE(expected == after) << DiffTrees(expected, after);
    EXPECT_TRUE(HasLine(trace.LinesInScope("CBaseConverter::Convert"),
                        "U the database changed while waiting: \"Version\" was 1.0, is now 2.0"))
        << trace.Dump();
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
    EXPECT_TRUE(HasLine(trace.LinesInScope("CBaseConverter::Convert"),
                        "U the previous holder of the conversion lock ended without releasing it"))
        << trace.Dump();
}

TEST_F(ConversionLockTest, TheLockIsForSystemAndAdministratorsOnly)
{
    NVTraceNS::CTraceScope scope("test", 0);
    nvframe::CConversionLock lock(scope);
    ASSERT_EQ(S_OK, lock.Result());
    EXPECT_FALSE(lock.Waited());
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
    EXPECT_EQ(std::wstring(L"(A;;GA;;;SY)(A;;GA;;;BA)"), DaclEntries(text));
}

// Two installers converting one database at once: the test holds the lock while
// both start, so that both load the library for the 2.0 database and wait; one
// then converts every user, the other finds the database changed and stops.
class TwoConvertersTest : public Db20ConversionTest {};

TEST_F(TwoConvertersTest, TwoProcessesConvertingOneDatabaseMoveEveryUserOnce)
{
    const nvwriter::Db20Database db = MakeDatabase(6, 71);
    WriteDatabase(db);
    const std::wstring command = QuoteArg(ExeDirectory() + L"nvdbconv.exe") + L" --quiet convert";
    ProcessRun runs[2];
    {
        LockHolder holder;
        ASSERT_TRUE(holder.ok());
        holder.ReleaseAfter(3000);
        std::thread first([&] { runs[0] = RunProcess(command); });
        std::thread second([&] { runs[1] = RunProcess(command); });
        first.join();
        second.join();
    }
    const int converted = (runs[0].exitCode == 0) + (runs[1].exitCode == 0);
    EXPECT_EQ(1, converted) << "first: " << runs[0].exitCode << "\n" << runs[0].out << runs[0].err
                            << "\nsecond: " << runs[1].exitCode << "\n" << runs[1].out << runs[1].err;
    const ProcessRun& loser = runs[0].exitCode == 0 ? runs[1] : runs[0];
    EXPECT_EQ(1u, loser.exitCode) << loser.out << loser.err;
    EXPECT_NE(std::string::npos, loser.err.find("0x800700AA NV_E_CONVERSION_BUSY")) << loser.err;

    for (const nvwriter::Db20User& u : db.users)
        ExpectUserConverted(u);
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Data", kView32));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB-v2.0", kView64));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB-v2.0", kView32));
    RegValue backup;
    EXPECT_FALSE(GetValue(kDb, L"Backup", kView32, &backup));
}
