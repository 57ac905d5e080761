// The commands of nvdbconv, one file each (status.cpp, convert.cpp, ...). Run()
// executes the parsed command line and returns the process exit code; everything the
// commands print goes through the console writer (console.h).
#pragma once
#include <string>

#include "cli.h"
#include "console.h"
#include "exit_codes.h"

namespace nvdbconv {

int Run(const Options& options);

class CLibraryHost;

int Status(Printer& out, CLibraryHost& host);
int Convert(const Options& options, Printer& out, CLibraryHost& host);
int Rollback(const Options& options, Printer& out, CLibraryHost& host);
int Cleanup(Printer& out, CLibraryHost& host);
// register and unregister: DllRegisterServer or DllUnregisterServer.
int Registration(bool doRegister, Printer& out, CLibraryHost& host);
int Trace(const Options& options, Printer& out, const std::wstring& dllPath);
int Version(Printer& out, CLibraryHost& host);
int Store(Printer& out);
int Policy(const Options& options, Printer& out);
// One Convert per child process until the newest format is reached or a step fails.
int Upgrade(const Options& options, Printer& out, const std::wstring& dllPath);
// A preflight that writes nothing: would every user convert?
int Check(Printer& out);

} // namespace nvdbconv
