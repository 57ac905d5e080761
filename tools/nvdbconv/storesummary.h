// What the reference store holds after a conversion, read with the store's
// inspection library (its registry layout and key containers, not COM): per user
// the secrets (and whether each opens with the user's private key, which shows it
// was re-sealed for that user), the template positions, the payload, the key pair
// and the registration. Opened secrets are only counted, never shown; their bytes
// are cleared at once.
#pragma once
#include <windows.h>
#include <string>
#include <vector>

namespace nvdbconv {

struct StoreUserSummary {
    std::wstring sid;
    std::vector<std::wstring> secrets; // names, sorted
    size_t secretsOpen = 0;            // secrets that open with the user's key
    std::vector<DWORD> templates;      // positions, ascending
    bool payload = false;
    bool keyPair = false;
    bool password = false;
    bool registered = false;
};

struct StoreSummary {
    std::vector<StoreUserSummary> users;
    size_t registered = 0; // registered users (with or without data)
    size_t secrets() const;
    size_t secretsOpen() const;
    size_t templates() const;
};

StoreSummary ReadStoreSummary();

} // namespace nvdbconv
