// nvdbconv: loads NVDBConv.dll the way the suite's installer does and drives it,
// for support engineers and installer authors. `nvdbconv --help` lists the
// commands; README.md shows them in use.
#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <objbase.h>
#include <cstdio>
#include <string>
#include <vector>

#include "cli.h"
#include "common/systemlibrary.h"
#include "nv_version.h"
#include "commands.h"

int wmain(int argc, wchar_t** argv)
{
    // Before anything else: later loads come from the system directory only.
    nv::RestrictDllSearchToSystemDirectory();
    // Output is UTF-8 written as it stands: LF line ends, CR for the progress line.
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
    if (nvdbconv::StdoutIsTerminal())
        ::SetConsoleOutputCP(CP_UTF8);

    std::vector<std::wstring> args(argv + 1, argv + argc);
    const nvdbconv::ParsedCommandLine parsed = nvdbconv::ParseCommandLine(args);
    if (!parsed.ok) {
        nvdbconv::WriteErr("nvdbconv: " + parsed.error + "\n" + nvdbconv::ShortUsageText());
        return nvdbconv::kExitUsage;
    }
    if (parsed.options.showVersion) {
        nvdbconv::WriteOut("nvdbconv " NV_VERSION_TEXT "\n");
        return nvdbconv::kExitOk;
    }
    if (parsed.options.command == nvdbconv::Command::Help) {
        nvdbconv::WriteOut(nvdbconv::UsageText());
        return nvdbconv::kExitOk;
    }

    // The installer's thread is a COM apartment; a 2.0 conversion creates the
    // storage server's objects on it.
    const HRESULT com = ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    const int rc = nvdbconv::Run(parsed.options);
    if (SUCCEEDED(com))
        ::CoUninitialize();
    return rc;
}
