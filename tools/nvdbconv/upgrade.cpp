// nvdbconv upgrade: brings the database to the newest format one Convert at a time,
// each in a fresh child process (nvdbconv convert --json), as an installer that
// chains 1.0 -> 2.0 -> 3.0 must: the library picks its converter when it is loaded,
// so every step needs a process of its own.
#include "command_support.h"

#include <cstdlib>
#include <cstring>

#include <nlohmann/json.hpp>

#include "move_outcome.h"
#include "policy.h"
#include "result_codes.h"
#include "tracewatch.h"

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

// The child's document, or null when it printed none that reads.
Json ChildDocument(const std::string& out)
{
    Json doc = Json::parse(out, nullptr, false);
    return doc.is_object() ? doc : Json(nullptr);
}

// The code of a call the child reports (its "convert":{"hr":"0x..."}, for one); none
// when it did not make the call.
std::optional<HRESULT> ChildResult(const Json& child, const char* key)
{
    if (!child.is_object() || !child.contains(key))
        return std::nullopt;
    return ResultFromJson(child[key]);
}

// The child that runs one step: nvdbconv convert, its document on standard output.
std::wstring ConvertCommand(const std::wstring& dllPath, bool force)
{
    return Quoted(SelfPath()) + L" --dll " + Quoted(dllPath) + L" --json" + (force ? L" --force" : L"") +
           L" convert --progress never";
}

// A finished database may still carry what an interrupted run left: "Backup" naming
// a backup key of the library. The convert child removes it as convert does (it calls
// no Convert on such a database); its rows are shown here. Returns the exit code.
int TidyFinishedInChild(Printer& out, const DatabaseState& state, const std::wstring& dllPath)
{
    const ChildRun run = RunChild(ConvertCommand(dllPath, false));
    if (!run.started) {
        out.Problem("cannot start " + U8(SelfPath()));
        return kExitFailed;
    }
    const Json child = ChildDocument(run.out);
    if (const std::optional<HRESULT> hr = ChildResult(child, "leftoverCleanup")) {
        out.Row("left over", LeftoverBackupKeyText(*state.backupValue, *hr));
        out.json["leftoverCleanup"] = child["leftoverCleanup"];
    }
    if (const std::optional<HRESULT> hr = ChildResult(child, "leftoverBackupValueRemoved")) {
        out.Row("left over", LeftoverBackupValueText(*state.backupValue, *hr));
        out.json["leftoverBackupValueRemoved"] = child["leftoverBackupValueRemoved"];
    }
    return run.exitCode == static_cast<DWORD>(kExitOk) ? kExitOk : kExitFailed;
}

// What the step was to reach: the target the child's library reported for the
// database, or the next format when it reported none. A failed step leaves the
// database where it was, so the layout afterwards cannot label it.
std::string StepTarget(const Json& child, const std::string& from)
{
    if (child.is_object() && child.contains("getDBVersion") && child["getDBVersion"].is_object()) {
        const Json& target = child["getDBVersion"].value("targetText", Json());
        if (target.is_string() && target.get<std::string>() != "0.0")
            return target.get<std::string>();
    }
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

// Keeps the steps' traces in one file. Under settings that start the trace file anew
// in every process that loads the library, each step's child would wipe the steps
// before it. So the first step starts the file, as the settings ask, and the later
// ones append to it: NewFileAlways = 0, in the view the settings were read from,
// while they run. The value is put back exactly as it was when the upgrade ends, and
// both changes are shown.
class CStepTraceAppend {
public:
    CStepTraceAppend(Printer& out, const std::wstring& dllPath) : m_out(out)
    {
        const TraceSettings settings = ReadTraceSettings();
        m_due = TruncatesOnLoad(settings, dllPath);
        if (!m_due)
            return;
        m_view = settings.keyView;
        m_file = TraceFileFor(settings, dllPath);
        m_before = ReadRawTraceValue(m_view, NVDBCONV_VALUE_NEW_FILE_ALWAYS);
    }
    // A safety net only: every way out of Upgrade calls Restore, which says so.
    ~CStepTraceAppend()
    {
        if (m_set && !m_restore)
            RestoreTraceValue(m_view, NVDBCONV_VALUE_NEW_FILE_ALWAYS, m_before);
    }
    CStepTraceAppend(const CStepTraceAppend&) = delete;
    CStepTraceAppend& operator=(const CStepTraceAppend&) = delete;

    // Before step 2 and later.
    void BeforeStep(int step)
    {
        if (!m_due || step < 2 || m_set)
            return;
        m_set = SetTraceDword(m_view, NVDBCONV_VALUE_NEW_FILE_ALWAYS, 0);
        m_out.Line("  trace: the steps after the first append to " + U8(m_file) + " (NewFileAlways = 0 for them; it was " +
                   BeforeText() + "): " + DescribeResult(*m_set));
        if (FAILED(*m_set))
            m_out.Problem("setting NewFileAlways = 0 failed: " + DescribeResult(*m_set) +
                          "; each step's trace replaces the one before");
    }

    void Restore()
    {
        if (!m_set || m_restore)
            return;
        m_restore = RestoreTraceValue(m_view, NVDBCONV_VALUE_NEW_FILE_ALWAYS, m_before);
        m_out.Row("trace", "NewFileAlways " + std::string(m_before.present ? "back to " : "removed again: ") +
                               BeforeText() + ", as before the upgrade: " + DescribeResult(*m_restore));
        if (FAILED(*m_restore))
            m_out.Problem("putting NewFileAlways back failed: " + DescribeResult(*m_restore) +
                          "; it stays 0 (append): \"nvdbconv trace on --new-file\" sets it to 1");
    }

    // {"file","before","set","restore"}; null when the steps were left alone.
    Json ToJson() const
    {
        if (!m_set)
            return nullptr;
        return Json{{"file", U8(m_file)},
                    {"before", BeforeText()},
                    {"set", ResultJson(*m_set)},
                    {"restore", m_restore ? ResultJson(*m_restore) : Json(nullptr)}};
    }

private:
    std::string BeforeText() const
    {
        if (!m_before.present)
            return "absent";
        if (m_before.type == REG_DWORD && m_before.data.size() == sizeof(DWORD)) {
            DWORD value = 0;
            std::memcpy(&value, m_before.data.data(), sizeof(value));
            return std::to_string(value);
        }
        return "not a REG_DWORD";
    }

    Printer& m_out;
    bool m_due = false;
    REGSAM m_view = 0;
    std::wstring m_file;
    RawTraceValue m_before;
    std::optional<HRESULT> m_set, m_restore;
};

} // namespace

