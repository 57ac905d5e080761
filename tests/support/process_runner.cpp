#include "support/process_runner.h"

#include <cstdio>
#include <vector>

#include "common/handles.h"

namespace nvtest {

namespace {

nv::unique_hfile CaptureFile(const wchar_t* prefix)
{
    wchar_t dir[MAX_PATH] = {}, path[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, dir);
    ::GetTempFileNameW(dir, prefix, 0, path);
    SECURITY_ATTRIBUTES sa{sizeof(sa), nullptr, TRUE};
    return nv::unique_hfile(::CreateFileW(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                          &sa, CREATE_ALWAYS, FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE,
                                          nullptr));
}

std::string ReadWhole(HANDLE file)
{
    ::SetFilePointer(file, 0, nullptr, FILE_BEGIN);
    std::string text;
    char buf[8192];
    DWORD n = 0;
    while (::ReadFile(file, buf, sizeof(buf), &n, nullptr) && n)
        text.append(buf, n);
    return text;
}

// Standard input: the bytes in a temporary file, read from its start; NUL for none.
nv::unique_hfile InputFile(const std::string* input)
{
    if (!input) {
        SECURITY_ATTRIBUTES sa{sizeof(sa), nullptr, TRUE};
        return nv::unique_hfile(::CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &sa,
                                              OPEN_EXISTING, 0, nullptr));
    }
    nv::unique_hfile file = CaptureFile(L"pri");
    DWORD written = 0;
    if (!file || !::WriteFile(file.get(), input->data(), static_cast<DWORD>(input->size()), &written, nullptr) ||
        written != input->size())
        return nv::unique_hfile();
    ::SetFilePointer(file.get(), 0, nullptr, FILE_BEGIN);
    return file;
}

ProcessRun RunProcessOnce(const std::wstring& commandLine, const std::string* input, DWORD timeoutMs)
{
    ProcessRun run;
    nv::unique_hfile out = CaptureFile(L"pro");
    nv::unique_hfile err = CaptureFile(L"pre");
    nv::unique_hfile in = InputFile(input);
    if (!out || !err || (input && !in))
        return run;
    STARTUPINFOW si{};
    si.cb = sizeof(si);
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = in ? in.get() : nullptr;
    si.hStdOutput = out.get();
    si.hStdError = err.get();
    PROCESS_INFORMATION pi{};
    std::vector<wchar_t> cmd(commandLine.begin(), commandLine.end());
    cmd.push_back(L'\0');
    if (!::CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr, &si, &pi)) {
        run.startError = ::GetLastError();
        return run;
    }
    run.started = true;
    nv::unique_handle_null process(pi.hProcess), thread(pi.hThread);
    if (::WaitForSingleObject(pi.hProcess, timeoutMs) != WAIT_OBJECT_0) {
        run.timedOut = true;
        ::TerminateProcess(pi.hProcess, 0xdead);
        ::WaitForSingleObject(pi.hProcess, 10000);
    }
    ::GetExitCodeProcess(pi.hProcess, &run.exitCode);
    run.out = ReadWhole(out.get());
    run.err = ReadWhole(err.get());
    return run;
}

} // namespace

ProcessRun RunProcess(const std::wstring& commandLine, DWORD timeoutMs)
{
    return RunProcessWithInput(commandLine, nullptr, timeoutMs);
}

ProcessRun RunProcessWithInput(const std::wstring& commandLine, const std::string& input, DWORD timeoutMs)
{
    return RunProcessWithInput(commandLine, &input, timeoutMs);
}

ProcessRun RunProcessWithInput(const std::wstring& commandLine, const std::string* input, DWORD timeoutMs)
{
    // The launch rule of scripts/wine-run, in Windows terms. Now and then under load
    // Wine fails a launch before the program runs: CreateProcessW answers
    // ERROR_INTERNAL_ERROR (twice in 16,000 starts of a fault sweep), or the loader ends
    // the child with STATUS_DLL_INIT_FAILED before it wrote a byte. Such a launch is
    // made again, up to three launches; a program that ran keeps its result.
    constexpr DWORD kDllInitFailed = 0xC0000142;
    constexpr int kLaunches = 3;
    for (int launch = 1;; ++launch) {
        ProcessRun run = RunProcessOnce(commandLine, input, timeoutMs);
        const bool neverRan = run.started ? run.exitCode == kDllInitFailed && run.out.empty() && run.err.empty()
                                          : run.startError == ERROR_INTERNAL_ERROR;
        if (!neverRan || launch == kLaunches)
            return run;
        std::fprintf(stderr, "process did not start (%s 0x%08lX); starting it again: %ls\n",
                     run.started ? "exit" : "error", static_cast<unsigned long>(run.started ? run.exitCode : run.startError),
                     commandLine.c_str());
        ::Sleep(200);
    }
}

std::wstring QuoteArg(const std::wstring& arg)
{
    if (!arg.empty() && arg.find_first_of(L" \t\"") == std::wstring::npos)
        return arg;
    std::wstring quoted = L"\"";
    size_t backslashes = 0;
    for (wchar_t c : arg) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        if (c == L'"')
            quoted.append(backslashes * 2 + 1, L'\\');
        else
            quoted.append(backslashes, L'\\');
        backslashes = 0;
        quoted += c;
    }
    quoted.append(backslashes * 2, L'\\');
    quoted += L'"';
    return quoted;
}

std::string WithoutCarriageReturns(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')
            continue;
        out += text[i];
    }
    return out;
}

} // namespace nvtest
