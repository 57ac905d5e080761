// The words and figures nvdbconv prints, in one place: printf into a string, UTF-16
// text as UTF-8, counted nouns and format versions.
#pragma once
#include <windows.h>
#include <string>

namespace nvdbconv {

std::string Fmt(const char* format, ...);
std::string U8(const std::wstring& text);
// "1 user", "0 users", "3 users": the noun in the singular for one only.
std::string Counted(unsigned long long n, const char* noun);
// The plural of the noun unless n is one ("of 1 user", "of 3 users").
std::string Noun(unsigned long long n, const char* noun);

// "2.0"
std::string VersionText(DWORD version);
// "2.0 (0x00020000)", or "none (0x00000000)"
std::string VersionWithCode(DWORD version);

} // namespace nvdbconv
