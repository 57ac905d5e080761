// Independent readers for what the conversion leaves in the store: the DER of a
// stored template and of a packed password secret. They decode with the system's
// CryptoAPI rather than the library's own encoders, so a test does not check the
// library against itself.
#pragma once
#include <windows.h>
#include <string>
#include <vector>

namespace nvtest {

// A stored template, decoded by position: the data-object fields, the header value
// and the data.
struct DecodedTemplate {
    DWORD format = 0;
    DWORD flags = 0;
    std::vector<BYTE> type;  // 16 bytes as stored
    std::vector<BYTE> owner; // 16 bytes as stored
    DWORD size = 0;
    LONG headerValue = 0;
    std::vector<BYTE> data;
};
// False (with a failure recorded) when the bytes are not the three-deep layout.
bool DecodeStoredTemplate(const std::vector<BYTE>& bytes, DecodedTemplate* out);
// The 16 bytes of a GUID in memory order.
std::vector<BYTE> GuidMemoryBytes(const GUID& g);

// Reads a 3.0 password secret (the packed format): unscrambles it with the
// deployment's key and decodes SEQUENCE { version, BMPString password }. The string
// may carry one terminating zero character; anything else after the text, another
// item count or another string type is not the packed format (false).
bool DecodePackedPassword(const std::vector<BYTE>& packed, DWORD* version, std::wstring* password);
// The packed password secret unscrambled, as it stands.
std::vector<BYTE> UnscramblePackedPassword(const std::vector<BYTE>& packed);
// The DER a 3.0 password secret of this password must unscramble to, made by hand:
// SEQUENCE { INTEGER 1, BMPString password with its terminating zero }.
std::vector<BYTE> ExpectedPasswordSecretDer(const std::wstring& password);

// A DER value made by hand: the tag, the definite length (short form, 0x81 or 0x82
// long form) and the content.
std::vector<BYTE> DerTlv(BYTE tag, const std::vector<BYTE>& content);
// The same, but any length of 0x80 and more takes the two-byte long form (0x82).
std::vector<BYTE> TlvTwoByteLong(BYTE tag, const std::vector<BYTE>& content);

// A template header value as the legacy reader hands it on: the DER INTEGER's
// content bytes without sign extension, so a negative value keeps only the bytes of
// its shortest two's complement (-3, one byte 0xFD, reads as 253).
LONG HeaderValueAsRead(LONG written);

} // namespace nvtest
