// nvtrace: decodes a trace file sent in by a user. See nvtracelib.h for the options.
#include <iostream>
#include <string>
#include <vector>

#include "nvtracelib.h"

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    return nvtrace::RunCli(args, std::cout, std::cerr);
}
