// The trace file's safety checks: a link, a second name, a file of someone else's
// or a network path never gets trace output, and folders made for the trace are
// for administrators only. The planted links, hard links and foreign files are made
// for real on the Unix side of Wine (support/unix_side.h); the cases Wine cannot
// show (a junction, a link opened as itself, a drive mapped to a share, a file owned
// by a user of a domain) are judged from the answers Windows gives for them.
#include <windows.h>
#include <aclapi.h>
#include <sddl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "common/handles.h"
#include "support/import_fault.h"
#include "support/import_patch.h"
#include "support/trace_capture.h"
#include "support/unix_side.h"
#include "trace/trace.h"
#include "trace/tracefilecheck.h"
#include "trace/traceoutput.h"

using namespace nvtest;
using NVTraceNS::TraceFileFacts;
using NVTraceNS::TraceFileVerdict;

namespace {

constexpr const wchar_t kTracing[] = L"SOFTWARE\\Norvane\\Tracing";
constexpr const char kPrecious[] = "precious bytes of somebody else's file";
constexpr DWORD kLinkedFolder = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT; // 0x410

std::wstring TempDir()
{
    wchar_t dir[MAX_PATH];
    const DWORD n = ::GetTempPathW(MAX_PATH, dir);
    return std::wstring(dir, n);
}

bool Exists(const std::wstring& path) { return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

void WriteBytes(const std::wstring& path, const std::string& bytes)
{
    nv::unique_hfile file(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    ASSERT_TRUE(file) << Narrow(path);
    DWORD written = 0;
    ASSERT_TRUE(::WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr));
}

std::string ReadBytes(const std::wstring& path)
{
    nv::unique_hfile file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                        OPEN_EXISTING, 0, nullptr));
    if (!file)
        return "<" + std::to_string(::GetLastError()) + ">";
    char buffer[4096];
    DWORD read = 0;
    if (!::ReadFile(file.get(), buffer, sizeof(buffer), &read, nullptr))
        return "<read failed>";
    return std::string(buffer, read);
}

std::wstring SidText(PSID sid)
{
    wchar_t* text = nullptr;
    if (!::ConvertSidToStringSidW(sid, &text))
        return L"?";
    std::wstring result(text);
    ::LocalFree(text);
    return result;
}

// The facts of an ordinary trace file the library created at C:\ProgramData\Norvane.
TraceFileFacts PlainFile()
{
    TraceFileFacts f;
    f.requested = L"C:\\ProgramData\\Norvane\\setup.NVDBConv.dll.x64.1.trc3";
    f.finalPath = L"\\\\?\\C:\\ProgramData\\Norvane\\setup.NVDBConv.dll.x64.1.trc3";
    f.attributes = FILE_ATTRIBUTE_ARCHIVE;
    f.links = 1;
    f.existed = false;
    return f;
}

} // namespace

// Each test works in a folder of its own under %TEMP%, removed on the Unix side
// afterwards (rm does not follow the links the test planted).
class TraceFileCheckTest : public TraceCaptureTest {
protected:
    void SetUp() override
    {
        TraceCaptureTest::SetUp();
        ASSERT_TRUE(UnderWine()) << "these cases are planted on Wine's Unix side";
        static std::atomic<unsigned> counter{0};
        dir = TempDir() + L"nvtfc_" + std::to_wstring(::GetCurrentProcessId()) + L"_" + std::to_wstring(counter++);
        ASSERT_TRUE(::CreateDirectoryW(dir.c_str(), nullptr));
        ASSERT_TRUE(::CreateDirectoryW((dir + L"\\target").c_str(), nullptr));
        ASSERT_TRUE(::CreateDirectoryW((dir + L"\\plain").c_str(), nullptr));
    }
    void TearDown() override
    {
        TraceCapture::ResetInProcess();
        const std::string unixDir = UnixPathOf(dir);
        if (!unixDir.empty()) {
            EXPECT_TRUE(RunUnix({"rm", "-rf", unixDir}));
        }
        TraceCaptureTest::TearDown();
    }

    // dir\link: a planted link to dir\target, as Windows code sees it.
    void PlantLinkedFolder()
    {
        ASSERT_TRUE(MakeUnixSymlink(dir + L"\\target", dir + L"\\link"));
        ASSERT_EQ(kLinkedFolder, ::GetFileAttributesW((dir + L"\\link").c_str()));
    }

    // One traced scope in a fresh trace state, the file closed afterwards.
    static void TraceOnce()
    {
        TraceCapture::ResetInProcess();
        {
            NVTraceNS::CTraceScope scope("CFoo::Bar", 0);
            NVTraceNS::Trace(scope, 0, "inside");
        }
        TraceCapture::ResetInProcess();
    }

    // The verdict a file output reaches on the current settings; its handle must be
    // invalid whenever the verdict is a refusal.
    static TraceFileVerdict VerdictOfAFileOutput()
    {
        NVTraceNS::CFileOutput output;
        if (output.m_verdict != TraceFileVerdict::Accepted) {
            EXPECT_EQ(INVALID_HANDLE_VALUE, output.m_hFile);
        }
        return output.m_verdict;
    }

    void UseFileName(const std::wstring& path, bool append)
    {
        SetString(kTracing, L"FileName", path, kViewNative);
        SetDword(kTracing, L"NewFileAlways", append ? 0 : 1, kViewNative);
    }

