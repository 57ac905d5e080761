// Registry paths of the conversion frame, relative to HKEY_LOCAL_MACHINE.
#pragma once

namespace nvframe {

// The key that only a database still being converted to 3.0 holds.
inline constexpr const wchar_t kMainDBKeyPath[] = L"SOFTWARE\\Norvane\\DB\\MainDB";

} // namespace nvframe
