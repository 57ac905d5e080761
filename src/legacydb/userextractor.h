// CLocalDBUserExtractor: the conversion's reader of the legacy (format 2.0) database.
//
// Construction acquires the machine key container named after the host identifier
// (errors are only traced; the extractor then works without a container and its
// CryptoAPI calls fail with their own errors). EnumerateUsers lists the user keys
// under DB\Data\Users, unseals each user's record with the container's key-exchange
// key and parses it into one 32-byte record per key, filling the template map on the
// way; the caller owns the array until it passes it to FreeUsers. Templates are
// handed out per SID, secrets per user, both through shared pointers.
//
// Members return HRESULTs and never throw. A user key that cannot be read leaves its
// slot zero; a corrupt seal ends the enumeration, and the array handed out stays
// valid with the later slots zero.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include <comdef.h> // defines the error hook that comutil.h calls
#include <comutil.h>
#include <map>
#include <set>
#include <string>
#include "common/handles.h"
#include "legacydb/records.h"

namespace LegacyNVDB2 {

using CNVSecretMap = std::map<_bstr_t, CNVSecretPtr>;
using CNVTemplateMap = std::map<std::wstring, CNVTemplateVector>;

// Stored value of a user: the magic, then SEQUENCE OF ANY { seal version, payload }.
constexpr BYTE kSealMagic[4] = {0x4E, 0x56, 0x4F, 0x41}; // "NVOA"
constexpr DWORD kSealVersion = 2;
// Credential id of fingerprint entries in a user record.
constexpr DWORD kFingerprintCredentialId = 2;

class CLocalDBUserExtractor {
public:
    CLocalDBUserExtractor() noexcept;
    virtual ~CLocalDBUserExtractor();
    CLocalDBUserExtractor(const CLocalDBUserExtractor&) = delete;
    CLocalDBUserExtractor& operator=(const CLocalDBUserExtractor&) = delete;

    // *ppUsers: LocalAlloc block of *pdwCount NV_USER_RECORDs, slot i = user key i.
    HRESULT EnumerateUsers(NV_USER_RECORD** ppUsers, DWORD* pdwCount);
    // The templates of the SID's first fingerprint entry; asking creates an empty entry.
    HRESULT LoadTemplatesToVector(PSID pSid, CNVTemplateVector& templates);
    // The user's secret fields (all but "AccountControl"), opened and decoded.
    HRESULT InternalLoadSecretsToMap(const NV_USER_RECORD& user, CNVSecretMap& secrets);
    // The same; *phrFieldEnum receives the first failure of a single field's
    // enumeration (S_OK when every field was listed).
    HRESULT InternalLoadSecretsToMap(const NV_USER_RECORD& user, CNVSecretMap& secrets, HRESULT* phrFieldEnum);
    // True when a fingerprint entry of a user with this SID carried templates that
    // the template map dropped (the SID had a list already).
    bool HasDroppedTemplates(PSID pSid) const;
    HRESULT FreeUsers(NV_USER_RECORD* pUsers);

    // Parses an unsealed user blob into the record and the template map.
    HRESULT ParseUserBlob(DWORD cbBlob, const BYTE* pbBlob, NV_USER_RECORD* pUser);
    // Reads the account header (user list item 0): the user's GUID and SID into the
    // record, and the account control from Policy\Accounts\<SID> "ActCtrl" (0 when
    // unreadable).
    HRESULT GetAccountControl(const CRYPT_DER_BLOB* pHeader, NV_USER_RECORD* pUser, PSID* ppSid,
                              DWORD* pdwAccountControl);

    // Opens a user's stored value (magic, seal version, sealed payload) with the
    // container's key-exchange key and parses the user blob inside. Raises _com_error:
    // NTE_BAD_DATA for a value that is no version 2 seal, CryptoAPI errors otherwise.
    void UnsealUser(const BYTE* pbValue, DWORD cbValue, NV_USER_RECORD* pUser);

    HCRYPTPROV GetProvider() const noexcept { return m_provider.get(); }
    const CNVTemplateMap& GetTemplateMap() const noexcept { return m_templates; }

private:
    nv::unique_hcryptprov m_provider;
    CNVTemplateMap m_templates;
    std::set<std::wstring> m_droppedTemplates;
};

} // namespace LegacyNVDB2
