#include "converter3/converter3.h"

#include <sddl.h>
#include <cstdio>
#include <cwchar>
#include <memory>
#include <stdexcept>
#include <vector>
#include "common/conversionscope.h"
#include "common/cryptblob.h"
#include "common/guidtext.h"
#include "common/handles.h"
#include "common/hresult.h"
#include "common/regkey.h"
#include "common/replaceablecalls.h"
#include "converter3/authinfo.h"
#include "converter3/conversionpolicy.h"
#include "converter3/heldusers.h"
#include "converter3/logoninfoname.h"
#include "common/storecontract.h"
#include "converter3/secretpacking.h"
#include "converter3/templateencoder.h"
#include "frame/paths.h"
#include "legacydb/userextractor.h"
#include "security/securitycontext.h"
#include "trace/trace.h"

namespace {

constexpr const wchar_t kUsersSuffix[] = L"\\DB\\Data\\Users";
constexpr const wchar_t kDataPath[] = L"SOFTWARE\\Norvane\\DB\\Data";
constexpr const wchar_t kUserKeyPrefix[] = L"Data\\Users\\";

// The user's identifier towards the store and in the trace. A slot the extractor
// could not fill has no SID; that user fails like one whose SID object cannot be
// built (not a COM error, hence E_UNEXPECTED).
std::wstring SidString(PSID pSid)
{
    if (!pSid || !::IsValidSid(pSid))
        throw std::invalid_argument("user entry without a valid SID");
    LPWSTR text = nullptr;
    if (!::ConvertSidToStringSidW(pSid, &text))
        throw std::runtime_error("SID not convertible");
    nv::unique_hlocal owner(text);
    return std::wstring(text);
}

// Exact comparison of the wide characters and of the lengths.
bool IsLegacyPasswordSecret(const _bstr_t& name)
{
    const std::wstring& legacy = nvconv3::g_wstrLegacyPasswordSecretName;
    const wchar_t* b = static_cast<const wchar_t*>(name);
    const size_t cch = name.length();
    return cch == legacy.size() && (cch == 0 || std::wmemcmp(b, legacy.data(), cch) == 0);
}

// A call through an interface the store did not hand out is the COM error of a
// null interface pointer, not a crash.
template <class I>
I* Require(const nv::com_ptr<I>& p)
{
    if (!p)
        nv::ThrowHr(E_POINTER);
    return p.get();
}

// The password secret's unpacking is best effort about the bytes only: an empty or
// malformed secret leaves the password empty, but a failure that says nothing about
// the data (a memory shortage, an unexpected error) fails the user.
bool IsDataVerdict(HRESULT hr) noexcept
{
    return SUCCEEDED(hr) || hr == nv::HResultFromWin32(ERROR_FILE_NOT_FOUND) ||
           nv::IsDataErrorCode(static_cast<DWORD>(hr));
}

std::wstring WithCode(const wchar_t* what, const std::wstring& name, HRESULT hr)
{
    wchar_t code[16];
    std::swprintf(code, 16, L"0x%08X", static_cast<unsigned>(hr));
    std::wstring text(what);
    if (!name.empty())
        text += L" '" + name + L"'";
    if (hr != S_OK)
        text += std::wstring(L" (") + code + L")";
    return text;
}

} // namespace

// The store's objects of one conversion. Every user needs three, and each
// CoCreateInstance looks the class up in the registry again (a dozen registry calls)
// before the class object makes the object; so the class object is obtained once and
// kept for the conversion. One that cannot be obtained is asked for again at the
// next object: a failure costs that object, as a failed CoCreateInstance would.
class CConverter3::CStoreObjects {
public:
    template <class I>
    nv::com_ptr<I> Create(const IID& iid)
    {
        if (!m_factory) {
            ::CoGetClassObject(nvstore::kClsidUserStore, nvstore::kStoreClassContext, nullptr, IID_IClassFactory,
                               m_factory.put_void());
        }
        nv::com_ptr<I> p;
        // The result is not looked at: a missing object shows when it is used.
        if (m_factory)
            m_factory->CreateInstance(nullptr, iid, p.put_void());
        return p;
    }

private:
    nv::com_ptr<IClassFactory> m_factory;
};

