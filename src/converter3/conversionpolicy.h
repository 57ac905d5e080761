// The conversion policy of the format 2.0 to 3.0 step: default or strict.
//
// Default: every step as the format has it. Results that the format leaves
// unchecked stay unchecked, the legacy readers stay lenient on malformed data, and
// a user whose steps ran through loses its old key even when part of it did not
// reach the store (a secret that could not be sealed, a template read from a
// malformed item). What it moved without is traced all the same ("Incomplete user
// '<SID>' moved with gaps: <what is missing>", in the strict policy's words).
//
// Strict: a user's old key is deleted only when all of the user reached the store.
// Anything left behind fails the user with NV_E_USER_INCOMPLETE and a trace line
// naming what is missing; the user keeps its old key (and what already reached the
// store stays there), and a later Convert tries it again.
//
// The policy is the REG_DWORD "StrictConversion" under
// HKLM\SOFTWARE\Norvane\Policies\Default, read the way "LogonInfoName" is read (key
// opened for reading in the library's own registry view), once per Convert. Only a
// REG_DWORD of 4 bytes holding 1 turns strict on; anything else, or no value, is the
// default policy.
#pragma once
#include <windows.h>
#include <nvdbconv/nvdbconv.h>

namespace nvconv3 {

inline constexpr const wchar_t kStrictConversionValue[] = NVDBCONV_VALUE_STRICT_CONVERSION;
inline constexpr DWORD kStrictConversionOn = NVDBCONV_STRICT_CONVERSION_ON;

// The result of a user that did not reach the store completely under the strict
// policy; the user keeps its old key (the SDK header's code).
using ::NV_E_USER_INCOMPLETE;

enum class ConversionPolicy { Default, Strict };

// Reads the policy value now (no caching): the converter calls it once per Convert.
ConversionPolicy ReadConversionPolicy();

} // namespace nvconv3
