#include "storesummary.h"

#include "nvstore_inspect.h"

namespace nvdbconv {

size_t StoreSummary::secrets() const
{
    size_t n = 0;
    for (const auto& u : users)
        n += u.secrets.size();
    return n;
}

size_t StoreSummary::secretsOpen() const
{
    size_t n = 0;
    for (const auto& u : users)
        n += u.secretsOpen;
    return n;
}

size_t StoreSummary::templates() const
{
    size_t n = 0;
    for (const auto& u : users)
        n += u.templates.size();
    return n;
}

StoreSummary ReadStoreSummary()
{
    namespace inspect = nvstore::inspect;
    StoreSummary summary;
    summary.registered = inspect::ListRegistered().size();
    for (const std::wstring& sid : inspect::ListUsers()) {
        StoreUserSummary user;
        user.sid = sid;
        for (auto& [name, stored] : inspect::ListSecrets(sid)) {
            user.secrets.push_back(name);
            inspect::Bytes plain;
            if (SUCCEEDED(inspect::OpenStoredSecret(sid, name, &plain)))
                ++user.secretsOpen;
            if (!plain.empty())
                ::SecureZeroMemory(plain.data(), plain.size());
        }
        for (const auto& entry : inspect::ListTemplates(sid))
            user.templates.push_back(entry.first);
        inspect::Bytes payload;
        user.payload = inspect::GetPayload(sid, &payload) && !payload.empty();
        if (!payload.empty())
            ::SecureZeroMemory(payload.data(), payload.size());
        user.keyPair = !inspect::KeyContainerName(sid).empty();
        user.password = inspect::HasPassword(sid);
        user.registered = inspect::IsRegistered(sid);
        summary.users.push_back(std::move(user));
    }
    return summary;
}

} // namespace nvdbconv
