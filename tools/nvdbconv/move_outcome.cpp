#include "move_outcome.h"

#include <map>

#include <nlohmann/json.hpp>

#include "legacyread.h"
#include "nvtracelib.h"
#include "result_codes.h"
#include "summary.h"

namespace nvdbconv {

namespace {

std::wstring Wide(const std::string& utf8)
{
    const int n = ::MultiByteToWideChar(CP_UTF8, 0, utf8.c_str(), static_cast<int>(utf8.size()), nullptr, 0);
    std::wstring text(static_cast<size_t>(n), L'\0');
    if (n > 0)
        ::MultiByteToWideChar(CP_UTF8, 0, utf8.c_str(), static_cast<int>(utf8.size()), &text[0], n);
    return text;
}

// The summary of the trace file the library loaded from dllPath writes in this
// process, when tracing is on and goes to a file that can be read.
std::optional<nvtrace::TraceSummary> TraceSummaryFor(const std::wstring& dllPath)
{
    const TraceSettings settings = ReadTraceSettings();
    if (!settings.keyFound || !settings.on() || !settings.toFile())
        return std::nullopt;
    const std::string path = U8(TraceFileFor(settings, dllPath));
    std::vector<std::uint8_t> data;
    std::string error;
    if (!nvtrace::ReadWholeFile(path, data, error))
        return std::nullopt;
    return nvtrace::Summarize(nvtrace::Decode(data));
}

// The last status the trace gives each SID ("Conversion process is over for").
std::map<std::wstring, DWORD> TraceStatuses(const std::wstring& dllPath)
{
    std::map<std::wstring, DWORD> statuses;
    const std::optional<nvtrace::TraceSummary> summary = TraceSummaryFor(dllPath);
    if (!summary)
        return statuses;
    for (const nvtrace::SummaryUser& u : summary->users) {
        if (u.over)
            statuses[Wide(u.sid)] = u.status;
    }
    return statuses;
}

} // namespace

std::vector<RemainingUser> ReadRemainingUsers(const std::wstring& dllPath)
{
    std::vector<RemainingUser> remaining;
    const LegacyUsers legacy = ReadLegacyUsers(false);
    if (legacy.users.empty())
        return remaining;
    const std::map<std::wstring, DWORD> statuses = TraceStatuses(dllPath);
    for (const LegacyUser& u : legacy.users) {
        RemainingUser r;
        r.key = u.key;
        r.sid = u.sid;
        const auto it = statuses.find(u.sid);
        if (!u.sid.empty() && it != statuses.end())
            r.status = it->second;
        remaining.push_back(r);
    }
    return remaining;
}

int ReportRemainingUsers(Printer& out, const std::vector<RemainingUser>& users, DWORD total)
{
    Json remaining = Json::array();
    for (const RemainingUser& u : users)
        remaining.push_back({{"key", U8(u.key)},
                             {"sid", u.sid.empty() ? Json(nullptr) : Json(U8(u.sid))},
                             {"status", u.status ? ResultJson(static_cast<HRESULT>(*u.status)) : Json(nullptr)}});
    out.json["remaining"] = remaining;
    out.json["usersRemained"] = !users.empty();
    if (users.empty())
        return kExitOk;

    out.Row("kept old data", Fmt("%zu of %s (Convert answered S_OK all the same)", users.size(),
                                 Counted(total, "user").c_str()));
    bool anyStatus = false;
    for (const RemainingUser& u : users) {
        std::string line = "    " + U8(u.key) + "  " + (u.sid.empty() ? std::string("(SID unreadable)") : U8(u.sid));
        if (u.status) {
            line += "  " + DescribeResult(static_cast<HRESULT>(*u.status));
            anyStatus = true;
        }
        out.Line(line);
    }
    if (!anyStatus)
        out.Line("    (each user's status is in the library's trace: nvdbconv trace on, then convert again)");
    out.Problem(Fmt("%zu of %s kept their old data under HKLM\\SOFTWARE\\Norvane\\DB\\Data\\Users "
                    "(exit code %d)",
                    users.size(), Counted(total, "user").c_str(), kExitUsersRemained));
    return kExitUsersRemained;
}

GapReport ReadUserGaps(const std::wstring& dllPath)
{
    GapReport report;
    const std::optional<nvtrace::TraceSummary> summary = TraceSummaryFor(dllPath);
    if (!summary)
        return report;
    report.traced = true;
    // An appended file holds earlier conversions too: only the last process is this one.
    const unsigned last = static_cast<unsigned>(summary->processes.size());
    for (const nvtrace::SummaryUser& u : summary->users) {
        if (u.process == last && u.movedWithGaps())
            report.users.push_back({Wide(u.sid), u.gaps});
    }
    return report;
}

Json GapsJson(const GapReport& gaps)
{
    Json list = Json::array();
    for (const UserGap& u : gaps.users)
        list.push_back({{"sid", U8(u.sid)}, {"missing", u.missing}});
    return list;
}

int ReportUserGaps(Printer& out, const GapReport& gaps, DWORD total, bool strict)
{
    out.json["gapsTraced"] = gaps.traced;
    out.json["gaps"] = GapsJson(gaps);
    out.json["movedWithGaps"] = !gaps.users.empty();
    if (!gaps.traced && !strict)
        out.Row("gaps", "not known: the library names them only in its trace (nvdbconv trace on)");
    if (gaps.users.empty())
        return kExitOk;

    out.Row("moved with gaps", Fmt("%zu of %s: parts of them did not reach the store (Convert answered S_OK)",
                                   gaps.users.size(), Counted(total, "user").c_str()));
    for (const UserGap& u : gaps.users)
        out.Line("    " + U8(u.sid) + "  " + u.missing);
    out.Problem(Fmt("%zu of %s moved with gaps: parts of them did not reach the store (exit code %d)",
                    gaps.users.size(), Counted(total, "user").c_str(), kExitUsersRemained));
    return kExitUsersRemained;
}

bool RefuseWithoutStore(Printer& out, bool force, DWORD userKeys)
{
    const StoreServerState store = ReadStoreServer();
    out.json["storeRegistered"] = store.registered;
    if (store.registered)
        return false;
    if (force) {
        out.Row("store server", "not registered; going on (--force): every user will keep the old data");
        return false;
    }
    const std::string explanation = Fmt(
        "refusing to convert 2.0 -> 3.0: the storage server is not registered.\n"
        "  The 2.0 -> 3.0 step moves each user into the storage server. Without it none of the\n"
        "  %s can be moved: every one would keep the old data and Convert would still answer\n"
        "  S_OK. Register the server first (regsvr32 NVStore.dll), or run again with --force.",
        Counted(userKeys, "user").c_str());
    out.Problem(explanation);
    out.json["refused"] = true;
    out.json["reason"] = explanation;
    return true;
}

} // namespace nvdbconv