    // A folder that is not local (`given`, seen locally as `seen`): the library
    // neither opens a trace file there nor makes TracePath folders in it.
    void ExpectNothingWrittenTo(const std::wstring& given, const std::wstring& seen)
    {
        UseFileName(given + L"\\host.trc3", false);
        TraceOnce();
        EXPECT_FALSE(Exists(seen + L"\\host.trc3"));
        EXPECT_EQ(TraceFileVerdict::NotALocalPath, VerdictOfAFileOutput());
        EXPECT_FALSE(Exists(seen + L"\\host.trc3"));

        DeleteValue(kTracing, L"FileName", kViewNative);
        SetString(kTracing, L"TracePath", given + L"\\logs", kViewNative);
        TraceOnce();
        EXPECT_FALSE(Exists(seen + L"\\logs"));
    }

    // A file worth keeping behind the linked folder, and one trace aimed at it
    // through the link.
    void TraceThroughALinkToAVictim(bool append)
    {
        PlantLinkedFolder();
        WriteBytes(dir + L"\\target\\victim.trc3", kPrecious);
        UseFileName(dir + L"\\link\\victim.trc3", append);
        TraceOnce();
    }

    std::wstring dir;
};

// ---- links planted on the path -----------------------------------------------------

TEST_F(TraceFileCheckTest, NewFileThroughALinkedFolderLeavesTheFileThereUntouched)
{
    TraceThroughALinkToAVictim(false);
    EXPECT_EQ(kPrecious, ReadBytes(dir + L"\\target\\victim.trc3")) << "truncated through the link";
    EXPECT_EQ(TraceFileVerdict::Redirected, VerdictOfAFileOutput());
    EXPECT_EQ(kPrecious, ReadBytes(dir + L"\\target\\victim.trc3"));
}

TEST_F(TraceFileCheckTest, AppendingThroughALinkedFolderAddsNothingToTheFileThere)
{
    TraceThroughALinkToAVictim(true);
    EXPECT_EQ(kPrecious, ReadBytes(dir + L"\\target\\victim.trc3")) << "appended to through the link";
    EXPECT_EQ(TraceFileVerdict::Redirected, VerdictOfAFileOutput());
}

TEST_F(TraceFileCheckTest, MissingFileBehindALinkedFolderIsNotCreatedThere)
{
    PlantLinkedFolder();
    UseFileName(dir + L"\\link\\new.trc3", true);
    TraceOnce();
    EXPECT_FALSE(Exists(dir + L"\\target\\new.trc3"));
    EXPECT_EQ(TraceFileVerdict::Redirected, VerdictOfAFileOutput());
    EXPECT_FALSE(Exists(dir + L"\\target\\new.trc3"));
}

TEST_F(TraceFileCheckTest, TracePathThroughALinkedFolderCreatesNothingBeyondTheLink)
{
    PlantLinkedFolder();
    DeleteValue(kTracing, L"FileName", kViewNative);
    SetString(kTracing, L"TracePath", dir + L"\\link\\logs\\setup", kViewNative);
    TraceOnce();
    EXPECT_FALSE(Exists(dir + L"\\target\\logs"));
}

TEST_F(TraceFileCheckTest, FileThatIsALinkIsNotFollowed)
{
    WriteBytes(dir + L"\\target\\victim.trc3", kPrecious);
    ASSERT_TRUE(MakeUnixSymlink(dir + L"\\target\\victim.trc3", dir + L"\\plain\\host.trc3"));
    for (bool append : {false, true}) {
        UseFileName(dir + L"\\plain\\host.trc3", append);
        TraceOnce();
        EXPECT_EQ(kPrecious, ReadBytes(dir + L"\\target\\victim.trc3")) << "append " << append;
        // Wine follows a link even when asked to open the link itself; the final
        // path then names the target (Windows would show the link's reparse point).
        EXPECT_EQ(TraceFileVerdict::Redirected, VerdictOfAFileOutput()) << "append " << append;
    }
}

// The race a planted link can win: the trace file's folder is swapped for a link
// after it was judged and before the file is opened. The open is hooked to make the
// swap, so the race is won every time, and the file is opened where the link points.
namespace {

std::wstring g_raceFile, g_raceDir;
bool g_swapped = false;
decltype(&::CreateFileW) g_realCreateFileW = nullptr;

HANDLE WINAPI SwapFolderThenCreateFileW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                        DWORD disposition, DWORD flags, HANDLE templateFile)
{
    if (!g_swapped && name && g_raceFile == name && disposition == OPEN_ALWAYS) {
        g_swapped = ::MoveFileW((g_raceDir + L"\\plain").c_str(), (g_raceDir + L"\\judged").c_str()) &&
                    MakeUnixSymlink(g_raceDir + L"\\target", g_raceDir + L"\\plain");
    }
    return g_realCreateFileW(name, access, share, security, disposition, flags, templateFile);
}

} // namespace

TEST_F(TraceFileCheckTest, FileCreatedWhereALinkLedIsDeletedAgainAndAnExistingOneKept)
{
    ImportPatch patch(::GetModuleHandleW(nullptr),
                      {{"CreateFileW", reinterpret_cast<void*>(SwapFolderThenCreateFileW)}});
    ASSERT_TRUE(patch.ok());
    g_realCreateFileW = reinterpret_cast<decltype(&::CreateFileW)>(patch.Original("CreateFileW"));
    ASSERT_NE(nullptr, g_realCreateFileW);
    g_raceFile = dir + L"\\plain\\host.trc3";
    g_raceDir = dir;

    // Nothing there: the open creates the file at the link's target, and the
    // refused file is removed again.
    UseFileName(g_raceFile, false);
    g_swapped = false;
    EXPECT_EQ(TraceFileVerdict::Redirected, VerdictOfAFileOutput());
    ASSERT_TRUE(g_swapped);
    EXPECT_FALSE(Exists(dir + L"\\target\\host.trc3")) << "the refused new file was left where the link led";
    EXPECT_FALSE(Exists(dir + L"\\judged\\host.trc3"));

    // A file already there is someone's: refused, and neither emptied nor removed.
    ASSERT_TRUE(RunUnix({"rm", UnixPathOf(dir) + "/plain"})); // the link
    ASSERT_TRUE(::MoveFileW((dir + L"\\judged").c_str(), (dir + L"\\plain").c_str()));
    WriteBytes(dir + L"\\target\\host.trc3", kPrecious);
    g_swapped = false;
    EXPECT_EQ(TraceFileVerdict::Redirected, VerdictOfAFileOutput());
    ASSERT_TRUE(g_swapped);
    EXPECT_EQ(kPrecious, ReadBytes(dir + L"\\target\\host.trc3"));
}

