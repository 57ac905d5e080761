// The users of a format 2.0 database as the 2.0 -> 3.0 conversion would read them,
// read without writing anything: no "2.1" stamp (the record set is not used), no
// host identifier made, no key's access list replaced. The machine key container is
// only acquired, and every decrypted secret is cleared before it is freed.
//
// Used by `convert`/`upgrade` (the SIDs of the users who kept their old data) and by
// `check` (would each user convert?).
#pragma once
#include <windows.h>
#include <string>
#include <vector>

namespace nvdbconv {

struct LegacyUser {
    std::wstring key;          // "{GUID}" under DB\Data\Users
    std::wstring sid;          // empty when the record could not be read
    HRESULT record = S_OK;     // reading and unsealing the record (S_FALSE: not reached)
    DWORD templateMask = 0;    // positions with a template
    size_t templates = 0;      // templates in the record
    bool secretsRead = false;  // only with details
    HRESULT secretsResult = S_OK;
    size_t secrets = 0;        // secret fields that decode, with content
    bool passwordSecret = false; // a "SystemLogonInfo" secret is there
    HRESULT passwordResult = S_FALSE; // opening it: S_OK opened with a password
    bool passwordEmpty = false;  // it opened, but holds no password
};

struct LegacyUsers {
    HRESULT hostId = S_OK;      // reading NVHOST "HostId" (32-bit view)
    std::wstring container;     // the machine container's name, when HostId was read
    HRESULT acquire = S_OK;     // acquiring the container
    HRESULT enumeration = S_OK; // the extractor's EnumerateUsers
    bool usersKey = false;      // DB\Data\Users exists
    std::vector<LegacyUser> users;
};

// Reads the user keys and, with the machine key, each user's record; with details
// also each user's secrets and whether the password secret opens.
LegacyUsers ReadLegacyUsers(bool details);

} // namespace nvdbconv
