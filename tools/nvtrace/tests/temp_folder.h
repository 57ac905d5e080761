// A folder of its own under /tmp for one test, removed with everything in it at the
// end (native tests only).
#pragma once
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

class TempFolder {
public:
    TempFolder()
    {
        char name[] = "/tmp/nvtrace_test_XXXXXX";
        m_path = ::mkdtemp(name) ? name : "";
        EXPECT_FALSE(m_path.empty());
    }
    ~TempFolder()
    {
        std::error_code ec;
        std::filesystem::remove_all(m_path, ec);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& path() const { return m_path; }
    std::string Path(const std::string& name) const { return m_path + "/" + name; }
    // Writes the bytes to a file of that name (folders made as needed); its path.
    std::string Write(const std::string& name, const std::vector<std::uint8_t>& bytes) const
    {
        const std::string path = Path(name);
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        return path;
    }

private:
    std::string m_path;
};
