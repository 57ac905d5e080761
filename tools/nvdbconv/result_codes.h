// Result codes as the host shows them: the code in hex, its symbolic name where it
// is one of the common ones, and the system's message text (FormatMessage).
#pragma once
#include <windows.h>
#include <optional>
#include <string>

#include "json.h"

namespace nvdbconv {

// "0x80004005"
std::string HexCode(HRESULT hr);
// "E_FAIL", "S_FALSE", "HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)", ...; empty when
// the code is none of the known ones.
std::string SymbolOf(HRESULT hr);
// The system's message text for the code, without the trailing line break; a
// Win32-facility code falls back to the text of its Win32 error. Empty when the
// system has none, and for S_FALSE: 1 is no error number there, and the system's
// text for Win32 error 1 ("Invalid function.") would say something untrue.
std::string SystemMessage(HRESULT hr);
// What the result means: for S_FALSE the library's own meaning for the call that
// returned it ("Cleanup": "no backup to remove"), otherwise the system's message.
std::string ResultMessage(HRESULT hr, const char* call = nullptr);
// One line: 0x80004005 E_FAIL "Unspecified error"; 0x00000001 S_FALSE "no backup to remove"
std::string DescribeResult(HRESULT hr, const char* call = nullptr);

// {"hr":"0x80004005","code":-2147467259,"symbol":"E_FAIL","message":"...","ok":false}
Json ResultJson(HRESULT hr, const char* call = nullptr);
// The code of such an object ("hr": ten characters, "0x" and eight hex digits); none
// when it is not one.
std::optional<HRESULT> ResultFromJson(const Json& result);

// The answers Convert gives before it backs anything up: another process holds the
// conversion (a backup there may be that one's), the library found no step, or the
// caller may not convert. After any other failure the step ran, and its rollback.
bool ConvertMadeNoBackup(HRESULT hr);

} // namespace nvdbconv
