// The code a piece of library code raises, for tests of code that throws rather than
// returns (constructors, readers, the boundary helpers themselves).
#pragma once
#include <windows.h>
#include <comdef.h>
#include <gtest/gtest.h>

#include "support/import_fault.h"

namespace nvtest {

// The code of the _com_error that `work` raises; S_OK when it returns.
template <class Work>
HRESULT RaisedCode(Work&& work)
{
    try {
        work();
    } catch (const _com_error& e) {
        return e.Error();
    }
    return S_OK;
}

// The code that making a T raises while the system cannot make its critical
// section (last error `error`); S_OK when it is made.
template <class T>
HRESULT RaisedMakingWithoutCriticalSection(DWORD error)
{
    ImportFault<decltype(&::InitializeCriticalSectionAndSpinCount)> fault("InitializeCriticalSectionAndSpinCount",
                                                                          FALSE, error, 1);
    const HRESULT hr = RaisedCode([] { T object; });
    EXPECT_EQ(1u, fault.calls());
    return hr;
}

} // namespace nvtest
