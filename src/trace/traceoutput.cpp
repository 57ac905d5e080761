// The output objects, the trace file's name and location, and the record scrambling.
#include "trace/traceoutput.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "common/hresult.h"
#include "common/handles.h"
#include "common/regkey.h"
#include "common/teacfb.h"
#include "trace/trace.h"
#include "trace/tracefilecheck.h"
#include "trace/tracekeys.h"

namespace NVTraceNS {

namespace {

// Append-only access (FILE_APPEND_DATA without FILE_WRITE_DATA): every write lands at
// the current end of the file, which is where a record belongs, in the one write call
// and with no separate move of the file pointer before it. So another process that
// traces into the same file cannot slip its record in between a move and a write, and
// a record costs one system call instead of three.
constexpr DWORD kAppendAccess = FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE;

} // namespace

void CNoOutput::Write(const void*, std::size_t) {}

CFileOutput::CFileOutput() noexcept
{
    nv::unique_hkey key;
    OpenTracingKey(key.put());
    if (!BuildTracePath(key.get(), m_szPath))
        return;

    DWORD newFileAlways = 1;
    const bool append = key && nv::QueryDwordValue(key.get(), NVDBCONV_VALUE_NEW_FILE_ALWAYS, &newFileAlways) == ERROR_SUCCESS &&
                        newFileAlways == 0;
    // Refused (a link, a network path, a file of someone else's): no trace output.
    m_hFile = OpenCheckedTraceFile(m_szPath, kAppendAccess, append, &m_verdict);
    if (m_hFile == INVALID_HANDLE_VALUE)
        return;

    LARGE_INTEGER size = {};
    if (::GetFileSizeEx(m_hFile, &size) && size.QuadPart > 0) {
        // Reopened for appending: the separator record with the local date.
        SYSTEMTIME now = {};
        GetTraceLocalTime(&now);
        char text[32];
        int n = std::snprintf(text, sizeof(text), "%02d-%02d-%02d", now.wMonth, now.wDay, now.wYear);
        std::uint8_t record[kRecordHeadSize + sizeof(text)];
        const DWORD thread = ::GetCurrentThreadId();
        record[0] = static_cast<std::uint8_t>(thread);
        record[1] = static_cast<std::uint8_t>(thread >> 8);
        record[2] = static_cast<std::uint8_t>(thread >> 16);
        record[3] = static_cast<std::uint8_t>(thread >> 24);
        record[4] = static_cast<std::uint8_t>(kKindReopened);
        record[5] = static_cast<std::uint8_t>(n);
        record[6] = 0;
        std::memcpy(record + kRecordHeadSize, text, static_cast<std::size_t>(n));
        Write(record, kRecordHeadSize + static_cast<std::size_t>(n));
    } else {
        WriteHeader();
    }
}

CFileOutput::~CFileOutput()
{
    if (m_hFile != INVALID_HANDLE_VALUE)
        ::CloseHandle(m_hFile);
}

void CFileOutput::Write(const void* record, std::size_t size)
{
    if (m_hFile == INVALID_HANDLE_VALUE || !record || size > 0xFFFFFFFFu)
        return;
    // The record is the caller's stack buffer; its text is scrambled where it lies.
    auto* bytes = static_cast<std::uint8_t*>(const_cast<void*>(record));
    if (size > kRecordHeadSize)
        ScrambleRecordText(bytes + kRecordHeadSize, size - kRecordHeadSize);
    // No pointer to move: the handle only appends (kAppendAccess).
    DWORD written = 0;
    ::WriteFile(m_hFile, bytes, static_cast<DWORD>(size), &written, nullptr);
}

void CFileOutput::WriteHeaderLine(const char* line) noexcept
{
    DWORD written = 0;
    ::WriteFile(m_hFile, line, static_cast<DWORD>(std::strlen(line)), &written, nullptr);
}

void CFileOutput::WriteHeader() noexcept
{
    // Out of memory while describing the machine: the records still follow.
    nv::BestEffort([&] {
        for (const std::string& line : BuildHeaderLines(GetTraceModuleHandle()))
            WriteHeaderLine(line.c_str());
    });
}

LONG OpenTracingKey(HKEY* key) noexcept
{
    *key = nullptr;
    LONG r = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kTracingKeyPath, 0, KEY_READ, key);
    if (r != ERROR_SUCCESS)
        r = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kTracingKeyPath, 0, KEY_READ | KEY_WOW64_32KEY, key);
    return r;
}

bool ReadStringSetting(HKEY key, const wchar_t* name, wchar_t (&value)[kTracePathChars]) noexcept
{
    ULONG cch = kTracePathChars;
    if (!key || nv::QueryStringValue(key, name, value, &cch) != ERROR_SUCCESS) {
        value[0] = L'\0';
        return false;
    }
    return true;
}

