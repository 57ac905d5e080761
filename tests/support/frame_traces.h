// Trace lines of the conversion frame that more than one test expects whole.
#pragma once
#include <string>
#include <vector>

namespace nvtest {

// The holder detects a 1.0 database, makes a CConverter2 for it and destroys it again.
inline const std::vector<std::string> kDetected10Lines = {
    "> CDBConverter::FinalConstruct",
    "U wszVersion = 1.0",
    "U m_dwVersion = 0x10000",
    "> CBaseConverter::CreateConverter", "U Using CConverter2",
    "> CBaseConverter::CBaseConverter", "<", "> CConverter2::CConverter2", "<",
    "<",
    "<",
    "> CConverter2::~CConverter2", "<",
};

} // namespace nvtest