TEST_F(TraceFileCheckTest, FileWithASecondNameIsNotWritten)
{
    WriteBytes(dir + L"\\target\\victim.trc3", kPrecious);
    ASSERT_TRUE(RunUnix({"ln", UnixPathOf(dir + L"\\target\\victim.trc3"), UnixPathOf(dir + L"\\plain\\host.trc3")}));
    for (bool append : {false, true}) {
        UseFileName(dir + L"\\plain\\host.trc3", append);
        TraceOnce();
        EXPECT_EQ(kPrecious, ReadBytes(dir + L"\\target\\victim.trc3")) << "append " << append;
        EXPECT_EQ(TraceFileVerdict::HardLinked, VerdictOfAFileOutput()) << "append " << append;
    }
}

// ---- a file of someone else's ------------------------------------------------------

TEST_F(TraceFileCheckTest, ExistingFileOfAnotherOwnerIsNeitherAppendedToNorReplaced)
{
    // A file this account made earlier is appended to, as always.
    const std::wstring own = dir + L"\\plain\\own.trc3";
    UseFileName(own, false);
    TraceOnce();
    const std::string first = ReadBytes(own);
    ASSERT_EQ("trace3\r\n", first.substr(0, 8));
    UseFileName(own, true);
    TraceOnce();
    const std::string second = ReadBytes(own);
    EXPECT_EQ(first, second.substr(0, first.size()));
    EXPECT_GT(second.size(), first.size());
    EXPECT_EQ(TraceFileVerdict::Accepted, VerdictOfAFileOutput());

    const std::wstring file = dir + L"\\plain\\host.trc3";
    WriteBytes(file, kPrecious);
    // Wine reports a file of another Unix user as owned by S-1-5-7.
    ASSERT_TRUE(RunUnix({"chown", "nobody", UnixPathOf(file)})) << "giving the file away needs root (CI runs as root)";
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::GetNamedSecurityInfoW(file.c_str(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION,
                                                     &owner, nullptr, nullptr, nullptr, &descriptor));
    EXPECT_EQ(L"S-1-5-7", SidText(owner));
    ::LocalFree(descriptor);
    for (bool append : {true, false}) {
        UseFileName(file, append);
        TraceOnce();
        EXPECT_EQ(kPrecious, ReadBytes(file)) << "append " << append;
        EXPECT_EQ(TraceFileVerdict::ForeignOwner, VerdictOfAFileOutput()) << "append " << append;
    }
}

// ---- network paths -----------------------------------------------------------------

// Wine serves \\server\share from $WINEPREFIX/dosdevices/unc/server/share: the share
// is real, and reachable, so only the check keeps the file off it.
TEST_F(TraceFileCheckTest, UncFileNameOrTracePathIsNeverUsed)
{
    std::string dosdevices = UnixPathOf(L"C:\\");
    ASSERT_GT(dosdevices.size(), 3u);
    dosdevices = dosdevices.substr(0, dosdevices.find_last_of('/', dosdevices.size() - 2)); // drop "c:/"
    const std::string share = "nvtfc" + std::to_string(::GetCurrentProcessId());
    const std::string shareDir = dosdevices + "/unc/localhost/" + share;
    ASSERT_TRUE(RunUnix({"mkdir", "-p", shareDir}));
    const std::wstring unc = L"\\\\localhost\\" + Widen(share);
    WriteBytes(unc + L"\\reachable.txt", "yes");
    EXPECT_EQ("yes", ReadBytes(unc + L"\\reachable.txt")) << "Wine does not serve the share";

    ExpectNothingWrittenTo(unc, unc);
    EXPECT_TRUE(RunUnix({"rm", "-rf", shareDir}));
}

namespace {

// Wine here cannot map a drive letter to a share, so the drive-type answers are
// given in the system's place: Z:, Wine's view of the Unix root and so reachable,
// is reported as mapped to a share. Every root asked about is kept.
std::vector<std::wstring> g_rootsAsked;

UINT WINAPI ZIsAShare(LPCWSTR root)
{
    g_rootsAsked.emplace_back(root);
    return (root[0] == L'Z' || root[0] == L'z') ? DRIVE_REMOTE : ::GetDriveTypeW(root);
}

struct DriveTypeAnswers {
    DriveTypeAnswers()
    {
        g_rootsAsked.clear();
        NVTraceNS::g_pfnDriveTypeForTests = ZIsAShare;
    }
    ~DriveTypeAnswers() { NVTraceNS::g_pfnDriveTypeForTests = nullptr; }
};

} // namespace

