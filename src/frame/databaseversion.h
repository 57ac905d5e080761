// The database's format version as the library reads it from "Version". The holder
// (com/dbconverter.h) reads it at load, and every converter again under the
// conversion lock, so both take it from here.
#pragma once
#include <windows.h>

namespace nvframe {

// Turns a "Version" text into the database version: major from the leading decimal
// number (leading white space and a sign allowed, 0 without digits), minor from the
// number after the first '.', or 0 without one; major << 16 | (minor & 0xFFFF).
DWORD ParseDatabaseVersion(const wchar_t* wszVersion) noexcept;

} // namespace nvframe
