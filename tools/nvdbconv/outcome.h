// Honest outcomes of a 2.0 -> 3.0 step: Convert answers S_OK even when users could
// not be moved (each such user keeps its old key under Data\Users). These helpers
// name those users, with their SIDs and, when the library's trace has them, their
// final status; refuse a step that would move nobody because the storage server is
// not registered; and give the exit code that tells the two outcomes apart.
#pragma once
#include <windows.h>
#include <optional>
#include <string>
#include <vector>

#include "command_support.h"

namespace nvdbconv {

constexpr int kExitUsersRemained = 4;

struct RemainingUser {
    std::wstring key;               // "{GUID}" under Data\Users
    std::wstring sid;               // empty when the record cannot be read
    std::optional<DWORD> status;    // the trace's "Conversion process is over" status
};

// The user keys left under Data\Users, with their SIDs; statuses from the trace
// file that the library loaded from dllPath writes in this process, when tracing
// is on and the file names them.
std::vector<RemainingUser> ReadRemainingUsers(const std::wstring& dllPath);

// Prints the users who kept their old data (text rows, a "remaining" JSON array,
// a problem line) and returns kExitUsersRemained, or kExitOk when there are none.
int ReportRemainingUsers(Printer& out, const std::vector<RemainingUser>& users, DWORD total);

// Before a 2.0 -> 3.0 step: with the storage server unregistered every user would
// keep the old data. Unless forced, says so (text, JSON "refused"/"reason") and
// returns true: the caller stops with kExitRefused.
bool RefuseWithoutStore(Printer& out, bool force, DWORD userKeys);

} // namespace nvdbconv