// What of one user did not reach the store. The strict policy holds a user with
// anything missing; the default policy only traces it, and the user's steps run
// exactly as before.
class CConverter3::CMissingParts {
public:
    explicit CMissingParts(bool strict) noexcept : m_strict(strict) {}
    bool Strict() const noexcept { return m_strict; }
    void Add(const std::wstring& what)
    {
        if (!m_text.empty())
            m_text += L"; ";
        m_text += what;
    }
    bool Empty() const noexcept { return m_text.empty(); }
    const std::wstring& Text() const noexcept { return m_text; }

private:
    bool m_strict;
    std::wstring m_text;
};

// One user's conversion, in the order its steps run: load the secrets, recover the
// password, get the user's public key from the store (enrolling the password when
// the store has none), seal and store the secrets, store the templates, store the
// payload and register the user; then the policy's verdict and the old key's
// deletion. Each step returns what it produces; a failure is raised and the user
// keeps its old key. What did not reach the store goes into the caller's record,
// which outlives a raised failure.
class CConverter3::CUserConversion {
public:
    // status is the previous user's: a user for whom neither the public key read nor
    // a template records a result shows it.
    CUserConversion(CConverter3& converter, LegacyNVDB2::CLocalDBUserExtractor& extractor,
                    CStoreObjects& storeObjects, const NV_USER_RECORD& user, const std::wstring& sid,
                    NVTraceNS::CTraceScope& scope, CMissingParts& missing, HRESULT status) noexcept
        : m_converter(converter), m_extractor(extractor), m_storeObjects(storeObjects), m_user(user), m_sid(sid),
          m_scope(scope), m_missing(missing), m_status(status)
    {
    }

    // Runs every step and returns the user's status.
    HRESULT Run()
    {
        NVTraceNS::Trace(m_scope, 0, "Conversion process began for '%ls'", m_sid.c_str());
        LegacyNVDB2::CNVSecretMap secrets = LoadSecrets();
        CNVTemplateVector templates;
        nv::ThrowIfFailed(m_extractor.LoadTemplatesToVector(m_user.pSid, templates));

        nv::com_ptr<IUserStore> store = m_storeObjects.Create<IUserStore>(nvstore::kIidUserStore);
        nv::com_ptr<IUnknown> userObject;
        nv::ThrowIfFailed(Require(store)->OpenUser(m_sid.c_str(), nvstore::kUserIdKindSid, userObject.put()));

        const nv::unique_secure_bstr password = RecoverPassword(secrets);
        // Under the strict policy a user whose old data was not read whole is held
        // before anything reaches the store: a password read as empty or wrong would
        // be enrolled, and every later Convert would fail to authenticate with the
        // right one.
        if (m_missing.Strict())
            ApplyPolicy();
        // The payload outlives the secrets part: the payload step stores it.
        nv::CCoTaskCryptBlob payload;
        nv::com_ptr<IUserSecrets> userSecrets;
        userObject.query(userSecrets);
        if (userSecrets)
            payload = StoreSecrets(userSecrets, secrets, password.get());
        else
            NoteSecretsWithoutStore(secrets);

        nv::com_ptr<IUserTemplates> userTemplates;
        userObject.query(userTemplates);
        if (userTemplates) {
            StoreTemplates(userTemplates.get(), templates);
            StorePayloadAndRegister(userObject, payload);
        } else {
            // The payload and the registration hang off the templates step: without
            // IUserTemplates the user is never registered, templates or not.
            if (m_user.dwTemplateMask != 0)
                m_missing.Add(WithCode(L"templates not stored, no IUserTemplates", L"", S_OK));
            m_missing.Add(WithCode(L"payload not stored and user not registered, no IUserTemplates", L"", S_OK));
        }
        if (m_extractor.HasDroppedTemplates(m_user.pSid))
            m_missing.Add(WithCode(L"templates of a further fingerprint entry dropped", L"", S_OK));

        ApplyPolicy();
        DeleteOldKey();
        return m_status;
    }

private:
    // The user's public key and what the password authentication gave.
    struct UserKey {
        nv::CCoTaskCryptBlob publicKey;
        nv::CCoTaskCryptBlob payload;
    };

