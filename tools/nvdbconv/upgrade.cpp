// nvdbconv upgrade: brings the database to the newest format one Convert at a time,
// each in a fresh child process (nvdbconv convert --json), as an installer that
// chains 1.0 -> 2.0 -> 3.0 must: the library picks its converter when it is loaded,
// so every step needs a process of its own.
#include "upgrade.h"

#include <cstdlib>

#include "outcome.h"
#include "policy.h"
#include "results.h"

namespace nvdbconv {

namespace {

constexpr int kMaxSteps = 4; // 1.0 -> 2.0 -> 3.0 takes two; more means no progress
constexpr DWORD kStepTimeoutMs = 30 * 60 * 1000;

struct ChildRun {
    bool started = false;
    DWORD exitCode = 0;
    std::string out;
};

std::wstring SelfPath()
{
    wchar_t path[MAX_PATH] = {};
    const DWORD n = ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    return std::wstring(path, n);
}

std::wstring Quoted(const std::wstring& arg) { return L"\"" + arg + L"\""; }

// Runs the command line with standard output into a temporary file, standard error
// passed through, and standard input empty.
ChildRun RunChild(const std::wstring& commandLine)
{
    ChildRun run;
    wchar_t dir[MAX_PATH] = {}, file[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, dir);
    if (!::GetTempFileNameW(dir, L"nvu", 0, file))
        return run;
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    HANDLE out = ::CreateFileW(file, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                               CREATE_ALWAYS, FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    if (out == INVALID_HANDLE_VALUE)
        return run;
    STARTUPINFOW si{};
    si.cb = sizeof(si);
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = nullptr;
    si.hStdOutput = out;
    si.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION pi{};
    std::wstring cmd = commandLine;
    run.started = ::CreateProcessW(nullptr, &cmd[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi) != 0;
    if (run.started) {
        if (::WaitForSingleObject(pi.hProcess, kStepTimeoutMs) != WAIT_OBJECT_0)
            ::TerminateProcess(pi.hProcess, kExitFailed);
        ::GetExitCodeProcess(pi.hProcess, &run.exitCode);
        ::CloseHandle(pi.hThread);
        ::CloseHandle(pi.hProcess);
        ::SetFilePointer(out, 0, nullptr, FILE_BEGIN);
        char buf[4096];
        DWORD n = 0;
        while (::ReadFile(out, buf, sizeof(buf), &n, nullptr) && n)
            run.out.append(buf, n);
    }
    ::CloseHandle(out);
    return run;
}

// The hex code of a result member in the child's JSON ("convert":{"hr":"0x...").
std::optional<HRESULT> ResultIn(const std::string& json, const char* member)
{
    const std::string key = std::string("\"") + member + "\":{\"hr\":\"";
    const size_t at = json.find(key);
    if (at == std::string::npos)
        return std::nullopt;
    const std::string hex = json.substr(at + key.size(), 10);
    char* end = nullptr;
    const unsigned long v = std::strtoul(hex.c_str(), &end, 16);
    if (end != hex.c_str() + hex.size())
        return std::nullopt;
    return static_cast<HRESULT>(v);
}

// A string member of the child's JSON ("targetText":"3.0"); nullopt when absent.
std::optional<std::string> TextIn(const std::string& json, const char* member)
{
    const std::string key = std::string("\"") + member + "\":\"";
    const size_t at = json.find(key);
    if (at == std::string::npos)
        return std::nullopt;
    const size_t end = json.find('"', at + key.size());
    if (end == std::string::npos)
        return std::nullopt;
    return json.substr(at + key.size(), end - at - key.size());
}

// What the step was to reach: the target the child's library reported for the
// database, or the next format when it reported none. A failed step leaves the
// database where it was, so the layout afterwards cannot label it.
std::string StepTarget(const std::string& childJson, const std::string& from)
{
    const std::optional<std::string> target = TextIn(childJson, "targetText");
    if (target && *target != "0.0")
        return *target;
    return from == "1.0" ? "2.0" : "3.0";
}

// "{GUID}  S-1-5-...  0x80040201 ..." (the status when the trace has it).
std::string UserText(const RemainingUser& u)
{
    std::string text = U8(u.key) + "  " + (u.sid.empty() ? std::string("(SID unreadable)") : U8(u.sid));
    if (u.status)
        text += "  " + DescribeResult(static_cast<HRESULT>(*u.status));
    return text;
}

std::string Trimmed(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    return text;
}

} // namespace

int Upgrade(const Options& o, Printer& out, const std::wstring& dllPath)
{
    Header(out, "upgrade");
    out.Row("library", U8(dllPath));
    out.json.Field("dll", dllPath);
    DatabaseState state = ReadDatabaseState();
    out.json.Key("before");
    JsonDatabase(out.json, state);
    std::string layout = LayoutOf(state);
    out.Row("database", Verdict(state));

    // Finished before this run: no step runs and nothing is called.
    const bool alreadyConverted = state.layout30;
    std::string chain = layout;
    std::string failureCause;
    DWORD usersTotal = 0, usersLeft = 0;
    bool movedUsers = false;
    // Of the last 2.0 -> 3.0 step: who kept the old data, who moved with gaps.
    std::vector<RemainingUser> stayed;
    GapReport gaps;
    int exitCode = kExitOk;
    out.json.Key("steps").BeginArray();
    for (int step = 1; step <= kMaxSteps && (layout == "1.0" || layout == "2.0"); ++step) {
        const bool toStore = layout == "2.0";
        if (toStore) {
            // The refusal goes into the document's top level, after the steps.
            if (!ReadStoreServer().registered && !o.force) {
                out.json.EndArray();
                RefuseWithoutStore(out, false, state.userKeys);
                out.json.Field("chain", chain);
                return Finish(out, kExitRefused);
            }
            usersTotal = state.usersKey ? state.userKeys : 0;
        }
        const std::optional<EmptyValue> empty = FindEmptyValue();
        std::wstring cmd = Quoted(SelfPath()) + L" --dll " + Quoted(dllPath) + L" --json";
        if (o.force)
            cmd += L" --force";
        cmd += L" convert --progress never";
        const ChildRun run = RunChild(cmd);
        const std::optional<HRESULT> hr = ResultIn(run.out, "convert");
        const DatabaseState after = ReadDatabaseState();
        const std::string next = LayoutOf(after);
        const std::string target = StepTarget(run.out, layout);
        const bool emptyValueFailed = empty && hr && *hr == HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY);
        if (emptyValueFailed)
            failureCause = EmptyValueText(*empty);

        out.json.BeginObject().Field("step", step).Field("from", layout).Field("to", target).Field("reached", next);
        out.json.Field("started", run.started).Field("exitCode", static_cast<long long>(run.exitCode));
        out.json.Key("child");
        const std::string doc = Trimmed(run.out);
        if (!doc.empty() && doc.front() == '{' && doc.back() == '}')
            out.json.Raw(doc);
        else
            out.json.Null();
        out.json.EndObject();

        std::string line = Fmt("step %d: %s -> %s, Convert ", step, layout.c_str(), target.c_str());
        line += hr ? DescribeResult(*hr) : std::string("not called");
        line += Fmt(", exit %lu", static_cast<unsigned long>(run.exitCode));
        out.Line("  " + line);
        if (emptyValueFailed)
            out.Line("    cause: " + failureCause);
        if (toStore) {
            movedUsers = true;
            usersLeft = after.usersKey ? after.userKeys : 0;
            out.Line(Fmt("    users: %lu of %lu moved into the store", static_cast<unsigned long>(usersTotal - std::min(usersLeft, usersTotal)),
                         static_cast<unsigned long>(usersTotal)));
            // The child's library wrote the trace: this process loads none.
            stayed = ReadRemainingUsers(dllPath);
            gaps = ReadUserGaps(dllPath);
            const std::vector<HeldUser> held = ReadHeldUsers();
            for (const RemainingUser& u : stayed) {
                std::string line = "    kept old data: " + UserText(u);
                for (const HeldUser& h : held)
                    if (h.key == u.key)
                        line += " (held: " + U8(h.reason) + ")";
                out.Line(line);
            }
            for (const UserGap& u : gaps.users)
                out.Line("    moved with gaps: " + U8(u.sid) + "  " + u.missing);
        }
        if (!run.started) {
            out.Problem("cannot start " + U8(SelfPath()));
            exitCode = kExitFailed;
            break;
        }
        if (run.exitCode != static_cast<DWORD>(kExitOk)) {
            exitCode = run.exitCode == static_cast<DWORD>(kExitUsersRemained) ? kExitUsersRemained : kExitFailed;
            if (next != layout)
                chain += " -> " + next;
            layout = next;
            state = after;
            break;
        }
        if (next == layout && after.userKeys == state.userKeys && after.mainDb == state.mainDb) {
            out.Problem("step " + std::to_string(step) + " changed nothing: stopping");
            exitCode = kExitFailed;
            break;
        }
        chain += " -> " + next;
        layout = next;
        state = after;
    }
    if (exitCode == kExitOk && layout != "3.0" && layout != "none")
        exitCode = kExitFailed;
    out.json.EndArray();

    std::string summary = chain;
    if (alreadyConverted)
        summary = AlreadyConvertedText() + "; nothing to do";
    else if (exitCode == kExitOk)
        summary += layout == "none" ? ": no database, nothing to do" : " done";
    else if (exitCode == kExitUsersRemained && !stayed.empty())
        summary += " stopped: " + Counted(stayed.size(), "user") + " kept their old data";
    else if (exitCode == kExitUsersRemained)
        summary += " done, " + Counted(gaps.users.size(), "user") + " moved with gaps";
    else
        summary += " failed" + (failureCause.empty() ? std::string() : ": " + failureCause);
    if (movedUsers)
        summary += Fmt(", %lu of %lu %s in the store",
                       static_cast<unsigned long>(usersTotal - std::min(usersLeft, usersTotal)),
                       static_cast<unsigned long>(usersTotal), Noun(usersTotal, "user").c_str());
    out.Row("upgrade", summary);
    out.json.Field("chain", chain).Field("summary", summary).Field("alreadyConverted", alreadyConverted);
    out.json.Key("users").BeginObject().Field("total", usersTotal).Field("left", usersLeft).EndObject();
    out.json.Key("stayed").BeginArray();
    for (const RemainingUser& u : stayed)
        out.json.BeginObject().Field("key", u.key).Field("sid", u.sid).EndObject();
    out.json.EndArray();
    out.json.Key("gaps").BeginArray();
    for (const UserGap& u : gaps.users)
        out.json.BeginObject().Field("sid", u.sid).Field("missing", u.missing).EndObject();
    out.json.EndArray();
    out.json.Key("after");
    JsonDatabase(out.json, ReadDatabaseState());
    if (exitCode == kExitFailed)
        out.Problem("upgrade failed: " + summary);
    else if (exitCode == kExitUsersRemained)
        out.Problem(summary + Fmt(" (exit code %d)", kExitUsersRemained));
    return Finish(out, exitCode);
}

} // namespace nvdbconv
