#include "support/computer_name.h"

#include <windows.h>
#include <gtest/gtest.h>

namespace nvtest {

std::wstring ComputerName()
{
    wchar_t name[MAX_PATH];
    DWORD cch = MAX_PATH;
    EXPECT_TRUE(::GetComputerNameExW(ComputerNameNetBIOS, name, &cch));
    return std::wstring(name, cch);
}

} // namespace nvtest
