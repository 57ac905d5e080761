// nvdbconv store: what the storage server holds, user by user.
#include "command_support.h"

#include <nlohmann/json.hpp>

#include "storesummary.h"

namespace nvdbconv {

int Store(Printer& out)
{
    Header(out, "store");
    const StoreServerState server = ReadStoreServer();
    out.Row("server", StoreServerText(server));
    out.json["server"] = StoreServerJson(server);

    const StoreSummary s = ReadStoreSummary();
    out.Row("users", Fmt("%zu in HKLM\\SOFTWARE\\Norvane\\Store (64-bit view), %zu registered", s.users.size(),
                         s.registered));
    Json users = Json::array();
    for (const StoreUserSummary& u : s.users) {
        std::string positions;
        for (DWORD p : u.templates)
            positions += (positions.empty() ? "" : ",") + std::to_string(p);
        std::string names;
        for (const std::wstring& n : u.secrets)
            names += (names.empty() ? "" : ", ") + U8(n);
        out.Line(Fmt("    %-44s secrets %zu (%zu open with the user's key)%s%s, templates %zu%s%s, payload %s, %s",
                     U8(u.sid).c_str(), u.secrets.size(), u.secretsOpen, names.empty() ? "" : ": ", names.c_str(),
                     u.templates.size(), positions.empty() ? "" : " at ", positions.c_str(),
                     u.payload ? "yes" : "no", u.registered ? "registered" : "not registered"));
        Json secrets = Json::array();
        for (const std::wstring& n : u.secrets)
            secrets.push_back(U8(n));
        users.push_back({{"sid", U8(u.sid)},
                         {"secrets", secrets},
                         {"secretsOpen", u.secretsOpen},
                         {"templates", u.templates},
                         {"payload", u.payload},
                         {"keyPair", u.keyPair},
                         {"password", u.password},
                         {"registered", u.registered}});
    }
    out.json["users"] = users;
    out.Row("total", Fmt("%s, %s (%zu open with their user's key), %s", Counted(s.users.size(), "user").c_str(),
                         Counted(s.secrets(), "secret").c_str(), s.secretsOpen(),
                         Counted(s.templates(), "template").c_str()));
    out.json["totals"] = {{"users", s.users.size()},
                          {"registered", s.registered},
                          {"secrets", s.secrets()},
                          {"secretsOpen", s.secretsOpen()},
                          {"templates", s.templates()}};
    return Finish(out, kExitOk);
}

} // namespace nvdbconv
