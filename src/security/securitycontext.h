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
//
// The host identifier that names the container (security/hostidentifier.h) and the
// provider cache the contexts of one conversion share (security/providercache.h)
// are units of their own.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include "common/handles.h"
#include "security/hostidentifier.h"
#include "security/providercache.h"

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
inline constexpr const char kMd5RsaOid[] = "1.2.840.113549.1.1.4";

// Encoding types of every DER structure the context makes or reads.
inline constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
} // namespace nvsecurity