    LegacyNVDB2::CNVSecretMap LoadSecrets()
    {
        LegacyNVDB2::CNVSecretMap secrets;
        HRESULT hrFieldEnum = S_OK;
        nv::ThrowIfFailed(m_extractor.InternalLoadSecretsToMap(m_user, secrets, &hrFieldEnum));
        if (FAILED(hrFieldEnum))
            m_missing.Add(WithCode(L"fields not all listed", L"", hrFieldEnum));
        for (const auto& entry : secrets) {
            if (entry.second && entry.second->m_bLenient)
                m_missing.Add(WithCode(L"secret malformed", static_cast<const wchar_t*>(entry.first), S_OK));
        }
        return secrets;
    }

    // The password, best effort: a missing or unreadable password secret leaves it
    // empty. The PIN is not carried over.
    nv::unique_secure_bstr RecoverPassword(LegacyNVDB2::CNVSecretMap& secrets)
    {
        nv::unique_secure_bstr password;
        CNVSecretPtr passwordSecret = secrets[_bstr_t(nvconv3::g_wstrLegacyPasswordSecretName.c_str())];
        if (!passwordSecret)
            return password;
        NVTraceNS::Trace(m_scope, 0, "Read password secret from old DB");
        nv::unique_secure_bstr pin;
        nv::CCoTaskCryptBlob content;
        passwordSecret->GetContent(nullptr, &content.cbData, &content.pbData);
        const HRESULT hrUnpack = UnpackPasswordAndPin(&content, password.put(), pin.put());
        if (!IsDataVerdict(hrUnpack))
            nv::ThrowHr(nv::IsOutOfMemoryCode(static_cast<DWORD>(hrUnpack)) ? E_OUTOFMEMORY : hrUnpack);
        if (hrUnpack != S_OK)
            m_missing.Add(WithCode(L"password secret not unpacked", L"", hrUnpack));
        nvconv3::LogonInfoName();
        return password;
    }

    // Seals every secret under the user's public key and hands it to the store.
    // Returns the payload that the password authentication gave (empty without one).
    nv::CCoTaskCryptBlob StoreSecrets(const nv::com_ptr<IUserSecrets>& userSecrets, LegacyNVDB2::CNVSecretMap& secrets,
                                      const wchar_t* password)
    {
        CFPSecurityContext context(kDatabaseView);
        // An owner of our own for as long as the user's keys live; declared before the
        // keys so that they are destroyed first.
        nv::unique_hcryptprov provider;
        nv::ThrowIfFailed(context.ShareProvider(provider));
        nv::com_ptr<IStoreService> authCreator = m_storeObjects.Create<IStoreService>(nvstore::kIidStoreService);
        nv::com_ptr<IAuthService> auth;
        if (authCreator)
            authCreator.query(auth);

        UserKey key = GetUserKey(userSecrets, auth.get(), password);
        nv::unique_hcryptkey userKey;
        nv::ThrowLastErrorIf(
            !::CryptImportKey(provider.get(), key.publicKey.pbData, key.publicKey.cbData, 0, 0, userKey.put()));
        SealAndStoreSecrets(userSecrets.get(), secrets, provider.get(), userKey.get(), password);
        return std::move(key.payload);
    }

    // The user's public key as the store holds it. A user the store has none for is
    // enrolled with the password first, which makes the key pair. The payload comes
    // from authenticating with the password, when the store has an authentication
    // service.
    UserKey GetUserKey(const nv::com_ptr<IUserSecrets>& userSecrets, IAuthService* auth, const wchar_t* password)
    {
        UserKey key;
        nv::com_ptr<IUserProperties> properties;
        userSecrets.query(properties);
        if (properties) {
            m_status = properties->GetProperty(nvstore::kPropertyUserPublicKey, key.publicKey.put());
            if (FAILED(m_status)) {
                NVTraceNS::Trace(m_scope, 0, "Retrieve payload");
                if (auth) {
                    const nv::CCryptBlob authBlob = PasswordAuthBlob(password);
                    nv::CCoTaskCryptBlob enrolExtra;
                    nv::ThrowIfFailed(auth->EnrollAuthentication(nvstore::kAuthTypePassword, m_sid.c_str(),
                                                                 nvstore::kUserIdKindSid, &key.payload, &authBlob,
                                                                 enrolExtra.put()));
                    key.payload = Authenticate(auth, authBlob);
                    nv::ThrowIfFailed(properties->GetProperty(nvstore::kPropertyUserPublicKey, key.publicKey.put()));
                }
            }
        }
        if (key.publicKey.IsEmpty())
            nv::ThrowHr(E_UNEXPECTED);

        if (key.payload.IsEmpty() && auth) {
            key.payload = Authenticate(auth, PasswordAuthBlob(password));
        } else if (key.payload.IsEmpty()) {
            // A user the store already had a key pair for, and no authentication
            // service: the password never reaches the store.
            m_missing.Add(WithCode(L"password not enrolled, no IAuthService", L"", S_OK));
        }
        return key;
    }

