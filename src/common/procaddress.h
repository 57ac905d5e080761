// Typed GetProcAddress for run-time loaded functions (ntdll, Version.dll, exports
// of our own DLLs). Goes through void* so -Wcast-function-type stays quiet.
#pragma once
#include <windows.h>

namespace nv {

template <class Fn>
Fn GetProcAs(HMODULE module, const char* name) noexcept
{
    if (!module)
        return nullptr;
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

} // namespace nv
