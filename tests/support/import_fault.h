// ImportFault: makes one platform function fail for the library code linked into
// the test executable, through the executable's own import table (ImportPatch).
// While an instance lives, every call of the function on the thread that made the
// instance is counted; the chosen call (or every call) returns the chosen result with
// the chosen last error, and the others go on to the platform, as do the calls of
// other threads (the test framework's own). The patch is undone when the instance ends.
//
//   ImportFault<decltype(&::GetFinalPathNameByHandleW)> fault("GetFinalPathNameByHandleW", 0,
//                                                              ERROR_ACCESS_DENIED);
//
// One instance per function type at a time (the hook finds it through a static).
#pragma once
#include <windows.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "support/import_patch.h"

namespace nvtest {

template <class Fn>
class ImportFault;

template <class R, class... A>
class ImportFault<R(WINAPI*)(A...)> {
public:
    static constexpr unsigned kEveryCall = 0;

    // Fails call number `failCall` from now (1 = the next), or every call for kEveryCall.
    ImportFault(const std::string& name, R result, DWORD lastError, unsigned failCall = kEveryCall)
        : m_result(result), m_lastError(lastError), m_failCall(failCall)
    {
        EXPECT_EQ(nullptr, s_active) << "a second ImportFault of this function type";
        s_active = this;
        m_patch = std::make_unique<ImportPatch>(::GetModuleHandleW(nullptr),
                                                std::map<std::string, void*>{{name, reinterpret_cast<void*>(&Hook)}});
        m_original = reinterpret_cast<R(WINAPI*)(A...)>(m_patch->Original(name));
        EXPECT_TRUE(m_patch->ok() && m_original) << name << " is not imported by the test executable";
    }
    ~ImportFault()
    {
        m_patch.reset();
        s_active = nullptr;
    }
    ImportFault(const ImportFault&) = delete;
    ImportFault& operator=(const ImportFault&) = delete;

    unsigned calls() const { return m_calls; }
    unsigned failed() const { return m_failed; }

private:
    static R WINAPI Hook(A... args)
    {
        ImportFault* self = s_active;
        if (::GetCurrentThreadId() != self->m_thread)
            return self->m_original(args...);
        ++self->m_calls;
        if (self->m_failCall == kEveryCall || self->m_calls == self->m_failCall) {
            ++self->m_failed;
            ::SetLastError(self->m_lastError);
            return self->m_result;
        }
        return self->m_original(args...);
    }

    static inline ImportFault* s_active = nullptr;
    std::unique_ptr<ImportPatch> m_patch;
    R(WINAPI* m_original)(A...) = nullptr;
    R m_result;
    DWORD m_lastError;
    unsigned m_failCall;
    DWORD m_thread = ::GetCurrentThreadId();
    unsigned m_calls = 0;
    unsigned m_failed = 0;
};

} // namespace nvtest