    static nv::CCryptBlob PasswordAuthBlob(const wchar_t* password)
    {
        CNVPasswordAuthInfo authInfo(nvstore::kPasswordAuthKind, password, password);
        nv::CCryptBlob authBlob;
        authInfo.Encode(authBlob);
        return authBlob;
    }

    nv::CCoTaskCryptBlob Authenticate(IAuthService* auth, const nv::CCryptBlob& authBlob)
    {
        nv::CCoTaskCryptBlob payload;
        DWORD dwFailed = 0;
        nv::CCoTaskCryptBlob authExtra;
        nv::ThrowIfFailed(auth->Authenticate(nvstore::kAuthTypePassword, m_sid.c_str(), nvstore::kUserIdKindSid,
                                             &authBlob, payload.put(), &dwFailed, authExtra.put()));
        return payload;
    }

    void SealAndStoreSecrets(IUserSecrets* userSecrets, LegacyNVDB2::CNVSecretMap& secrets, HCRYPTPROV hProv,
                             HCRYPTKEY userKey, const wchar_t* password)
    {
        for (auto& entry : secrets) {
            if (!entry.second)
                continue;
            nv::CCoTaskCryptBlob content;
            entry.second->GetContent(nullptr, &content.cbData, &content.pbData);
            if (content.IsEmpty())
                continue;
            nv::CCryptBlob blob(content.pbData, content.cbData);
            const wchar_t* name = static_cast<const wchar_t*>(entry.first);
            if (IsLegacyPasswordSecret(entry.first)) {
                // An empty password gives no copy; packing then takes the empty one. A
                // copy that cannot be made is a memory shortage, not an empty password:
                // the user fails and keeps its old key.
                nv::unique_secure_bstr copy(password ? ::SysAllocString(password) : nullptr);
                if (password && !copy)
                    nv::ThrowHr(E_OUTOFMEMORY);
                PackPassword(copy.get(), blob);
                copy.reset();
                name = nvconv3::LogonInfoName().c_str();
            }
            // A secret that cannot be sealed is left out, and PutSecret's result is
            // not looked at, unless the strict policy is in force.
            const HRESULT hrSeal = EncryptEx(blob, hProv, userKey, CALG_3DES);
            if (SUCCEEDED(hrSeal)) {
                const HRESULT hrPut = userSecrets->PutSecret(name ? name : L"", &blob);
                if (FAILED(hrPut))
                    m_missing.Add(WithCode(L"secret not stored", name ? name : L"", hrPut));
            } else {
                m_missing.Add(WithCode(L"secret not sealed", name ? name : L"", hrSeal));
            }
        }
    }

    void NoteSecretsWithoutStore(const LegacyNVDB2::CNVSecretMap& secrets)
    {
        for (const auto& entry : secrets) {
            if (entry.second && !entry.second->m_content.IsEmpty())
                m_missing.Add(WithCode(L"secret not stored, no IUserSecrets",
                                       static_cast<const wchar_t*>(entry.first), S_OK));
        }
        // Without it the user gets no key pair, password or payload either, secrets
        // or not.
        m_missing.Add(WithCode(L"password not enrolled and payload not stored, no IUserSecrets", L"", S_OK));
    }

