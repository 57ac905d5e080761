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
#include "exit_codes.h"

namespace nvdbconv {

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

// A user the library moved under the default policy although parts of it did not
// reach the store ("Incomplete user '<SID>' moved with gaps: <parts>" in its trace).
struct UserGap {
    std::wstring sid;
    std::string missing; // the trace's words, "secret not stored 'X' (0x80004005)"
};
struct GapReport {
    bool traced = false;      // the trace file of this library was read
    std::vector<UserGap> users; // of the last process in that file
};
GapReport ReadUserGaps(const std::wstring& dllPath);

// Prints the users moved with gaps (text rows, "gaps" JSON array, a problem line)
// and returns kExitUsersRemained when there are any, kExitOk otherwise. Without a
// trace file, under the default policy, says that gaps cannot be told.
int ReportUserGaps(Printer& out, const GapReport& gaps, DWORD total, bool strict);
// [{"sid","missing"}] of the users moved with gaps.
Json GapsJson(const GapReport& gaps);

// Before a 2.0 -> 3.0 step: with the storage server unregistered every user would
// keep the old data. Unless forced, says so (text, JSON "refused"/"reason") and
// returns true: the caller stops with kExitRefused.
bool RefuseWithoutStore(Printer& out, bool force, DWORD userKeys);

} // namespace nvdbconv