int Upgrade(const Options& o, Printer& out, const std::wstring& dllPath)
{
    Header(out, "upgrade");
    out.Row("library", U8(dllPath));
    out.json["dll"] = U8(dllPath);
    DatabaseState state = ReadDatabaseState();
    out.json["before"] = DatabaseJson(state);
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
    CStepTraceAppend traceSteps(out, dllPath);
    Json steps = Json::array();
    out.json["steps"] = steps; // its place in the document; filled after the loop
    for (int step = 1; step <= kMaxSteps && (layout == "1.0" || layout == "2.0"); ++step) {
        const bool toStore = layout == "2.0";
        if (toStore) {
            // The refusal goes into the document's top level, after the steps.
            if (!ReadStoreServer().registered && !o.force) {
                out.json["steps"] = steps;
                RefuseWithoutStore(out, false, state.userKeys);
                out.json["chain"] = chain;
                traceSteps.Restore();
                out.json["traceAppend"] = traceSteps.ToJson();
                return Finish(out, kExitRefused);
            }
            usersTotal = state.usersKey ? state.userKeys : 0;
        }
        traceSteps.BeforeStep(step);
        const std::optional<EmptyValue> empty = FindEmptyValue();
        const ChildRun run = RunChild(ConvertCommand(dllPath, o.force));
        const Json child = ChildDocument(run.out);
        const std::optional<HRESULT> hr = ChildResult(child, "convert");
        const DatabaseState after = ReadDatabaseState();
        const std::string next = LayoutOf(after);
        const std::string target = StepTarget(child, layout);
        const bool emptyValueFailed = empty && hr && *hr == HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY);
        if (emptyValueFailed)
            failureCause = EmptyValueText(*empty);

        steps.push_back({{"step", step},
                         {"from", layout},
                         {"to", target},
                         {"reached", next},
                         {"started", run.started},
                         {"exitCode", run.exitCode},
                         {"child", child}});

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
    const bool tidied = alreadyConverted && NamesOwnBackup(state);
    if (tidied)
        exitCode = TidyFinishedInChild(out, state, dllPath);
    out.json["steps"] = steps;
    traceSteps.Restore();

    std::string summary = chain;
    if (alreadyConverted)
        summary = AlreadyConvertedText() + (tidied ? "; no step to run" : "; nothing to do");
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
    out.json["chain"] = chain;
    out.json["summary"] = summary;
    out.json["alreadyConverted"] = alreadyConverted;
    out.json["users"] = {{"total", usersTotal}, {"left", usersLeft}};
    Json stayedJson = Json::array();
    for (const RemainingUser& u : stayed)
        stayedJson.push_back({{"key", U8(u.key)}, {"sid", U8(u.sid)}});
    out.json["stayed"] = stayedJson;
    out.json["gaps"] = GapsJson(gaps);
    out.json["after"] = DatabaseJson(ReadDatabaseState());
    out.json["traceAppend"] = traceSteps.ToJson();
    if (exitCode == kExitFailed)
        out.Problem("upgrade failed: " + summary);
    else if (exitCode == kExitUsersRemained)
        out.Problem(summary + Fmt(" (exit code %d)", kExitUsersRemained));
    return Finish(out, exitCode);
}

} // namespace nvdbconv
