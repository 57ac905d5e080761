// The library's fixed COM identifiers. Each one lives here and nowhere else.
//
// The component's class, the INVComponentInit interface the suite's host calls, and
// the type library identifier the module object is initialised with.
#pragma once
#include <windows.h>

// {ED01113E-C548-4DA6-BE80-98624031487C}
#define NV_CLSID_NVDBCONVERTER_PARTS \
    0xED01113E, 0xC548, 0x4DA6, 0xBE, 0x80, 0x98, 0x62, 0x40, 0x31, 0x48, 0x7C
// {4C13C034-952C-4FF3-9ABC-D0C3FCBE8B5D}
#define NV_IID_INVCOMPONENTINIT_PARTS \
    0x4C13C034, 0x952C, 0x4FF3, 0x9A, 0xBC, 0xD0, 0xC3, 0xFC, 0xBE, 0x8B, 0x5D
// {666E8CCD-CCFD-4C87-A89B-C5DABC3FED58}
#define NV_LIBID_NVDBCONV_PARTS \
    0x666E8CCD, 0xCCFD, 0x4C87, 0xA8, 0x9B, 0xC5, 0xDA, 0xBC, 0x3F, 0xED, 0x58

// Spreads a parts list into a GUID initialiser (the extra level lets the list expand).
#define NV_GUID_FROM_PARTS(parts) NV_GUID_INIT_(parts)
#define NV_GUID_INIT_(l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
    {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}

namespace nvcom {

inline constexpr CLSID kCLSID_NVDBConverter = NV_GUID_FROM_PARTS(NV_CLSID_NVDBCONVERTER_PARTS);
inline constexpr IID kIID_INVComponentInit = NV_GUID_FROM_PARTS(NV_IID_INVCOMPONENTINIT_PARTS);
inline constexpr GUID kLIBID_NVDBConvLib = NV_GUID_FROM_PARTS(NV_LIBID_NVDBCONV_PARTS);

} // namespace nvcom
