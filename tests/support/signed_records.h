// Independent readers for the signed DER records the security context makes:
// the X509_CERT envelope (signed content, algorithm, signature), SEQUENCE OF ANY
// item lists, and an RSA signature check that hashes and verifies on its own
// rather than through the certificate functions the library uses.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include <string>
#include <vector>

namespace nvtest {

struct SignedRecord {
    std::vector<BYTE> toBeSigned;  // the signed content, as encoded
    std::string oid;               // signature algorithm
    DWORD cbParameters = 0;        // algorithm parameters' size
    std::vector<BYTE> signature;   // as DER carries it (most significant byte first)
    DWORD unusedBits = 0;
};

// False when the bytes are no X509_CERT structure.
bool DecodeSignedRecord(const std::vector<BYTE>& der, SignedRecord* out);
// The items of a SEQUENCE OF ANY, each a complete DER value; false when it does not decode.
bool DecodeSequenceOfAny(const std::vector<BYTE>& der, std::vector<std::vector<BYTE>>* items);
// The content bytes of a value whose decoded form is a blob (X509_OCTET_STRING, and
// X509_MULTI_BYTE_UINT and X509_MULTI_BYTE_INTEGER little-endian); false when it
// does not decode as that type.
bool DecodeBlobContent(LPCSTR type, const std::vector<BYTE>& der, std::vector<BYTE>* content);

// The key exchange key of a provider as a PUBLICKEYBLOB.
std::vector<BYTE> PublicKeyBlobOf(HCRYPTPROV prov);
// True when sigBigEndian is the RSA PKCS #1 signature of data under the hash
// algorithm, made by the key exchange key of the machine container of that host id.
bool RsaSignatureMatches(const GUID& container, ALG_ID hashAlg, const std::vector<BYTE>& data,
                         const std::vector<BYTE>& sigBigEndian);

// Bytes of a blob, and a blob over bytes.
std::vector<BYTE> BlobBytes(const CRYPT_DATA_BLOB& blob);
CRYPT_DATA_BLOB BlobOf(const std::vector<BYTE>& bytes);
std::vector<BYTE> Concat(std::initializer_list<std::vector<BYTE>> parts);

} // namespace nvtest
