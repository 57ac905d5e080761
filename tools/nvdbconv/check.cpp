// nvdbconv check: a preflight that writes nothing. It reads the database, the host
// identifier and the machine key container, and every user's record and secrets the
// way the 2.0 -> 3.0 conversion reads them (with read-only pieces: the library's
// own reader would stamp "Version" = "2.1"), and says which users would not convert.
#include "command_support.h"

#include <nlohmann/json.hpp>

#include "legacyread.h"
#include "move_outcome.h"
#include "result_codes.h"

namespace nvdbconv {

namespace {

// Why a user would not be moved, or empty when nothing stands in the way.
std::string Obstacle(const LegacyUser& u, bool storeRegistered)
{
    if (u.record == S_FALSE)
        return "its record was not read (the machine key container did not open)";
    if (FAILED(u.record))
        return "its record does not unseal or parse: " + DescribeResult(u.record);
    if (u.sid.empty())
        return "its record names no valid SID";
    unsigned bits = 0;
    for (DWORD m = u.templateMask; m; m &= m - 1)
        ++bits;
    if (bits > u.templates)
        return Fmt("its template mask 0x%08lX has %u positions but the record holds %zu templates (0x8000FFFF)",
                   static_cast<unsigned long>(u.templateMask), bits, u.templates);
    if (FAILED(u.secretsResult))
        return "a secret field does not open: " + DescribeResult(u.secretsResult);
    if (!storeRegistered)
        return "the storage server is not registered (0x80004003 for every user)";
    return std::string();
}

std::string PasswordText(const LegacyUser& u)
{
    if (!u.passwordSecret)
        return "no password secret";
    if (FAILED(u.passwordResult))
        return "password secret does not open: " + DescribeResult(u.passwordResult);
    return u.passwordEmpty ? "password secret opens, empty" : "password secret opens";
}

} // namespace

int Check(Printer& out)
{
    Header(out, "check");
    const DatabaseState db = ReadDatabaseState();
    const std::string layout = LayoutOf(db);
    out.Row("database", db.version ? "\"" + U8(*db.version) + "\"" + Fmt(" in the %s view", ViewName(db.versionView))
                                   : std::string("none"));
    out.Row("state", Verdict(db));
    out.json["database"] = DatabaseJson(db);

    const StoreServerState store = ReadStoreServer();
    // Only the next step is judged: 1.0 -> 2.0 stays in the registry and moves no
    // user, so neither the store nor the users' records stand in its way.
    const bool movesUsers = layout == "2.0";
    const LegacyUsers legacy = ReadLegacyUsers(true);
    // Any step begins with the backup, which fails on an empty value.
    const std::optional<EmptyValue> empty =
        layout == "1.0" || layout == "2.0" ? FindEmptyValue() : std::optional<EmptyValue>();
    if (empty)
        out.Row("backup", "would fail: " + EmptyValueText(*empty));
    out.json["emptyValue"] = EmptyValueJson(empty);
    // The 1.0 step rewrites every store's name index, and stops at a missing one.
    const std::optional<std::wstring> missingIndex =
        layout == "1.0" && !empty ? FindMissingNameIndex() : std::optional<std::wstring>();
    if (missingIndex)
        out.Row("name index", "missing: HKLM\\" + U8(*missingIndex));
    out.json["missingNameIndex"] = missingIndex ? Json("HKLM\\" + U8(*missingIndex)) : Json(nullptr);

    std::string host;
    if (FAILED(legacy.hostId))
        host = "no host identifier (NVHOST \"HostId\", 32-bit view): " + DescribeResult(legacy.hostId);
    else if (FAILED(legacy.acquire))
        host = U8(legacy.container) + " does not open: " + DescribeResult(legacy.acquire);
    else
        host = U8(legacy.container) + " opens";
    out.Row("key container", host);
    out.Row("store server", store.registered ? "registered: " + U8(store.path) : std::string("not registered"));
    out.json["hostContainer"] = {{"hostId", ResultJson(legacy.hostId)},
                                 {"name", U8(legacy.container)},
                                 {"acquire", ResultJson(legacy.acquire)},
                                 {"opens", SUCCEEDED(legacy.hostId) && legacy.acquire == S_OK}};
    out.json["storeServer"] = StoreServerJson(store);
    if (FAILED(legacy.enumeration)) {
        out.Row("records", "the enumeration stopped: " + DescribeResult(legacy.enumeration));
    }
    out.json["enumeration"] = ResultJson(legacy.enumeration);

    size_t failing = 0;
    out.Row("users", legacy.usersKey ? Fmt("%zu under Data\\Users", legacy.users.size()) +
                                           (movesUsers ? "" : " (the next step does not move them)")
                                     : std::string("none (no Data\\Users key)"));
    Json users = Json::array();
    for (const LegacyUser& u : legacy.users) {
        const std::string obstacle = movesUsers ? Obstacle(u, store.registered) : std::string();
        if (!obstacle.empty())
            ++failing;
        std::string line = "    " + U8(u.key) + "  " + (u.sid.empty() ? std::string("(no SID)") : U8(u.sid));
        if (SUCCEEDED(u.record) && u.record != S_FALSE)
            line += Fmt(": record ok, %s (mask 0x%08lX), %s, ", Counted(u.templates, "template").c_str(),
                        static_cast<unsigned long>(u.templateMask), Counted(u.secrets, "secret").c_str()) +
                    PasswordText(u);
        out.Line(line);
        if (!obstacle.empty())
            out.Line("      would fail: " + obstacle);

        users.push_back({{"key", U8(u.key)},
                         {"sid", u.sid.empty() ? Json(nullptr) : Json(U8(u.sid))},
                         {"record", ResultJson(u.record)},
                         {"unseals", SUCCEEDED(u.record) && u.record != S_FALSE},
                         {"templateMask", u.templateMask},
                         {"templates", u.templates},
                         {"secrets", u.secrets},
                         {"passwordSecret", u.passwordSecret},
                         {"passwordOpens", u.passwordSecret && SUCCEEDED(u.passwordResult)},
                         {"wouldConvert", obstacle.empty()},
                         {"reason", obstacle.empty() ? Json(nullptr) : Json(obstacle)}});
    }
    out.json["users"] = users;

    std::string verdict;
    if (missingIndex)
        verdict = "the 1.0 -> 2.0 step would fail: the name index HKLM\\" + U8(*missingIndex) +
                  " is missing (0x80070002); the stores before it would be rewritten already, and \"Version\""
                  " would stay 1.0 with the backup kept";
    else if (empty)
        verdict = Fmt("the %s -> %s step would fail before converting anything: ", layout.c_str(),
                      layout == "1.0" ? "2.0" : "3.0") +
                  EmptyValueText(*empty);
    else if (!movesUsers)
        verdict = layout == "1.0"   ? std::string("the 1.0 -> 2.0 step moves no user; nothing stands in its way")
                  : layout == "3.0" ? AlreadyConvertedText() + "; no user to move"
                                    : std::string("no user to move");
    else if (failing == 0)
        verdict = legacy.users.size() == 1 ? std::string("the 1 user would convert")
                                           : Fmt("all %zu users would convert", legacy.users.size());
    else
        verdict = Fmt("%zu of %s would not convert and would keep their old data", failing,
                      Counted(legacy.users.size(), "user").c_str());
    out.Row("verdict", verdict);
    out.json["wouldFail"] = failing;
    out.json["verdict"] = verdict;
    const bool fails = failing || empty || missingIndex;
    if (fails)
        out.Problem(verdict);
    return Finish(out, fails ? kExitUsersRemained : kExitOk);
}

} // namespace nvdbconv
