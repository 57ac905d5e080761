// DER building blocks of the format 2.0 writer.
//
// Each helper encodes one item with CryptEncodeObject and the CryptoAPI structure
// type the legacy layout uses for it, and raises _com_error on failure. They are the
// writer's own encoders: tests also use them to hand-craft malformed items.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include <initializer_list>
#include <string>
#include <vector>

namespace nvwriter {

using DerBytes = std::vector<BYTE>;

namespace der20 {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

// Any structure type; raises the encoder's error.
DerBytes Encode(LPCSTR structType, const void* structInfo);

// INTEGER from a 32-bit unsigned value (X509_MULTI_BYTE_UINT, 4 bytes little-endian).
DerBytes Uint(DWORD value);
// INTEGER from raw little-endian bytes (X509_MULTI_BYTE_UINT), for numbers that do not
// fit 32 bits.
DerBytes UintBytes(const DerBytes& littleEndian);
// INTEGER from a signed 32-bit value (X509_MULTI_BYTE_INTEGER).
DerBytes Int(LONG value);
// OCTET STRING (X509_OCTET_STRING).
DerBytes Octets(const BYTE* pb, DWORD cb);
inline DerBytes Octets(const DerBytes& b) { return Octets(b.data(), static_cast<DWORD>(b.size())); }
// The 16 bytes of a GUID in network byte order: Data1, Data2, Data3 most significant
// byte first, Data4 as it stands.
DerBytes GuidNetworkBytes(const GUID& g);
// OCTET STRING of the GUID's network-order bytes.
DerBytes GuidOctets(const GUID& g);
// UTCTime/GeneralizedTime (X509_CHOICE_OF_TIME).
DerBytes Time(const FILETIME& ft);
// X509_NAME_VALUE of the given value type over raw value bytes.
DerBytes NameValue(DWORD valueType, const BYTE* pb, DWORD cb);
// BMPString of the text with its terminating zero character stored in the value.
DerBytes Text(const std::wstring& text);
// SEQUENCE OF ANY over complete DER items (X509_SEQUENCE_OF_ANY).
DerBytes Seq(const std::vector<DerBytes>& items);
DerBytes Seq(std::initializer_list<DerBytes> items);
// BIT STRING with no unused bits (X509_BITS).
DerBytes Bits(const DerBytes& bytes);
// X509_ANY_STRING, BMP, with the terminating zero character stored in the value.
DerBytes AnyStringBmp(const std::wstring& text);

} // namespace der20
} // namespace nvwriter