    // The k-th set bit of the mask, counted from bit 0, takes the k-th template; more
    // set bits than templates fail the user at the vector's range check.
    void StoreTemplates(IUserTemplates* userTemplates, const CNVTemplateVector& templates)
    {
        size_t next = 0;
        for (DWORD position = 0; position < 32; ++position) {
            if ((m_user.dwTemplateMask & (1u << position)) == 0)
                continue;
            const CNVTemplatePtr& tmpl = templates.at(next++);
            if (tmpl && tmpl->m_bLenient)
                m_missing.Add(L"template malformed at position " + std::to_wstring(position));
            nv::CCryptBlob encoded;
            EncodeTemplate(*tmpl, encoded);
            m_status = userTemplates->PutTemplate(position, &encoded);
            nv::ThrowIfFailed(m_status);
        }
        if (next < templates.size())
            m_missing.Add(WithCode(L"templates beyond the position mask", std::to_wstring(templates.size() - next),
                                   S_OK));
    }

    void StorePayloadAndRegister(const nv::com_ptr<IUnknown>& userObject, const nv::CCoTaskCryptBlob& payload)
    {
        nv::com_ptr<IUserPayload> userPayload;
        userObject.query(userPayload);
        if (!userPayload) {
            m_missing.Add(WithCode(L"payload not stored and user not registered, no IUserPayload", L"", S_OK));
            return;
        }
        if (!payload.IsEmpty()) {
            const HRESULT hrPayload = userPayload->PutPayload(&payload);
            if (FAILED(hrPayload))
                m_missing.Add(WithCode(L"payload not stored", L"", hrPayload));
        }
        nv::com_ptr<IUserRegistry> registry = m_storeObjects.Create<IUserRegistry>(nvstore::kIidUserRegistry);
        if (!registry) {
            m_missing.Add(WithCode(L"user not registered, no IUserRegistry", L"", S_OK));
            return;
        }
        const HRESULT hrCheck = registry->CheckUser(m_sid.c_str(), nvstore::kUserIdKindSid);
        if (hrCheck == S_FALSE) {
            const HRESULT hrAdd = registry->AddUser(userPayload.get());
            if (FAILED(hrAdd))
                m_missing.Add(WithCode(L"user not registered", L"", hrAdd));
        } else if (FAILED(hrCheck)) {
            m_missing.Add(WithCode(L"registration not checked", L"", hrCheck));
        }
    }

    void ApplyPolicy()
    {
        if (m_missing.Empty())
            return;
        if (m_missing.Strict()) {
            // Strict policy: the user stays in the old database and a later Convert
            // tries it again; what already reached the store stays there.
            NVTraceNS::Trace(m_scope, 0, "Incomplete user '%ls' keeps its old key: %ls", m_sid.c_str(),
                             m_missing.Text().c_str());
            nv::ThrowHr(nvconv3::NV_E_USER_INCOMPLETE);
        }
        // Default policy: the user moves as the format has it, but what it moves
        // without is said, in the strict policy's words.
        NVTraceNS::Trace(m_scope, 0, "Incomplete user '%ls' moved with gaps: %ls", m_sid.c_str(),
                         m_missing.Text().c_str());
    }

    void DeleteOldKey()
    {
        const std::wstring path = std::wstring(kUserKeyPrefix) + nv::GuidText(m_user.guidUser);
        // Only traced: a user whose old key stays is still counted as converted.
        const HRESULT hrDelete = m_converter.DeleteKey(m_converter.m_dbKey.Get(), path.c_str(), kDatabaseView);
        NVTraceNS::Trace(m_scope, 0, "DeleteKey('%ls'), 0x%08X", m_sid.c_str(), static_cast<unsigned>(hrDelete));
    }

    CConverter3& m_converter;
    LegacyNVDB2::CLocalDBUserExtractor& m_extractor;
    CStoreObjects& m_storeObjects;
    const NV_USER_RECORD& m_user;
    const std::wstring& m_sid;
    NVTraceNS::CTraceScope& m_scope;
    CMissingParts& m_missing;
    HRESULT m_status;
};

CConverter3::CConverter3() : CBaseConverter(kTargetVersion, L"3.0", kDatabaseView) {}

const std::wstring& CConverter3::GetBackupName()
{
    static const std::wstring s_name = L"DB-v2.0";
    return s_name;
}

REGSAM CConverter3::GetBackupView()
{
    return 0;
}

HRESULT CConverter3::do_Rollback()
{
    NVTraceNS::CTraceScope scope("CConverter3::do_Rollback", 0);
    // The base converter restores the database from the backup key; the store that
    // the conversion filled is left as it is.
    return NVTraceNS::TraceReturn(scope, S_OK);
}