namespace {

struct ModulePathParts {
    wchar_t drive[_MAX_DRIVE] = {};
    wchar_t dir[_MAX_DIR] = {};
    wchar_t base[_MAX_FNAME] = {};
    wchar_t ext[_MAX_EXT] = {};
};

bool SplitModulePath(HMODULE module, ModulePathParts& parts) noexcept
{
    wchar_t path[MAX_PATH];
    DWORD n = ::GetModuleFileNameW(module, path, MAX_PATH);
    if (n == 0 || n >= MAX_PATH)
        return false;
    return ::_wsplitpath_s(path, parts.drive, _MAX_DRIVE, parts.dir, _MAX_DIR, parts.base, _MAX_FNAME, parts.ext,
                           _MAX_EXT) == 0;
}

bool Append(wchar_t* buffer, std::size_t capacity, const wchar_t* text) noexcept
{
    const std::size_t have = std::wcslen(buffer), add = std::wcslen(text);
    if (have + add + 1 > capacity)
        return false;
    std::wmemcpy(buffer + have, text, add + 1);
    return true;
}

} // namespace

bool BuildTracePath(HKEY key, wchar_t (&path)[kTracePathChars]) noexcept
{
    if (ReadStringSetting(key, NVDBCONV_VALUE_FILE_NAME, path))
        return true; // used as it stands, even when empty
    path[0] = L'\0';

    ModulePathParts exe, library;
    if (!SplitModulePath(nullptr, exe) || !SplitModulePath(GetTraceModuleHandle(), library))
        return false;

    wchar_t directory[kTracePathChars] = {};
    if (ReadStringSetting(key, NVDBCONV_VALUE_TRACE_PATH, directory)) {
        const std::size_t length = std::wcslen(directory);
        if (length > 0) {
            CreateTraceDirectories(directory);
            if (directory[length - 1] != L'\\' && !Append(directory, kTracePathChars, L"\\"))
                return false;
        }
    } else {
        // The library's own folder: a split path's drive and folder always fit together.
        static_assert(_MAX_DRIVE - 1 + _MAX_DIR <= kTracePathChars, "the library's folder fits the path buffer");
        std::wcscpy(directory, library.drive);
        std::wcscat(directory, library.dir);
    }

    wchar_t formatted[kTracePathChars];
    int n = ::_snwprintf(formatted, kTracePathChars, kTracePathPattern, directory, exe.base, library.base,
                         library.ext, kPlatformMark, static_cast<int>(SessionNumber()));
    if (n < 0 || static_cast<std::size_t>(n) >= kTracePathChars)
        return false; // a cut path would name some other file
    std::wmemcpy(path, formatted, static_cast<std::size_t>(n) + 1);
    return true;
}

void CreateTraceDirectories(const wchar_t* path) noexcept
{
    if (!path)
        return;
    const std::size_t length = std::wcslen(path);
    if (length == 0 || length >= kTracePathChars)
        return;
    // Not even a look at a share: that would reach a server with this process's
    // credentials, and the file there is refused anyway.
    if (!IsLocalTracePath(path))
        return;
    // Created folders are for administrators only, whoever may write to their parent.
    nv::unique_hlocal descriptor(NewTraceFolderSecurity());
    if (!descriptor)
        return;
    SECURITY_ATTRIBUTES security = {sizeof(security), descriptor.get(), FALSE};
    wchar_t prefix[kTracePathChars + 2];
    for (std::size_t i = 1; i <= length; ++i) {
        if (i < length && path[i] != L'\\')
            continue;
        if (path[i - 1] == L'\\')
            continue; // a doubled or trailing backslash adds no folder
        std::wmemcpy(prefix, path, i);
        prefix[i] = L'\0';
        wchar_t pattern[kTracePathChars + 2];
        std::wmemcpy(pattern, prefix, i);
        pattern[i] = L'\\';
        pattern[i + 1] = L'*';
        pattern[i + 2] = L'\0';
        WIN32_FIND_DATAW found;
        HANDLE search = ::FindFirstFileW(pattern, &found);
        if (search != INVALID_HANDLE_VALUE) {
            ::FindClose(search);
            // Nothing is created beyond a link: the file would be refused there anyway.
            const DWORD attributes = ::GetFileAttributesW(prefix);
            if (i > 2 && attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT))
                return;
            continue;
        }
        if (!::CreateDirectoryW(prefix, &security))
            return;
    }
}

DWORD SessionNumber() noexcept
{
    static std::atomic<bool> known{false};
    static std::atomic<DWORD> session{0};
    if (!known.load()) {
        DWORD value = 0;
        if (::ProcessIdToSessionId(::GetCurrentProcessId(), &value))
            session.store(value);
        known.store(true);
    }
    return session.load();
}

void ScrambleRecordText(std::uint8_t* text, std::size_t size) noexcept
{
    std::uint32_t key[4];
    TraceKey(key);
    nvcipher::CfbEncrypt(key, kTraceStartBlock, text, text, size);
    ::SecureZeroMemory(key, sizeof(key));
}

} // namespace NVTraceNS
