// The words and figures nvdbconv prints, in one place: printf into a string, UTF-16
// text as UTF-8, counted nouns (nvtrace's) and format versions.
#pragma once
#include <windows.h>
#include <string>

#include "nvtrace/counted.h"

namespace nvdbconv {

std::string Fmt(const char* format, ...);
std::string U8(const std::wstring& text);
// "1 user", "0 users", "3 users"; and the noun alone ("of 1 user", "of 3 users").
using nvtrace::Counted;
using nvtrace::Noun;

// "2.0"
std::string VersionText(DWORD version);
// "2.0 (0x00020000)", or "none (0x00000000)"
std::string VersionWithCode(DWORD version);

} // namespace nvdbconv
