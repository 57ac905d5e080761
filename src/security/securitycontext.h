// CFPSecurityContext: the machine's own RSA key pair, kept in a machine-wide key
// container named after the host identifier (HKLM\SOFTWARE\Norvane\NVHOST, "HostId").
// It lends its provider handle, exports its public key, signs and verifies, and
// exports and imports signed export records.
//
// The container is acquired, never created, here. Operations return HRESULTs and
// never throw; the throwing constructor is for callers that create a context and
// need it working (it raises FinalConstruct's failure as _com_error). The
// destructor runs FinalRelease.
//
// Out blobs are written only on success (Export and Import first empty theirs);
// whatever an out blob held before is overwritten, not freed. Null out pointers
// give E_POINTER, except Import's, which are optional.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include "common/handles.h"

class INVSecurityExt {
public:
    virtual ~INVSecurityExt() = default;
    virtual HRESULT GetContext(HCRYPTPROV* phProv) = 0;
    virtual HRESULT GetPublicKey(CRYPT_DATA_BLOB* pPublicKey) = 0;
};

class INVExportImportExt {
public:
    virtual ~INVExportImportExt() = default;
    virtual HRESULT Export(const GUID& guidTarget, const CRYPT_DATA_BLOB* pData, REGSAM samView,
                           CRYPT_DATA_BLOB* pRecord) = 0;
    virtual HRESULT Import(const CRYPT_DATA_BLOB* pRecord, CRYPT_DATA_BLOB* pData, GUID* pguidTarget,
                           GUID* pguidSource) = 0;
    virtual HRESULT Verify(const CRYPT_DATA_BLOB* pSigned, const CRYPT_DATA_BLOB* pPublicKey) = 0;
};

class CFPSecurityContext : public INVSecurityExt, public INVExportImportExt {
public:
    CFPSecurityContext() noexcept = default;
    explicit CFPSecurityContext(REGSAM samView);
    ~CFPSecurityContext() override;
    CFPSecurityContext(const CFPSecurityContext&) = delete;
    CFPSecurityContext& operator=(const CFPSecurityContext&) = delete;

    HRESULT FinalConstruct(REGSAM samView);
    void FinalRelease();

    // INVSecurityExt
    HRESULT GetContext(HCRYPTPROV* phProv) override;
    HRESULT GetPublicKey(CRYPT_DATA_BLOB* pPublicKey) override; // task-allocated DER SubjectPublicKeyInfo

    // A provider handle of the caller's own: a new reference on the context's, for
    // work that outlives the context's use of it. GetContext's failure, or the
    // reference's (its last error as an HRESULT), leaves owner empty.
    HRESULT ShareProvider(nv::unique_hcryptprov& owner) noexcept;

    // INVExportImportExt (blobs handed out are task-allocated)
    HRESULT Export(const GUID& guidTarget, const CRYPT_DATA_BLOB* pData, REGSAM samView,
                   CRYPT_DATA_BLOB* pRecord) override;
    HRESULT Import(const CRYPT_DATA_BLOB* pRecord, CRYPT_DATA_BLOB* pData, GUID* pguidTarget,
                   GUID* pguidSource) override;
    HRESULT Verify(const CRYPT_DATA_BLOB* pSigned, const CRYPT_DATA_BLOB* pPublicKey) override;

    // Signs a DER encoding and wraps it with the algorithm and signature as an
    // X509_CERT structure; pszOid null means md5RSA. pSigned is replaced (task-allocated).
    HRESULT SignBLOB(const CRYPT_DATA_BLOB* pToBeSigned, CRYPT_DATA_BLOB* pSigned, HCRYPTPROV hProv,
                     DWORD dwKeySpec, LPCSTR pszOid);

    // The provider handle the context holds (0 when construction failed); the
    // context keeps it. ShareProvider gives one of the caller's own.
    HCRYPTPROV Provider() const noexcept { return m_hProv; }

private:
    HCRYPTPROV m_hProv = 0;
};