TEST_F(TraceFileCheckTest, DriveMappedToAShareIsNeitherOpenedNorSearched)
{
    // dir on Z:, through the prefix's drive_c rather than its link dosdevices/c:, so
    // that no folder on the way is a link and TracePath folders would be made.
    std::string unixDir = UnixPathOf(dir);
    const std::size_t link = unixDir.find("/dosdevices/c:/");
    ASSERT_NE(std::string::npos, link) << unixDir;
    unixDir.replace(link, std::strlen("/dosdevices/c:/"), "/drive_c/");
    std::wstring mapped = L"Z:" + Widen(unixDir);
    for (wchar_t& c : mapped)
        c = c == L'/' ? L'\\' : c;
    ASSERT_TRUE(Exists(mapped + L"\\plain")) << "Z: is not the Unix root";
    DriveTypeAnswers answers;

    EXPECT_FALSE(NVTraceNS::IsLocalTracePath(mapped.c_str()));
    EXPECT_TRUE(NVTraceNS::IsLocalTracePath((dir + L"\\plain").c_str()));
    EXPECT_EQ(TraceFileVerdict::NotALocalPath, NVTraceNS::ProbeTraceFile((mapped + L"\\plain\\t.trc3").c_str()));

    ExpectNothingWrittenTo(mapped + L"\\plain", dir + L"\\plain");
    // The answers were the system's to give, for Z:'s root.
    EXPECT_NE(g_rootsAsked.end(), std::find(g_rootsAsked.begin(), g_rootsAsked.end(), L"Z:\\"));
}

// ---- the host's question: would it be refused? ------------------------------------

TEST_F(TraceFileCheckTest, ProbeGivesTheVerdictWithoutCreatingOrChangingAnything)
{
    PlantLinkedFolder();
    const std::wstring own = dir + L"\\plain\\own.trc3", foreign = dir + L"\\plain\\foreign.trc3";
    WriteBytes(own, "mine");
    WriteBytes(foreign, kPrecious);
    ASSERT_TRUE(RunUnix({"chown", "nobody", UnixPathOf(foreign)})) << "giving the file away needs root";
    WriteBytes(dir + L"\\target\\victim.trc3", kPrecious);
    const struct {
        std::wstring path;
        TraceFileVerdict verdict;
    } cases[] = {
        {own, TraceFileVerdict::Accepted},
        {dir + L"\\plain\\missing.trc3", TraceFileVerdict::Accepted},
        {dir + L"\\plain\\no\\such\\folder\\t.trc3", TraceFileVerdict::Accepted}, // cannot be opened: no refusal
        {foreign, TraceFileVerdict::ForeignOwner},
        {dir + L"\\link\\victim.trc3", TraceFileVerdict::Redirected},
        {dir + L"\\link\\missing.trc3", TraceFileVerdict::Redirected},
        {dir + L"\\link\\logs\\setup\\t.trc3", TraceFileVerdict::Redirected}, // the link is the nearest folder
        {L"\\\\localhost\\share\\t.trc3", TraceFileVerdict::NotALocalPath},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.verdict, NVTraceNS::ProbeTraceFile(c.path.c_str())) << Narrow(c.path);
    EXPECT_EQ("mine", ReadBytes(own));
    EXPECT_EQ(kPrecious, ReadBytes(foreign));
    EXPECT_EQ(kPrecious, ReadBytes(dir + L"\\target\\victim.trc3"));
    EXPECT_FALSE(Exists(dir + L"\\plain\\missing.trc3"));
    EXPECT_FALSE(Exists(dir + L"\\target\\missing.trc3"));
    EXPECT_FALSE(Exists(dir + L"\\target\\logs"));
}

TEST_F(TraceFileCheckTest, OpeningWithoutAPathOrInAMissingFolderGivesNoHandleAndCreatesNothing)
{
    TraceFileVerdict verdict = TraceFileVerdict::Redirected; // sentinel
    EXPECT_EQ(INVALID_HANDLE_VALUE, NVTraceNS::OpenCheckedTraceFile(L"", FILE_APPEND_DATA, false, &verdict));
    EXPECT_EQ(TraceFileVerdict::Redirected, verdict); // nothing was judged
    EXPECT_EQ(TraceFileVerdict::Accepted, NVTraceNS::ProbeTraceFile(L""));

    const std::wstring missing = dir + L"\\plain\\no\\such\\t.trc3";
    verdict = TraceFileVerdict::Redirected;
    EXPECT_EQ(INVALID_HANDLE_VALUE, NVTraceNS::OpenCheckedTraceFile(missing.c_str(), FILE_APPEND_DATA, false, &verdict));
    EXPECT_EQ(TraceFileVerdict::Redirected, verdict); // not refused, not judged: it cannot be opened
    EXPECT_FALSE(Exists(dir + L"\\plain\\no"));
}

TEST_F(TraceFileCheckTest, OpeningWithoutAVerdictToFillStillChecksAndOpens)
{
    const std::wstring file = dir + L"\\plain\\t.trc3";
    nv::unique_hfile opened(NVTraceNS::OpenCheckedTraceFile(file.c_str(), FILE_APPEND_DATA, false, nullptr));
    ASSERT_TRUE(opened);
    DWORD written = 0;
    EXPECT_TRUE(::WriteFile(opened.get(), "ab", 2, &written, nullptr));
    opened.reset();
    EXPECT_EQ("ab", ReadBytes(file));

    PlantLinkedFolder();
    EXPECT_EQ(INVALID_HANDLE_VALUE,
              NVTraceNS::OpenCheckedTraceFile((dir + L"\\link\\t.trc3").c_str(), FILE_APPEND_DATA, false, nullptr));
    EXPECT_FALSE(Exists(dir + L"\\target\\t.trc3"));
}

// ---- folders made for the trace ----------------------------------------------------

