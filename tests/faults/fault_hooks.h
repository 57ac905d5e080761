// Counting and failing hooks in a loaded module's import address table.
//
// Install() checks every import of the module against the catalog (an import of a
// covered family that the catalog does not list is an error), and points each
// import the catalog fails at a small generated thunk. While the hooks are armed,
// every call through such a thunk is numbered from 1; depending on the mode the
// call is passed on, failed with the catalog's result and last error, or the
// process is ended with TerminateProcess from inside the hook. Calls made while
// the hooks are disarmed (loading, unloading) are passed on and not counted.
//
// The thunks carry unwind data, so the stack of a failing call can be walked into
// the module; the module-relative return addresses are recorded for the report.
#pragma once
#include <windows.h>
#include <cstdint>
#include <string>
#include <vector>

namespace nvfaults {

enum class Mode {
    Count,   // pass every call, record each
    Once,    // fail call N only
    From,    // fail call N and every later call that is not an allocation: the registry,
             // crypto and COM stay broken while memory works (a locked hive, a broken
             // provider)
    OomFrom, // fail call N and every later allocation; the other calls work
    Kill,    // end the process at call N
};

const char* ModeName(Mode mode);
bool ParseMode(const std::string& text, Mode* mode);

// Exit code of a process that the kill mode ended.
constexpr UINT kKilledExitCode = 0x4B494C4C;

struct CallRecord {
    std::uint64_t number = 0;
    std::string function; // "dll!name", or "store!Interface::Method" at the store boundary
    bool allocation = false; // an allocation (the "oom-from" mode fails these from N on)
    std::vector<std::uint32_t> frames; // module-relative return addresses, innermost first
};

struct HookSettings {
    Mode mode = Mode::Count;
    std::uint64_t n = 0;
    // Where the kill mode writes its record before it ends the process.
    std::wstring killRecordPath;
    // What a failed call at the store boundary returns (store_boundary.h).
    HRESULT storeError = E_FAIL;
};

// Installs the hooks in the module's import table. False, with the reason, when
// an import of a covered family is not classified or a slot cannot be patched.
// The catalog's functions of libraries the module does not import get hooks too:
// the module's GetProcAddress is patched to hand out those hooks instead of the
// functions, so calls it makes through addresses it looked up are covered as well.
bool Install(HMODULE module, const HookSettings& settings, std::string* error);

// The one decision for a numbered call, for the import thunks and for any other call
// site the harness counts (the store boundary): true when the call is to fail. In the
// kill mode, the process ends here at call N. returnAddress is the caller's, in the
// module; it starts the call chain recorded for the report.
bool DecideCall(const std::string& function, bool allocation, ULONG_PTR returnAddress);
void Arm();
void Disarm();
bool Armed();
// The settings Install was given.
const HookSettings& Settings();

std::uint64_t CallCount();
std::uint64_t FailedCount();
// Every counted call (count mode), or every failed call, in order (failing modes).
const std::vector<CallRecord>& Records();

// One line of the report file: "call <n> <function> alloc|api <rva>,<rva>,...".
std::string FormatRecord(const CallRecord& r);
bool ParseRecord(const std::string& line, CallRecord* r);

// Functions of covered families that the module looked up with GetProcAddress and
// the catalog does not classify, as "dll!name": like such an import, they stop the
// sweep.
std::vector<std::string> UnclassifiedRunTimeImports();

// The imports the catalog fails, as "dll!name" (for the report).
std::vector<std::string> HookedImports();

} // namespace nvfaults
