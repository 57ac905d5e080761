// What a test under Wine can ask of the Unix side when Windows code cannot make it:
// a symbolic link (Wine shows a link to a folder as a folder with
// FILE_ATTRIBUTE_REPARSE_POINT, and the final path of a file opened through any
// link is the link's target), a hard link, a file of another owner (Wine reports a
// file whose Unix owner is not the wineserver's user as owned by S-1-5-7), or a
// folder behind a UNC name (\\server\share is $WINEPREFIX/dosdevices/unc/server/share).
//
// The Unix path of a Windows path comes from kernel32's wine_get_unix_file_name,
// and commands run through ntdll's __wine_unix_spawnvp, which waits for them. Both
// exist only under Wine: elsewhere UnderWine() is false and the helpers fail.
//
//     const std::string target = UnixPathOf(dir + L"\\target");
//     ASSERT_TRUE(RunUnix({"ln", "-s", target, UnixPathOf(dir) + "/link"}));
#pragma once
#include <windows.h>
#include <string>
#include <vector>

namespace nvtest {

bool UnderWine();

// The Unix path of an existing Windows path (its folder must exist), or "" when
// there is none.
std::string UnixPathOf(const std::wstring& windowsPath);

// Runs a Unix program (searched in PATH) with these arguments and waits for it;
// true when it ran and exited with status 0.
bool RunUnix(const std::vector<std::string>& argv);

// A symbolic link at `link` (a Windows path in an existing folder) to `target` (a
// Windows path, which need not exist).
bool MakeUnixSymlink(const std::wstring& target, const std::wstring& link);

} // namespace nvtest
