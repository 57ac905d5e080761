// Result codes that tests hand to fakes and fault hooks so that the code under test
// must pass them on unchanged. None of them is a code the system itself answers (no
// SDK header names them), which is what lets a test tell a passed-on failure from
// one the code made up.
#pragma once
#include <windows.h>

namespace nvtest {

// What a test converter's overridable steps (do_Backup, do_Convert, ...) fail with.
inline constexpr HRESULT kHookFailure = static_cast<HRESULT>(0x80041234);
// What a test converter's Cleanup and Rollback fail with.
inline constexpr HRESULT kCleanupFailure = static_cast<HRESULT>(0x80041001);
inline constexpr HRESULT kRollbackFailure = static_cast<HRESULT>(0x80041002);
// What the reference store fails a template write with, in a Win32 facility
// (0x80071234) and outside it (0x80074321).
inline constexpr HRESULT kStorePutFailure = static_cast<HRESULT>(0x80071234);
inline constexpr HRESULT kPutTemplateFailure = static_cast<HRESULT>(0x80074321);

} // namespace nvtest