HRESULT CConverter3::do_Cleanup()
{
    NVTraceNS::CTraceScope scope("CConverter3::do_Cleanup", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        wchar_t wszUsers[MAX_PATH];
        std::swprintf(wszUsers, MAX_PATH, L"%ls%ls", nv::kVendorKeyPath, kUsersSuffix);

        nv::unique_hkey users;
        if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, wszUsers, 0, KEY_READ | kDatabaseView, users.put()) != ERROR_SUCCESS)
            return S_OK;

        // Only when no user key is left: a user whose conversion failed keeps its
        // key, and with it the old database.
        wchar_t wszName[256];
        DWORD cchName = static_cast<DWORD>(sizeof(wszName) / sizeof(wszName[0]));
        LONG r = ::RegEnumKeyExW(users.get(), 0, wszName, &cchName, nullptr, nullptr, nullptr, nullptr);
        if (r == ERROR_NO_MORE_ITEMS) {
            NVTraceNS::Trace(scope, 0, "Completely delete old DB");
            DeleteKey(HKEY_LOCAL_MACHINE, kDataPath, kDatabaseView);
            DeleteKey(HKEY_LOCAL_MACHINE, nvframe::kMainDBKeyPath, kDatabaseView);
        }
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CConverter3::do_Convert()
{
    NVTraceNS::CTraceScope scope("CConverter3::do_Convert", 0);
    // Every secret read opens a security context on the machine container: they
    // share one open container and one look at the host key for the whole
    // conversion. Every user's keys are opened by their full paths in the 32-bit
    // view, and every user asks for the machine's names and the caller's privilege:
    // the conversion scope answers those once.
    nv::CConversionScope conversion;
    nvsecurity::CProviderCache providers;
    CStoreObjects storeObjects;
    // The status of the last user shown in the trace. Set once, before the first
    // user, and deliberately not reset per user: a user for whom neither the key
    // read, a template nor a failure recorded anything shows its predecessor's.
    HRESULT hrStatus = S_OK;
    std::unique_ptr<LegacyNVDB2::CLocalDBUserExtractor> extractor;
    NV_USER_RECORD* pUsers = nullptr;
    DWORD cUsers = 0;

    // Read once per Convert; a change of the policy takes effect with the next one.
    const bool strict = nvconv3::ReadConversionPolicy() == nvconv3::ConversionPolicy::Strict;
    if (strict)
        NVTraceNS::Trace(scope, 0, "Conversion policy: strict");

    // The strict policy's record of held users, listed at the first user it concerns.
    std::unique_ptr<nvconv3::CHeldUsers> heldUsers;
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        extractor = std::make_unique<LegacyNVDB2::CLocalDBUserExtractor>();
        nv::ThrowIfFailed(extractor->EnumerateUsers(&pUsers, &cUsers));

        for (DWORD i = 0; i < cUsers; ++i) {
            const NV_USER_RECORD& user = pUsers[i];
            std::wstring sid;
            CMissingParts missing(strict);
            bool converted = false;
            hrStatus = nv::Guarded([&]() -> HRESULT {
                sid = SidString(user.pSid);
                const HRESULT status =
                    CUserConversion(*this, *extractor, storeObjects, user, sid, scope, missing, hrStatus).Run();
                converted = true;
                return status;
            });
            if (strict && !IsEqualGUID(user.guidUser, GUID_NULL)) {
                if (!heldUsers)
                    heldUsers = std::make_unique<nvconv3::CHeldUsers>();
                if (converted)
                    heldUsers->Forget(user.guidUser);
                else
                    heldUsers->Record(user.guidUser, sid, hrStatus,
                                      missing.Empty() ? WithCode(L"conversion failed", L"", hrStatus)
                                                      : missing.Text());
            }
            NVTraceNS::Trace(scope, 0, "Conversion process is over for '%ls', 0x%08X", sid.c_str(),
                             static_cast<unsigned>(hrStatus));
        }
        return S_OK;
    });

    if (pUsers && extractor)
        extractor->FreeUsers(pUsers);
    NVTraceNS::TraceResult(scope, "", hr);
    extractor.reset();
    return hr;
}

