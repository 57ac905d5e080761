// The commands of nvdbconv. Run() executes the parsed command line and returns the
// process exit code; everything it prints goes through the console writer below.
#pragma once
#include <string>

#include "cli.h"

namespace nvdbconv {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitRefused = 3;

int Run(const Options& options);

// Whether standard output is a terminal (a console, or a character device).
bool StdoutIsTerminal();

// UTF-8 bytes to standard output or error, written as they stand and flushed.
void WriteOut(const std::string& utf8);
void WriteErr(const std::string& utf8);

} // namespace nvdbconv