namespace nvsecurity {
// Paths and names shared by the library's users of the host identifier.
inline constexpr const wchar_t kHostKeyPath[] = L"SOFTWARE\\Norvane\\NVHOST";
inline constexpr const wchar_t kHostIdValue[] = L"HostId";
inline constexpr const wchar_t kProviderName[] = L"Microsoft Enhanced Cryptographic Provider v1.0";
inline constexpr const char kMd5RsaOid[] = "1.2.840.113549.1.1.4";

// Encoding types of every DER structure the context makes or reads.
inline constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
// Access of the Users group on the NVHOST key once its DACL is replaced (KEY_READ).
inline constexpr ACCESS_MASK kHostKeyUsersAccess = 0x20019;
// The container name: "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" and its terminator.
inline constexpr size_t kContainerNameChars = 39;

// The GUID typed value: 16 bytes, the first three fields most significant byte
// first, the last 8 bytes as they stand.
void GuidToNetworkBytes(const GUID& guid, BYTE (&bytes)[16]) noexcept;
// The reverse; any length other than 16 gives the all-zero GUID.
GUID GuidFromNetworkBytes(const BYTE* bytes, DWORD cb) noexcept;
bool IsZeroGuid(const GUID& guid) noexcept;

// The machine container's name for a host identifier: the registry form of the
// GUID, upper-case hexadecimal in braces.
void FormatContainerName(const GUID& hostId, wchar_t (&name)[kContainerNameChars]) noexcept;

// The privilege test for replacing access lists: the caller's effective token (the
// thread's when impersonating, else the process's) belongs to LocalSystem or holds
// the Administrators group (a deny-only group, as in a restricted token, does not
// count). The same rule as the base converter's access grant.
bool CallerIsPrivileged() noexcept;

// What the security contexts of one conversion share. A conversion makes a
// short-lived security context for every secret it reads, all for the same host
// key and machine container. Opening the container loads its keys and releasing
// its last handle stores them back; opening the host key, replacing its access list
// and reading "HostId" crosses the redirected registry path and reads the caller's
// token. Each costs more than the work done with the context. While a cache is
// alive on the thread, the contexts of that thread:
//   - share one provider handle per container (each holding a reference of its own);
//   - do the host key's work once per registry view: the first context that is
//     constructed in a view opens the host key, replaces its access list and reads
//     (or creates) "HostId" as always; later ones in that view take the container
//     name it found. A construction that fails leaves nothing behind, so the next
//     one does the whole work again.
// Without a cache, every context does all of it itself. Caches nest: the innermost
// one is used.
class CProviderCache {
public:
    CProviderCache() noexcept;
    ~CProviderCache();
    CProviderCache(const CProviderCache&) = delete;
    CProviderCache& operator=(const CProviderCache&) = delete;

    // CryptAcquireContextW of the machine container with the Enhanced provider, or a
    // new reference on the handle the thread's cache holds for it. The caller releases
    // its handle with CryptReleaseContext. False with the last error as the open left it.
    static bool AcquireMachineContainer(const wchar_t* container, HCRYPTPROV* phProv) noexcept;

    // The container name that a context of this thread found through the host key of
    // the given view, while the thread's cache is alive; false when none did yet.
    static bool FindHostContainer(REGSAM samView, wchar_t (&container)[kContainerNameChars]) noexcept;
    // Remembers it for the later contexts of the thread (no cache: nothing happens).
    static void RememberHostContainer(REGSAM samView, const wchar_t (&container)[kContainerNameChars]) noexcept;

private:
    struct Entry {
        wchar_t container[kContainerNameChars];
        HCRYPTPROV hProv;
    };
    struct HostEntry {
        REGSAM samView;
        wchar_t container[kContainerNameChars];
    };
    static constexpr size_t kMaxEntries = 4;
    Entry m_entries[kMaxEntries] = {};
    size_t m_count = 0;
    HostEntry m_hosts[kMaxEntries] = {};
    size_t m_hostCount = 0;
    CProviderCache* m_outer = nullptr;
};
}
