// nvdbconv upgrade and nvdbconv check: the commands an installer author scripts.
#pragma once
#include <string>

#include "command_support.h"

namespace nvdbconv {

// One Convert per child process until the newest format is reached or a step fails.
int Upgrade(const Options& options, Printer& out, const std::wstring& dllPath);

// A preflight that writes nothing: would every user convert?
int Check(Printer& out);

} // namespace nvdbconv