TEST_F(TraceFileCheckTest, FoldersMadeForTracePathGrantNothingToOtherUsers)
{
    DeleteValue(kTracing, L"FileName", kViewNative);
    SetString(kTracing, L"TracePath", dir + L"\\plain\\logs\\setup", kViewNative);
    TraceOnce();
    ASSERT_TRUE(Exists(dir + L"\\plain\\logs\\setup"));
    PSID everyone = nullptr, users = nullptr, authenticated = nullptr;
    ASSERT_TRUE(::ConvertStringSidToSidW(L"S-1-1-0", &everyone));
    ASSERT_TRUE(::ConvertStringSidToSidW(L"S-1-5-32-545", &users));
    ASSERT_TRUE(::ConvertStringSidToSidW(L"S-1-5-11", &authenticated));
    for (const wchar_t* folder : {L"\\plain\\logs", L"\\plain\\logs\\setup"}) {
        PACL dacl = nullptr;
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        ASSERT_EQ(ERROR_SUCCESS, ::GetNamedSecurityInfoW((dir + folder).c_str(), SE_FILE_OBJECT,
                                                         DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl, nullptr,
                                                         &descriptor));
        ASSERT_NE(nullptr, dacl) << Narrow(folder) << ": no list means access for everyone";
        unsigned granted = 0;
        for (DWORD i = 0; i < dacl->AceCount; ++i) {
            ACE_HEADER* header = nullptr;
            ASSERT_TRUE(::GetAce(dacl, i, reinterpret_cast<void**>(&header)));
            if (header->AceType != ACCESS_ALLOWED_ACE_TYPE)
                continue;
            PSID sid = &reinterpret_cast<ACCESS_ALLOWED_ACE*>(header)->SidStart;
            if (::EqualSid(sid, everyone) || ::EqualSid(sid, users) || ::EqualSid(sid, authenticated)) {
                ++granted;
                ADD_FAILURE() << Narrow(folder) << " grants " << Narrow(SidText(sid)) << " access 0x" << std::hex
                              << reinterpret_cast<ACCESS_ALLOWED_ACE*>(header)->Mask;
            }
        }
        EXPECT_EQ(0u, granted);
        ::LocalFree(descriptor);
    }
    ::LocalFree(everyone);
    ::LocalFree(users);
    ::LocalFree(authenticated);
}

// Wine keeps no protected flag and no Administrators entry on a folder (it maps the
// list onto Unix permissions), so the descriptor the folders are created with is
// checked as it is handed to CreateDirectoryW.
TEST(TraceFolderSecurityTest, IsProtectedAndGivesSystemAndAdministratorsFullAccessAndNobodyElseAny)
{
    nv::unique_hlocal descriptor(NVTraceNS::NewTraceFolderSecurity());
    ASSERT_TRUE(descriptor);
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    ASSERT_TRUE(::GetSecurityDescriptorControl(descriptor.get(), &control, &revision));
    EXPECT_EQ(SE_DACL_PROTECTED, control & SE_DACL_PROTECTED);
    BOOL present = FALSE, defaulted = TRUE;
    PACL dacl = nullptr;
    ASSERT_TRUE(::GetSecurityDescriptorDacl(descriptor.get(), &present, &dacl, &defaulted));
    ASSERT_TRUE(present);
    ASSERT_NE(nullptr, dacl);
    ASSERT_EQ(2u, dacl->AceCount);
    const wchar_t* const expected[] = {L"S-1-5-18", L"S-1-5-32-544"};
    for (DWORD i = 0; i < 2; ++i) {
        ACCESS_ALLOWED_ACE* ace = nullptr;
        ASSERT_TRUE(::GetAce(dacl, i, reinterpret_cast<void**>(&ace)));
        EXPECT_EQ(ACCESS_ALLOWED_ACE_TYPE, ace->Header.AceType) << i;
        EXPECT_EQ(OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE, ace->Header.AceFlags) << i;
        EXPECT_EQ(static_cast<ACCESS_MASK>(FILE_ALL_ACCESS), ace->Mask) << i;
        EXPECT_EQ(expected[i], SidText(&ace->SidStart)) << i;
    }
}

// ---- the decision on recorded answers ------------------------------------------------

// The final path must name the file asked for; case and the long-path form aside.
// Answers Windows gives for a junction C:\Logs -> C:\Windows\System32 on the path:
// the handle's final path is the junction's target.
TEST(TraceFileVerdictTest, FinalPathMustBeThePathAskedForIgnoringCase)
{
    EXPECT_EQ(TraceFileVerdict::Accepted, NVTraceNS::JudgeTraceFile(PlainFile()));
    TraceFileFacts f = PlainFile();
    f.finalPath = L"\\\\?\\C:\\programdata\\NORVANE\\setup.nvdbconv.dll.x64.1.trc3";
    EXPECT_EQ(TraceFileVerdict::Accepted, NVTraceNS::JudgeTraceFile(f));
    f = PlainFile();
    f.requested = L"\\\\?\\" + f.requested;
    EXPECT_EQ(TraceFileVerdict::Accepted, NVTraceNS::JudgeTraceFile(f));

    f = PlainFile();
    f.requested = L"C:\\Logs\\setup.NVDBConv.dll.x64.1.trc3";
    f.finalPath = L"\\\\?\\C:\\Windows\\System32\\setup.NVDBConv.dll.x64.1.trc3";
    EXPECT_EQ(TraceFileVerdict::Redirected, NVTraceNS::JudgeTraceFile(f));
    f.existed = true;
    f.owner = L"S-1-5-18";
    EXPECT_EQ(TraceFileVerdict::Redirected, NVTraceNS::JudgeTraceFile(f));
}

