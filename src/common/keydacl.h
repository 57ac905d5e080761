// Protected key DACLs: the one security the project gives registry keys it
// protects or is about to delete. No dependency beyond advapi32, so that the
// reference store links it too.
#pragma once
#include <windows.h>

namespace nv {

// A well-known SID in a buffer of its own; raises _com_error when it cannot be made.
class WellKnownSid {
public:
    explicit WellKnownSid(WELL_KNOWN_SID_TYPE type);
    PSID get() noexcept { return m_buffer; }

private:
    alignas(void*) BYTE m_buffer[SECURITY_MAX_SID_SIZE];
};

// Replaces the key's DACL by a protected one whose entries are all inherited by
// subkeys (object and container inherit): LocalSystem and Administrators
// KEY_ALL_ACCESS, Users usersMask (no entry when it is 0). S_OK when set, S_FALSE
// when SetSecurityInfo refuses; raises _com_error when the list cannot be built.
HRESULT SetProtectedKeyDacl(HKEY key, ACCESS_MASK usersMask);

// The security of every key the project keeps beside the database's own keys (the
// held-users record, the reference store): creates root\path when it is missing and
// gives it, new or old, the protected DACL above with no Users entry, so that its
// subkeys are for LocalSystem and Administrators only. S_OK when set, S_FALSE when
// SetSecurityInfo refuses, the create's failure as an HRESULT. Never throws.
HRESULT ProtectKeyForAdministrators(HKEY root, const wchar_t* path, REGSAM view) noexcept;

// The same list as a security descriptor for RegCreateKeyExW, so that a new key is
// never open to others, not even for a moment (LocalFree it); null when it cannot
// be built.
PSECURITY_DESCRIPTOR NewAdministratorsOnlyKeySecurity() noexcept;

} // namespace nv
