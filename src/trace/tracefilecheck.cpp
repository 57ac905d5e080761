// The trace file's safety checks: open without truncating or following a final
// link, ask the system what was opened, decide, and only then empty the file.
#include "trace/tracefilecheck.h"

#include <sddl.h>

#include <cwchar>
#include <string_view>

#include "common/hresult.h"
#include "common/handles.h"

namespace NVTraceNS {

namespace {

constexpr const wchar_t kLongPathPrefix[] = L"\\\\?\\";
constexpr const wchar_t kUncPrefix[] = L"UNC\\";
constexpr const wchar_t kSystemSid[] = L"S-1-5-18";
constexpr const wchar_t kAdministratorsSid[] = L"S-1-5-32-544";
// System and Administrators full access, inherited by files and folders below;
// protected, so nothing is inherited from a parent users may write to.
constexpr const wchar_t kTraceFolderSddl[] = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";

// Sharing as the trace file has always been opened: other tracing processes may
// append to it and anyone allowed may read it meanwhile.
constexpr DWORD kTraceFileShare = FILE_SHARE_READ | FILE_SHARE_WRITE;
// The open that may create the file also lets it be deleted while it is checked, so
// that a file it created and then refused can be removed through a second handle on
// it (holding DELETE itself would lock out every opener that does not share
// deletion). An accepted file is then held through a handle shared as always.
constexpr DWORD kCreatingShare = kTraceFileShare | FILE_SHARE_DELETE;

constexpr DWORD kPathBufferChars = MAX_PATH * 2;

std::wstring WithoutLongPathPrefix(const std::wstring& path)
{
    const std::size_t n = std::wcslen(kLongPathPrefix);
    if (path.compare(0, n, kLongPathPrefix) != 0)
        return path;
    return path.substr(n);
}

bool SameText(std::wstring_view a, std::wstring_view b) noexcept
{
    return ::CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
           CSTR_EQUAL;
}

// The path a query wrote into its buffer of kPathBufferChars: n characters, or none
// when it failed (0) or asked for a larger buffer (n at least the buffer's size).
std::wstring PathAnswer(const wchar_t* buffer, DWORD n)
{
    if (n == 0 || n >= kPathBufferChars)
        return std::wstring();
    return std::wstring(buffer, n);
}

std::wstring FullPathOf(const wchar_t* path)
{
    wchar_t buffer[kPathBufferChars];
    return PathAnswer(buffer, ::GetFullPathNameW(path, kPathBufferChars, buffer, nullptr));
}

// The long form (no 8.3 names) of an existing path, or the path as given.
std::wstring LongPathOf(const std::wstring& path)
{
    wchar_t buffer[kPathBufferChars];
    std::wstring longPath = PathAnswer(buffer, ::GetLongPathNameW(path.c_str(), buffer, kPathBufferChars));
    if (longPath.empty())
        return path;
    return longPath;
}

std::wstring FinalPathOf(HANDLE handle)
{
    wchar_t buffer[kPathBufferChars];
    return PathAnswer(buffer, ::GetFinalPathNameByHandleW(handle, buffer, kPathBufferChars,
                                                          FILE_NAME_NORMALIZED | VOLUME_NAME_DOS));
}

std::wstring SidText(PSID sid)
{
    wchar_t* text = nullptr;
    if (!sid || !::ConvertSidToStringSidW(sid, &text))
        return std::wstring();
    nv::unique_hlocal owner(text);
    return text;
}

// Read straight from the handle: the file is often first opened while the library
// loads, and this needs no helper library loaded behind the loader lock.
std::wstring OwnerOf(HANDLE handle)
{
    union {
        SECURITY_DESCRIPTOR_RELATIVE descriptor;
        BYTE bytes[sizeof(SECURITY_DESCRIPTOR_RELATIVE) + SECURITY_MAX_SID_SIZE];
    } buffer;
    DWORD needed = 0;
    PSID owner = nullptr;
    BOOL defaulted = FALSE;
    if (!::GetKernelObjectSecurity(handle, OWNER_SECURITY_INFORMATION, &buffer, sizeof(buffer), &needed) ||
        !::GetSecurityDescriptorOwner(&buffer, &owner, &defaulted))
        return std::wstring();
    return SidText(owner);
}

std::wstring ProcessUser()
{
    nv::unique_handle_null token;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.put()))
        return std::wstring();
    union {
        TOKEN_USER user;
        BYTE bytes[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    } info;
    DWORD size = 0;
    if (!::GetTokenInformation(token.get(), TokenUser, &info, sizeof(info), &size))
        return std::wstring();
    return SidText(info.user.User.Sid);
}

TraceFileFacts FactsOf(HANDLE handle, const std::wstring& fullPath, bool existed)
{
    TraceFileFacts facts;
    facts.requested = LongPathOf(fullPath);
    facts.finalPath = FinalPathOf(handle);
    BY_HANDLE_FILE_INFORMATION info = {};
    if (::GetFileInformationByHandle(handle, &info)) {
        facts.attributes = info.dwFileAttributes;
        facts.links = info.nNumberOfLinks;
    } else {
        facts.attributes = INVALID_FILE_ATTRIBUTES; // judged as a reparse point: refused
    }
    facts.existed = existed;
    if (existed) {
        facts.owner = OwnerOf(handle);
        facts.processUser = ProcessUser();
    }
    return facts;
}

// A folder, judged like a file without an owner; false when it cannot be opened.
bool JudgeFolder(const std::wstring& folder, TraceFileVerdict* verdict)
{
    nv::unique_hfile handle(::CreateFileW(folder.c_str(), FILE_READ_ATTRIBUTES, kTraceFileShare | FILE_SHARE_DELETE,
                                          nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!handle)
        return false;
    TraceFileFacts facts = FactsOf(handle.get(), folder, false);
    facts.links = 1; // a folder's link count counts its subfolders
    *verdict = JudgeTraceFile(facts);
    return true;
}

// The folder part of a local drive path, "X:\..." or "\\?\X:\..." (IsOnALocalDrive
// accepted it, so it has a backslash after the drive), down to "X:\" for a file in a
// drive's root.
std::wstring FolderOf(const std::wstring& fullPath)
{
    std::wstring folder = fullPath.substr(0, fullPath.find_last_of(L'\\'));
    if (folder.back() == L':')
        folder += L'\\'; // a drive's root ("C:" alone would be its current folder)
    return folder;
}

// The folder the file is to be created in, judged before anything is created in
// it, so that a link planted on the way does not even get an empty file made where
// it points.
bool FolderAccepted(const std::wstring& fullPath, TraceFileVerdict* verdict)
{
    // A folder that cannot be opened fails the file's creation as well.
    return JudgeFolder(FolderOf(fullPath), verdict) && *verdict == TraceFileVerdict::Accepted;
}

// Empties an accepted file through a second handle on the same open file (the
// append-only handle cannot set the end of file), never through its path again.
bool Truncate(HANDLE handle) noexcept
{
    nv::unique_hfile writer(::ReOpenFile(handle, FILE_WRITE_DATA | SYNCHRONIZE, kTraceFileShare, 0));
    return writer && ::SetEndOfFile(writer.get());
}

// Removes a file this process created and then refused, through the file opened and
// not its path: the path is where a link led somewhere else.
void DeleteCreated(HANDLE handle) noexcept
{
    nv::unique_hfile deleter(::ReOpenFile(handle, DELETE, kCreatingShare, 0));
    FILE_DISPOSITION_INFO disposition = {TRUE};
    if (deleter)
        ::SetFileInformationByHandle(deleter.get(), FileDispositionInfo, &disposition, sizeof(disposition));
}

} // namespace

bool IsLocalDrivePath(const std::wstring& fullPath) noexcept
{
    const std::wstring path = WithoutLongPathPrefix(fullPath);
    if (path.size() < 3 || path[1] != L':' || path[2] != L'\\')
        return false;
    const wchar_t drive = path[0];
    return (drive >= L'A' && drive <= L'Z') || (drive >= L'a' && drive <= L'z');
}

UINT(WINAPI* g_pfnDriveTypeForTests)(LPCWSTR root) = nullptr;

namespace {

// A drive letter mapped to a share looks local by its text alone; the system says
// where it leads.
bool IsOnALocalDrive(const std::wstring& fullPath)
{
    if (!IsLocalDrivePath(fullPath))
        return false;
    const wchar_t root[] = {WithoutLongPathPrefix(fullPath)[0], L':', L'\\', L'\0'};
    const UINT type = g_pfnDriveTypeForTests ? g_pfnDriveTypeForTests(root) : ::GetDriveTypeW(root);
    return type != DRIVE_REMOTE;
}

} // namespace

bool IsLocalTracePath(const wchar_t* path) noexcept
{
    return nv::BestEffort([&] { return path && IsOnALocalDrive(FullPathOf(path)); }, false);
}

TraceFileVerdict JudgeTraceFile(const TraceFileFacts& facts)
{
    if (!IsLocalDrivePath(facts.requested))
        return TraceFileVerdict::NotALocalPath;
    const std::wstring opened = WithoutLongPathPrefix(facts.finalPath);
    if (opened.compare(0, std::wcslen(kUncPrefix), kUncPrefix) == 0 || !IsLocalDrivePath(opened))
        return TraceFileVerdict::NotALocalPath; // a drive letter mapped to a share, or no answer
    if (facts.attributes & FILE_ATTRIBUTE_REPARSE_POINT)
        return TraceFileVerdict::ReparsePoint;
    if (!SameText(WithoutLongPathPrefix(facts.requested), opened))
        return TraceFileVerdict::Redirected;
    if (facts.links > 1)
        return TraceFileVerdict::HardLinked;
    if (facts.existed && !SameText(facts.owner, kSystemSid) && !SameText(facts.owner, kAdministratorsSid) &&
        (facts.processUser.empty() || !SameText(facts.owner, facts.processUser)))
        return TraceFileVerdict::ForeignOwner;
    return TraceFileVerdict::Accepted;
}

HANDLE OpenCheckedTraceFile(const wchar_t* path, DWORD access, bool append, TraceFileVerdict* verdict) noexcept
{
    TraceFileVerdict ignored = TraceFileVerdict::Accepted;
    if (!verdict)
        verdict = &ignored;
    // Out of memory: no trace output.
    return nv::BestEffort(
        [&]() -> HANDLE {
            const std::wstring full = FullPathOf(path);
            if (full.empty())
                return INVALID_HANDLE_VALUE;
            if (!IsOnALocalDrive(full)) {
                *verdict = TraceFileVerdict::NotALocalPath; // never opened: no share is contacted
                return INVALID_HANDLE_VALUE;
            }
            if (!FolderAccepted(full, verdict))
                return INVALID_HANDLE_VALUE;
            // Never "create always": that would truncate whatever a planted link points
            // at before anything could be checked. A link in the last part is opened
            // itself, not followed, so it shows as a reparse point.
            nv::unique_hfile file(::CreateFileW(full.c_str(), access | READ_CONTROL, kCreatingShare, nullptr,
                                                OPEN_ALWAYS,
                                                FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN |
                                                    FILE_FLAG_OPEN_REPARSE_POINT,
                                                nullptr));
            if (!file)
                return INVALID_HANDLE_VALUE;
            const bool existed = ::GetLastError() == ERROR_ALREADY_EXISTS;
            *verdict = JudgeTraceFile(FactsOf(file.get(), full, existed));
            if (*verdict != TraceFileVerdict::Accepted) {
                if (!existed)
                    DeleteCreated(file.get());
                return INVALID_HANDLE_VALUE;
            }
            nv::unique_hfile kept(::ReOpenFile(file.get(), access, kTraceFileShare, FILE_FLAG_SEQUENTIAL_SCAN));
            if (!kept || (existed && !append && !Truncate(kept.get())))
                return INVALID_HANDLE_VALUE;
            return kept.release();
        },
        INVALID_HANDLE_VALUE);
}

TraceFileVerdict ProbeTraceFile(const wchar_t* path) noexcept
{
    return nv::BestEffort(
        [&]() -> TraceFileVerdict {
            const std::wstring full = FullPathOf(path);
            if (full.empty())
                return TraceFileVerdict::Accepted;
            if (!IsOnALocalDrive(full))
                return TraceFileVerdict::NotALocalPath;
            nv::unique_hfile file(::CreateFileW(full.c_str(), FILE_READ_ATTRIBUTES | READ_CONTROL,
                                                kTraceFileShare | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                                FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
            if (file)
                return JudgeTraceFile(FactsOf(file.get(), full, true));
            // Missing: the nearest folder on the path that exists is where a link would be.
            TraceFileVerdict verdict = TraceFileVerdict::Accepted;
            // Each step is shorter, down to the drive's root, the one that ends in a backslash.
            for (std::wstring folder = FolderOf(full);; folder = FolderOf(folder)) {
                if (JudgeFolder(folder, &verdict))
                    return verdict;
                if (folder.back() == L'\\')
                    return TraceFileVerdict::Accepted; // the drive's root
            }
        },
        TraceFileVerdict::Accepted);
}

PSECURITY_DESCRIPTOR NewTraceFolderSecurity() noexcept
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(kTraceFolderSddl, SDDL_REVISION_1, &descriptor,
                                                                nullptr))
        return nullptr;
    return descriptor;
}

} // namespace NVTraceNS
