// FaultChildTest: the fixture of tests that run nvfaults' child against the fault
// database (fault_world.h) and read the calls it numbers: a store sandbox, the
// database written afresh on request with small user keys, a call file of the test's
// own, and the reader of that file.
#pragma once
#include <windows.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fault_hooks.h"
#include "support/process_runner.h"
#include "support/store_sandbox.h"
#include "writer/db20_writer.h"

namespace nvfaults {

// The call records of a file nvfaults wrote; empty when there is none.
std::vector<CallRecord> ReadCallRecords(const std::wstring& file);

class FaultChildTest : public nvtest::StoreSandbox {
protected:
    // tag names the call file: "nvfaults-<tag>-<pid>.txt" in the temporary folder.
    explicit FaultChildTest(const wchar_t* tag) : m_tag(tag) {}
    void SetUp() override;
    void TearDown() override;
    // Wipes the suite's keys and the store's containers and writes the database.
    void WriteFreshDatabase();
    // Runs "nvfaults child <args>" with the test's call file as its output.
    nvtest::ProcessRun Child(const std::wstring& args);

    nvwriter::Db20Database m_db;
    std::wstring m_calls;

private:
    const wchar_t* m_tag;
};

} // namespace nvfaults
