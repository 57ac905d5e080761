// Holds a Wine prefix's desktop open for a whole test run.
//
// Wine starts the desktop process (explorer.exe /desktop) from the first process that
// opens a window - a COM apartment does - and that process hands it its standard
// handles. When the last window's process ends, the desktop lingers for about a second
// before it closes, and all that time it keeps the pipes CTest reads a test's output
// from: every test that used COM took a second longer than it ran. Started by the test
// scripts with its output going to a file, this program opens a window first, so the
// desktop is started from here, and keeps it until the prefix's wineserver is stopped.
//
// It writes "ready" to standard output once its window exists: until then a test
// could still be the one to start the desktop.
#include <windows.h>

#include <cstdio>

namespace {

const wchar_t kClassName[] = L"NvTestDesktopHolder";

} // namespace

int main()
{
    WNDCLASSW windowClass = {};
    windowClass.lpfnWndProc = ::DefWindowProcW;
    windowClass.hInstance = ::GetModuleHandleW(nullptr);
    windowClass.lpszClassName = kClassName;
    if (::RegisterClassW(&windowClass) == 0) {
        std::fprintf(stderr, "desktop holder: RegisterClass failed: %lu\n", ::GetLastError());
        return 1;
    }
    // A message-only window, as COM makes: it needs the desktop, not a display.
    const HWND window =
        ::CreateWindowExW(0, kClassName, L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, windowClass.hInstance, nullptr);
    if (window == nullptr) {
        std::fprintf(stderr, "desktop holder: CreateWindowEx failed: %lu\n", ::GetLastError());
        return 1;
    }
    std::puts("ready");
    std::fflush(stdout);
    MSG message;
    while (::GetMessageW(&message, nullptr, 0, 0) > 0)
        ::DispatchMessageW(&message);
    return 0;
}