// A symbolic link or mount point in the last part, opened as itself
// (FILE_FLAG_OPEN_REPARSE_POINT): same path, reparse point attribute.
TEST(TraceFileVerdictTest, ReparsePointOpenedAsItselfIsRefused)
{
    TraceFileFacts f = PlainFile();
    f.attributes = FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_REPARSE_POINT;
    f.existed = true;
    f.owner = L"S-1-5-21-1004336348-1177238915-682003330-1001";
    EXPECT_EQ(TraceFileVerdict::ReparsePoint, NVTraceNS::JudgeTraceFile(f));
    f.owner = L"S-1-5-32-544"; // whoever owns the link
    EXPECT_EQ(TraceFileVerdict::ReparsePoint, NVTraceNS::JudgeTraceFile(f));
}

TEST(TraceFileVerdictTest, NetworkAndDevicePathsAreNotLocal)
{
    TraceFileFacts f = PlainFile();
    for (const wchar_t* requested : {L"\\\\server\\share\\t.trc3", L"\\\\?\\UNC\\server\\share\\t.trc3",
                                     L"\\\\.\\pipe\\trace", L"\\\\.\\CON", L"\\??\\C:\\t.trc3", L"C:t.trc3", L""}) {
        f.requested = requested;
        f.finalPath = requested;
        EXPECT_EQ(TraceFileVerdict::NotALocalPath, NVTraceNS::JudgeTraceFile(f)) << Narrow(requested);
        EXPECT_FALSE(NVTraceNS::IsLocalDrivePath(requested)) << Narrow(requested);
    }
    // A drive letter mapped to a share: the final path is the share's.
    f = PlainFile();
    f.requested = L"N:\\traces\\t.trc3";
    f.finalPath = L"\\\\?\\UNC\\server\\share\\traces\\t.trc3";
    EXPECT_EQ(TraceFileVerdict::NotALocalPath, NVTraceNS::JudgeTraceFile(f));
    // A volume without a drive letter, and no final path at all.
    f.finalPath = L"\\\\?\\Volume{4c1b02c1-d990-11dc-99ae-806e6f6e6963}\\t.trc3";
    EXPECT_EQ(TraceFileVerdict::NotALocalPath, NVTraceNS::JudgeTraceFile(f));
    f.finalPath = L"";
    EXPECT_EQ(TraceFileVerdict::NotALocalPath, NVTraceNS::JudgeTraceFile(f));
    for (const wchar_t* local : {L"C:\\t.trc3", L"z:\\t", L"\\\\?\\D:\\traces\\t.trc3"})
        EXPECT_TRUE(NVTraceNS::IsLocalDrivePath(local)) << Narrow(local);
    // Paths as the settings give them: relative ones are local, a device name is not.
    EXPECT_TRUE(NVTraceNS::IsLocalTracePath(L"logs\\setup"));
    EXPECT_TRUE(NVTraceNS::IsLocalTracePath(L"C:\\logs\\..\\traces"));
    EXPECT_FALSE(NVTraceNS::IsLocalTracePath(L"C:\\logs\\CON"));
    EXPECT_FALSE(NVTraceNS::IsLocalTracePath(L"\\\\server\\share\\logs"));
    EXPECT_FALSE(NVTraceNS::IsLocalTracePath(L"//server/share/logs"));
    EXPECT_FALSE(NVTraceNS::IsLocalTracePath(nullptr));
}

TEST(TraceFileVerdictTest, FileWithAnotherNameIsRefused)
{
    TraceFileFacts f = PlainFile();
    f.existed = true;
    f.owner = L"S-1-5-18";
    f.links = 2;
    EXPECT_EQ(TraceFileVerdict::HardLinked, NVTraceNS::JudgeTraceFile(f));
}

