// nvdbconv convert: one Convert of the library, with the progress of a 2.0 -> 3.0
// step and an honest account of the users it did not move.
#include "command_support.h"

#include <chrono>

#include <nlohmann/json.hpp>

#include "move_outcome.h"
#include "progress.h"
#include "result_codes.h"

namespace nvdbconv {

// A finished database may still carry what an interrupted run left: a backup key with
// "Backup" naming it (the run stopped inside Cleanup), or "Backup" naming a key that is
// gone (it stopped between deleting the key and the value). Cleanup removes the first;
// the second only the value, since Cleanup fails on the missing key and nothing can be
// restored from it. A foreign "Backup", or a key only in the other view (a 1.0 backup,
// which "status" explains), is left alone. Returns the exit code.
int TidyFinishedDatabase(Printer& out, const DatabaseState& before, const Loaded& l, CLibraryHost& host)
{
    if (!NamesOwnBackup(before))
        return kExitOk;
    const wchar_t* path = before.backupValue->c_str();
    const REGSAM view = BackupViewFor(l.current);
    const REGSAM other = view == kBackup10View ? kBackup20View : kBackup10View;
    if (KeyExists(path, view)) {
        const HRESULT hr = host.Cleanup();
        out.Row("left over", LeftoverBackupKeyText(*before.backupValue, hr));
        out.json["leftoverCleanup"] = ResultJson(hr, "Cleanup");
        if (FAILED(hr))
            out.Problem("Cleanup of the left-over backup failed: " + DescribeResult(hr));
        return SUCCEEDED(hr) ? kExitOk : kExitFailed;
    }
    if (KeyExists(path, other))
        return kExitOk;
    HKEY db = nullptr;
    LSTATUS r = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kDatabasePath, 0, KEY_SET_VALUE | kDatabaseView, &db);
    if (r == ERROR_SUCCESS) {
        r = ::RegDeleteValueW(db, kBackupValueName);
        ::RegCloseKey(db);
    }
    const HRESULT hr = HRESULT_FROM_WIN32(r);
    out.Row("left over", LeftoverBackupValueText(*before.backupValue, hr));
    out.json["leftoverBackupValueRemoved"] = ResultJson(hr);
    if (FAILED(hr))
        out.Problem("removing \"Backup\" failed: " + DescribeResult(hr));
    return SUCCEEDED(hr) ? kExitOk : kExitFailed;
}

int Convert(const Options& o, Printer& out, CLibraryHost& host)
{
    Header(out, "convert");
    const DatabaseState before = ReadDatabaseState();
    const Loaded l = LoadAndAsk(host, out);
    out.json["before"] = DatabaseJson(before);
    if (FAILED(l.load))
        return Finish(out, kExitFailed);

    // The library still offers 2.x -> 3.0 for a finished database ("Version" stays
    // 2.x); Convert would back it up and then fail on the missing Data\Users.
    out.json["alreadyConverted"] = before.layout30;
    if (before.layout30) {
        out.Row("state", AlreadyConvertedText() + "; Convert not called");
        return Finish(out, TidyFinishedDatabase(out, before, l, host));
    }
    // A 2.x database without Data\Users: every user was moved and a clean-up that was
    // cut short took Data\Users with it. Convert would back it up and fail on the
    // missing key; the library's Cleanup deletes the rest only while Data\Users opens.
    if (LayoutOf(before) == "2.0" && !before.usersKey && (l.current >> 16) == 2 && l.target != 0) {
        out.json["usersMoved"] = true;
        out.Row("state", "no Data\\Users: every user was moved, the rest of the old database is what an "
                         "interrupted clean-up left; Convert not called");
        return Finish(out, TidyFinishedDatabase(out, before, l, host));
    }

    // A 2.0 conversion moves users out of Data\Users one by one: show how far it is.
    const bool movesUsers = (l.current >> 16) == 2 && l.target != 0;
    if (movesUsers)
        out.Row("users", before.usersKey ? Counted(before.userKeys, "user key") +
                                               " under Data\\Users to move into the store"
                                         : std::string("none (no Data\\Users key)"));
    if (movesUsers && RefuseWithoutStore(out, o.force, before.userKeys))
        return Finish(out, kExitRefused);
    bool draw = false;
    if (!o.quiet) {
        if (o.progress == ProgressMode::Always)
            draw = true;
        else if (o.progress == ProgressMode::Auto)
            draw = !o.json && StdoutIsTerminal();
    }
    // With --json the progress line goes to standard error, so the document stays whole.
    auto emit = o.json ? WriteErr : WriteOut;
    CProgressPoller poller(
        [](DWORD* left) { return CountUserKeys(left); },
        [&](const ProgressSample& sample) {
            if (draw)
                emit("\r  " + FormatProgress(sample) + (sample.final ? "\n" : ""));
        },
        std::chrono::milliseconds(200));
    if (movesUsers)
        poller.Start();

    const std::optional<EmptyValue> empty = FindEmptyValue();
    const HRESULT hr = host.Convert();
    ProgressSample progress;
    if (movesUsers)
        progress = poller.Stop();

    out.Row("Convert", DescribeResult(hr));
    out.json["convert"] = ResultJson(hr);
    // The backup's refusal of an empty value reads as "not enough memory": name it.
    const bool emptyValueFailed = empty && hr == HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY);
    if (emptyValueFailed)
        out.Row("cause", EmptyValueText(*empty));
    out.json["emptyValue"] = EmptyValueJson(empty);

    const DatabaseState after = ReadDatabaseState();
    if (movesUsers) {
        out.Row("users", Fmt("%lu of %lu moved in %.1f s (%.1f users/s), %s",
                             static_cast<unsigned long>(progress.converted()),
                             static_cast<unsigned long>(progress.total), progress.seconds, progress.rate(),
                             after.usersKey ? Fmt("%lu left under Data\\Users",
                                                  static_cast<unsigned long>(after.userKeys)).c_str()
                                            : "Data\\Users removed"));
        out.json["users"] = {{"total", progress.total},
                             {"converted", progress.converted()},
                             {"left", progress.left},
                             {"seconds", Rounded(progress.seconds, 3)},
                             {"rate", Rounded(progress.rate(), 1)},
                             {"samples", poller.samples()}};
    }
    out.Row("now", Verdict(after));
    out.Row("backup", BackupText(after));
    out.json["after"] = DatabaseJson(after);
    if (FAILED(hr)) {
        out.Problem("Convert failed: " + DescribeResult(hr) + (emptyValueFailed ? ": " + EmptyValueText(*empty) : ""));
        // What the library's own rollback left: the backup, or a part of one.
        const bool stepRan = !ConvertMadeNoBackup(hr);
        std::string advice = stepRan ? NotRestoredAdvice(after, l.current, true) : std::string();
        if (stepRan && advice.empty())
            advice = UnnamedBackupAdvice(after);
        if (!advice.empty()) {
            out.Warning(advice);
            out.json["backupAdvice"] = advice;
        }
        return Finish(out, kExitFailed);
    }
    // S_OK does not mean that every user moved, nor that all of a moved user reached
    // the store: name those who kept their old data, and those moved with gaps.
    int exitCode = kExitOk;
    if (movesUsers) {
        exitCode = ReportRemainingUsers(out, ReadRemainingUsers(host.path()), progress.total);
        if (ReportUserGaps(out, ReadUserGaps(host.path()), progress.total, ReadPolicyState().strict()) != kExitOk)
            exitCode = kExitUsersRemained;
    }
    return Finish(out, exitCode);
}

} // namespace nvdbconv
