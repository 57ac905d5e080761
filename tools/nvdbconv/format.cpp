#include "format.h"

#include <cstdarg>
#include <cstdio>

#include "json.h"

namespace nvdbconv {

std::string Fmt(const char* format, ...)
{
    char buf[2048];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buf, sizeof(buf), format, args);
    va_end(args);
    return buf;
}

std::string U8(const std::wstring& text) { return ToUtf8(text); }

std::string VersionText(DWORD version)
{
    return std::to_string(version >> 16) + "." + std::to_string(version & 0xFFFF);
}

std::string VersionWithCode(DWORD version)
{
    return version == 0 ? std::string("none (0x00000000)") : VersionText(version) + Fmt(" (0x%08lX)", version);
}

} // namespace nvdbconv
