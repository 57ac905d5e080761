// The NetBIOS name of this machine, which the database uses as the name of the
// local store (MainDB) and the trace header records.
#pragma once
#include <string>

namespace nvtest {

// Records a test failure when the name cannot be read.
std::wstring ComputerName();

} // namespace nvtest
