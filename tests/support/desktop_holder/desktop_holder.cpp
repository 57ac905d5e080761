// Holds a Wine prefix's desktop open for a whole test run.
//
// Wine starts the desktop process (explorer.exe /desktop) from the first process that
// opens a window - a COM apartment does - and that process hands it its standard
// error. When the last window's process ends, the desktop lingers for about a second
// before it closes, and all that time it keeps the pipe CTest reads a test's output
// from: every test that used COM took a second longer than it ran. Started by the test
// scripts before any other Wine process of the prefix, with its output going to a
// file, this program opens a window first, so the desktop is started from here, and
// keeps it until the prefix's wineserver is stopped.
//
// It writes "ready" to standard output once its window exists: until then a test could
// still be the one to start the desktop. Should the desktop end all the same, it ends
// too, saying so: a desktop that a test then starts again must not be held open by
// this program, with that test's pipe, for the rest of the run.
#include <windows.h>

#include <cstdio>

#include "common/handles.h"

namespace {

const wchar_t kClassName[] = L"NvTestDesktopHolder";

int Failed(const char* what, DWORD error)
{
    std::fprintf(stderr, "desktop holder: %s failed: %lu\n", what, error);
    return 1;
}

} // namespace

int main()
{
    WNDCLASSW windowClass = {};
    windowClass.lpfnWndProc = ::DefWindowProcW;
    windowClass.hInstance = ::GetModuleHandleW(nullptr);
    windowClass.lpszClassName = kClassName;
    if (::RegisterClassW(&windowClass) == 0)
        return Failed("RegisterClass", ::GetLastError());
    // A message-only window, as COM makes: it needs the desktop, not a display.
    const HWND window =
        ::CreateWindowExW(0, kClassName, L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, windowClass.hInstance, nullptr);
    if (window == nullptr)
        return Failed("CreateWindowEx", ::GetLastError());

    DWORD desktopProcessId = 0;
    ::GetWindowThreadProcessId(::GetDesktopWindow(), &desktopProcessId);
    if (desktopProcessId == 0 || desktopProcessId == ::GetCurrentProcessId()) {
        std::fprintf(stderr, "desktop holder: no desktop process to hold (process id %lu)\n", desktopProcessId);
        return 1;
    }
    const nv::unique_handle_null desktop(::OpenProcess(SYNCHRONIZE, FALSE, desktopProcessId));
    if (!desktop)
        return Failed("OpenProcess of the desktop", ::GetLastError());
    const HANDLE waited = desktop.get();

    std::puts("ready");
    std::fflush(stdout);
    for (;;) {
        const DWORD woken = ::MsgWaitForMultipleObjects(1, &waited, FALSE, INFINITE, QS_ALLINPUT);
        if (woken == WAIT_OBJECT_0) {
            std::fprintf(stderr, "desktop holder: the desktop process %lu ended; nothing is held now\n",
                         desktopProcessId);
            return 2;
        }
        if (woken != WAIT_OBJECT_0 + 1)
            return Failed("MsgWaitForMultipleObjects", ::GetLastError());
        MSG message;
        while (::PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            if (message.message == WM_QUIT)
                return 0;
            ::DispatchMessageW(&message);
        }
    }
}
