// nvtrace: decodes a trace file sent in by a user. See trace_cli.h for the options.
#include <iostream>
#include <string>
#include <vector>

#include "trace_cli.h"
#ifdef _WIN32
#include "common/systemlibrary.h"
#endif

int main(int argc, char** argv)
{
#ifdef _WIN32
    // Before anything else: later loads come from the system directory only.
    nv::RestrictDllSearchToSystemDirectory();
#endif
    std::vector<std::string> args(argv + 1, argv + argc);
    return nvtrace::RunCli(args, std::cout, std::cerr);
}