TEST(TraceFileVerdictTest, ExistingFileMustBeOwnedBySystemAdministratorsOrThisAccount)
{
    const std::wstring self = L"S-1-5-21-1004336348-1177238915-682003330-500";
    TraceFileFacts f = PlainFile();
    f.existed = true;
    f.processUser = self;
    const struct {
        const wchar_t* owner;
        TraceFileVerdict verdict;
    } cases[] = {
        {L"S-1-5-18", TraceFileVerdict::Accepted},
        {L"S-1-5-32-544", TraceFileVerdict::Accepted},
        {L"S-1-5-21-1004336348-1177238915-682003330-500", TraceFileVerdict::Accepted},
        {L"S-1-5-21-1004336348-1177238915-682003330-1001", TraceFileVerdict::ForeignOwner}, // a user
        {L"S-1-5-32-545", TraceFileVerdict::ForeignOwner},                                // Users
        {L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464", TraceFileVerdict::ForeignOwner},
        {L"S-1-5-7", TraceFileVerdict::ForeignOwner}, // as Wine shows another Unix user
        {L"", TraceFileVerdict::ForeignOwner},        // the owner could not be read
    };
    for (const auto& c : cases) {
        f.owner = c.owner;
        EXPECT_EQ(c.verdict, NVTraceNS::JudgeTraceFile(f)) << Narrow(c.owner);
    }
    // Without a known account of our own, only System and Administrators count.
    f.processUser.clear();
    f.owner = L"";
    EXPECT_EQ(TraceFileVerdict::ForeignOwner, NVTraceNS::JudgeTraceFile(f));
    // A file this open created is ours whatever its owner reads.
    f.existed = false;
    EXPECT_EQ(TraceFileVerdict::Accepted, NVTraceNS::JudgeTraceFile(f));
}

// ---- system answers that cannot be had ---------------------------------------------
// Whatever the system cannot answer about an opened file or folder counts against it:
// the file is refused and left as it was. The queries are failed through the test
// executable's imports, which the library linked into it calls through.

namespace {

// Opening `path` for a trace (replacing its content) gives no handle, the verdict
// `expected`, and leaves the file's content `content`; `line` is the caller's.
void ExpectRefusedAndUntouched(const std::wstring& path, TraceFileVerdict expected, const std::string& content,
                               int line)
{
    SCOPED_TRACE(testing::Message() << "checked at line " << line);
    TraceFileVerdict verdict = TraceFileVerdict::Accepted;
    EXPECT_EQ(INVALID_HANDLE_VALUE, NVTraceNS::OpenCheckedTraceFile(path.c_str(), FILE_APPEND_DATA, false, &verdict));
    EXPECT_EQ(expected, verdict);
    EXPECT_EQ(content, ReadBytes(path));
}

} // namespace

TEST_F(TraceFileCheckTest, FileOrFolderWhoseFinalPathCannotBeHadIsRefusedAsNotLocal)
{
    const std::wstring file = dir + L"\\plain\\host.trc3";
    WriteBytes(file, kPrecious);
    ImportFault<decltype(&::GetFinalPathNameByHandleW)> fault("GetFinalPathNameByHandleW", 0, ERROR_ACCESS_DENIED);
    ExpectRefusedAndUntouched(file, TraceFileVerdict::NotALocalPath, kPrecious, __LINE__);
    EXPECT_EQ(TraceFileVerdict::NotALocalPath, NVTraceNS::ProbeTraceFile(file.c_str()));
    // A new file: its folder is judged first, and nothing is created.
    const std::wstring fresh = dir + L"\\plain\\fresh.trc3";
    ExpectRefusedAndUntouched(fresh, TraceFileVerdict::NotALocalPath, "<2>", __LINE__);
    EXPECT_EQ(3u, fault.calls());
}

TEST_F(TraceFileCheckTest, APathWhoseLongFormCannotBeHadIsComparedAsGiven)
{
    const std::wstring file = dir + L"\\plain\\host.trc3";
    WriteBytes(file, kPrecious);
    ImportFault<decltype(&::GetLongPathNameW)> fault("GetLongPathNameW", 0, ERROR_ACCESS_DENIED);
    // The path has no short names: as given, it is the path the file was opened at.
    EXPECT_EQ(TraceFileVerdict::Accepted, NVTraceNS::ProbeTraceFile(file.c_str()));
    EXPECT_EQ(1u, fault.calls());
}

TEST_F(TraceFileCheckTest, FileOrFolderWhoseAttributesCannotBeReadIsRefusedAsAReparsePoint)
{
    const std::wstring file = dir + L"\\plain\\host.trc3";
    WriteBytes(file, kPrecious);
    ImportFault<decltype(&::GetFileInformationByHandle)> fault("GetFileInformationByHandle", FALSE,
                                                               ERROR_ACCESS_DENIED);
    ExpectRefusedAndUntouched(file, TraceFileVerdict::ReparsePoint, kPrecious, __LINE__);
    EXPECT_EQ(TraceFileVerdict::ReparsePoint, NVTraceNS::ProbeTraceFile(file.c_str()));
    ExpectRefusedAndUntouched(dir + L"\\plain\\fresh.trc3", TraceFileVerdict::ReparsePoint, "<2>", __LINE__);
}

TEST_F(TraceFileCheckTest, ExistingFileWhoseOwnerCannotBeReadOrWrittenAsTextIsRefusedAsForeign)
{
    const std::wstring file = dir + L"\\plain\\host.trc3";
    WriteBytes(file, kPrecious);
    EXPECT_EQ(TraceFileVerdict::Accepted, NVTraceNS::ProbeTraceFile(file.c_str())) << "this account's own file";
    {
        ImportFault<decltype(&::GetKernelObjectSecurity)> fault("GetKernelObjectSecurity", FALSE,
                                                                ERROR_ACCESS_DENIED);
        ExpectRefusedAndUntouched(file, TraceFileVerdict::ForeignOwner, kPrecious, __LINE__);
        EXPECT_EQ(1u, fault.calls());
    }
    {
        ImportFault<decltype(&::ConvertSidToStringSidW)> fault("ConvertSidToStringSidW", FALSE,
                                                               ERROR_NOT_ENOUGH_MEMORY);
        ExpectRefusedAndUntouched(file, TraceFileVerdict::ForeignOwner, kPrecious, __LINE__);
    }
}

TEST_F(TraceFileCheckTest, ExistingFileWhoseDescriptorNamesNoOwnerIsRefusedAsForeign)
{
    const std::wstring file = dir + L"\\plain\\host.trc3";
    WriteBytes(file, kPrecious);
    // The owner cannot be taken from the descriptor, or the descriptor names none.
    for (BOOL answer : {FALSE, TRUE}) {
        ImportFault<decltype(&::GetSecurityDescriptorOwner)> fault("GetSecurityDescriptorOwner", answer,
                                                                   ERROR_INVALID_SECURITY_DESCR);
        ExpectRefusedAndUntouched(file, TraceFileVerdict::ForeignOwner, kPrecious, __LINE__);
        EXPECT_EQ(1u, fault.calls()) << answer;
    }
    EXPECT_EQ(TraceFileVerdict::Accepted, NVTraceNS::ProbeTraceFile(file.c_str()));
}

TEST_F(TraceFileCheckTest, FileOfThisAccountIsRefusedWhenTheProcesssUserCannotBeRead)
{
    const std::wstring file = dir + L"\\plain\\host.trc3";
    WriteBytes(file, kPrecious);
    // Owned by this process's user, not by System or Administrators: only the
    // comparison with the process's user lets it in.
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_EQ(DWORD(ERROR_SUCCESS), ::GetNamedSecurityInfoW(file.c_str(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION,
                                                            &owner, nullptr, nullptr, nullptr, &descriptor));
    nv::unique_hlocal descriptorOwner(descriptor);
    const std::wstring ownerText = SidText(owner);
    ASSERT_NE(L"S-1-5-18", ownerText);
    ASSERT_NE(L"S-1-5-32-544", ownerText);
    ASSERT_EQ(TraceFileVerdict::Accepted, NVTraceNS::ProbeTraceFile(file.c_str()));
    {
        ImportFault<decltype(&::OpenProcessToken)> fault("OpenProcessToken", FALSE, ERROR_ACCESS_DENIED);
        ExpectRefusedAndUntouched(file, TraceFileVerdict::ForeignOwner, kPrecious, __LINE__);
        EXPECT_EQ(1u, fault.calls());
    }
    {
        ImportFault<decltype(&::GetTokenInformation)> fault("GetTokenInformation", FALSE, ERROR_ACCESS_DENIED);
        ExpectRefusedAndUntouched(file, TraceFileVerdict::ForeignOwner, kPrecious, __LINE__);
        EXPECT_EQ(1u, fault.calls());
    }
}

TEST_F(TraceFileCheckTest, PathNamingAFolderGivesNoHandleAndLeavesTheFolder)
{
    const std::wstring folder = dir + L"\\plain\\logs";
    ASSERT_TRUE(::CreateDirectoryW(folder.c_str(), nullptr));
    TraceFileVerdict verdict = TraceFileVerdict::Redirected; // sentinel
    EXPECT_EQ(INVALID_HANDLE_VALUE, NVTraceNS::OpenCheckedTraceFile(folder.c_str(), FILE_APPEND_DATA, false, &verdict));
    EXPECT_EQ(TraceFileVerdict::Accepted, verdict); // its folder was judged; it could not be opened as a file
    EXPECT_EQ(DWORD(FILE_ATTRIBUTE_DIRECTORY), ::GetFileAttributesW(folder.c_str()));
}

TEST_F(TraceFileCheckTest, AcceptedFileThatCannotBeHeldOrEmptiedGivesNoHandleAndKeepsItsContent)
{
    const std::wstring file = dir + L"\\plain\\host.trc3";
    WriteBytes(file, kPrecious);
    // The handle kept for writing, then the second handle that empties the file.
    for (unsigned failing : {1u, 2u}) {
        ImportFault<decltype(&::ReOpenFile)> fault("ReOpenFile", INVALID_HANDLE_VALUE, ERROR_SHARING_VIOLATION,
                                                   failing);
        TraceFileVerdict verdict = TraceFileVerdict::Redirected;
        EXPECT_EQ(INVALID_HANDLE_VALUE, NVTraceNS::OpenCheckedTraceFile(file.c_str(), FILE_APPEND_DATA, false, &verdict));
        EXPECT_EQ(TraceFileVerdict::Accepted, verdict) << "failing ReOpenFile call " << failing;
        EXPECT_EQ(failing, fault.calls());
        EXPECT_EQ(kPrecious, ReadBytes(file)) << "failing ReOpenFile call " << failing;
    }
    {
        ImportFault<decltype(&::SetEndOfFile)> fault("SetEndOfFile", FALSE, ERROR_ACCESS_DENIED);
        TraceFileVerdict verdict = TraceFileVerdict::Redirected;
        EXPECT_EQ(INVALID_HANDLE_VALUE, NVTraceNS::OpenCheckedTraceFile(file.c_str(), FILE_APPEND_DATA, false, &verdict));
        EXPECT_EQ(TraceFileVerdict::Accepted, verdict);
        EXPECT_EQ(1u, fault.calls());
        EXPECT_EQ(kPrecious, ReadBytes(file));
    }
}

TEST_F(TraceFileCheckTest, ProbeOnADriveThatDoesNotExistFindsNothingToRefuse)
{
    ASSERT_EQ(UINT(DRIVE_NO_ROOT_DIR), ::GetDriveTypeW(L"Q:\\")) << "the test needs a drive letter that is not mapped";
    EXPECT_EQ(TraceFileVerdict::Accepted, NVTraceNS::ProbeTraceFile(L"Q:\\logs\\setup\\t.trc3"));
    EXPECT_EQ(TraceFileVerdict::Accepted, NVTraceNS::ProbeTraceFile(L"Q:\\t.trc3"));
}

TEST_F(TraceFileCheckTest, NoFolderIsMadeForTracePathWhenItsSecurityCannotBeBuilt)
{
    const std::wstring logs = dir + L"\\plain\\logs";
    ImportFault<decltype(&::ConvertStringSecurityDescriptorToSecurityDescriptorW)> fault(
        "ConvertStringSecurityDescriptorToSecurityDescriptorW", FALSE, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(nullptr, NVTraceNS::NewTraceFolderSecurity());
    NVTraceNS::CreateTraceDirectories((logs + L"\\setup").c_str());
    EXPECT_EQ(2u, fault.calls());
    EXPECT_FALSE(Exists(logs));
}

TEST(TraceFileVerdictTest, OnlyTheLettersAToZInEitherCaseNameADrive)
{
    // Either side of each letter range: a digit, '[' and '`' between the ranges, '{'.
    for (const wchar_t* path : {L"1:\\t.trc3", L"@:\\t.trc3", L"[:\\t.trc3", L"`:\\t.trc3", L"{:\\t.trc3"})
        EXPECT_FALSE(NVTraceNS::IsLocalDrivePath(path)) << Narrow(path);
    for (const wchar_t* path : {L"A:\\t.trc3", L"Z:\\t.trc3", L"a:\\t.trc3", L"z:\\t.trc3"})
        EXPECT_TRUE(NVTraceNS::IsLocalDrivePath(path)) << Narrow(path);
}
