// Records of the legacy (format 2.0) database as the user extractor hands them out:
// the per-user record, fingerprint templates and stored secrets.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include <cstddef>
#include <memory>
#include <vector>
#include "common/cryptblob.h"

// Data-object information of a template header: 44 bytes.
#pragma pack(push, 4)
struct BI_DATAOBJECT_INFO {
    DWORD dwFormat;
    DWORD dwFlags;
    GUID guidType;
    GUID guidOwner;
    DWORD dwSize;
};
#pragma pack(pop)
static_assert(sizeof(BI_DATAOBJECT_INFO) == 44, "BI_DATAOBJECT_INFO is 44 bytes on the wire");

struct BI_TEMPLATE {
    BI_DATAOBJECT_INFO info;
    LONG lHeaderValue;
};
static_assert(sizeof(BI_TEMPLATE) == 48, "BI_TEMPLATE is 48 bytes");

// One user as EnumerateUsers hands it out; callers index the array by this stride.
struct NV_USER_RECORD {
    GUID guidUser;
    PSID pSid; // from ConvertStringSidToSidW, freed with LocalFree by FreeUsers
    DWORD dwTemplateMask;
    DWORD dwAccountControl;
};
static_assert(sizeof(NV_USER_RECORD) == 32, "user records are 32 bytes");

// Header of a stored object: GUID, type code, a further value, one reserved field.
struct AI_OBJECT_INFO {
    GUID guidObject;
    DWORD dwTypeCode;
    DWORD dwValue;
    DWORD dwReserved;
};

constexpr DWORD kSecretTypeCode = 0x10020001;
constexpr size_t kSecretNameMax = 31;

struct NV_SECRET_INFO {
    AI_OBJECT_INFO header;
    GUID guidSecret;
    WCHAR wszName[kSecretNameMax + 1];
};

// A fingerprint template: header plus opaque data. Held through shared pointers.
class CNVTemplate {
public:
    BI_TEMPLATE m_header{};
    std::vector<BYTE> m_data;
    // True when the reader took an empty value for any part of the item (missing,
    // refused as data, of the wrong size or kind): the template is not the one that
    // was stored. The strict conversion policy holds the user for it; the default
    // policy only traces it.
    bool m_bLenient = false;

    void Clear()
    {
        m_header = BI_TEMPLATE{};
        m_data.clear();
        m_bLenient = false;
    }
};

// A stored secret: its information record and its sealed content. Held through
// shared pointers. GetContent opens the sealed content with the machine key.
class CNVSecret {
public:
    NV_SECRET_INFO m_info{};
    nv::CCryptBlob m_content; // the sealed secret (key blob + ciphertext)
    // True when the field did not decode as a complete secret record (fewer than two
    // items, or a part read as its empty value). The strict policy holds the user for
    // it; the default policy only traces it.
    bool m_bLenient = false;

    // Opens the sealed content. Hands out a task-allocated copy of the plain bytes
    // (the caller frees it, after zeroing); true when content was produced. Raises
    // _com_error on CryptoAPI failures. pPublicKey is never passed by the conversion.
    // The content is unwrapped once: a later call hands out the bytes the first one
    // opened (the conversion asks twice for the password secret, and an unwrap with
    // the machine key is the most expensive step of a user). Every call still makes
    // its security context and writes the same trace lines.
    bool GetContent(const CRYPT_DATA_BLOB* pPublicKey, DWORD* pcbData, BYTE** ppbData);

private:
    // The opened content, kept for a later GetContent; zeroed when freed.
    nv::CCryptBlob m_plain;
    bool m_bOpened = false;
};

using CNVTemplatePtr = std::shared_ptr<CNVTemplate>;
using CNVSecretPtr = std::shared_ptr<CNVSecret>;
using CNVTemplateVector = std::vector<CNVTemplatePtr>;
