#include "exit_file.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

class ExitFile {
public:
    ~ExitFile()
    {
        if (m_returned)
            Write(m_result);
    }
    void Write(int result)
    {
        if (m_path.empty())
            return;
        std::fflush(nullptr);
        if (std::FILE* file = std::fopen(m_path.c_str(), "wb")) {
            std::fprintf(file, "%d\n", result);
            std::fclose(file);
        }
        m_path.clear(); // written once
    }
    void Take()
    {
        if (const char* named = std::getenv("NV_TEST_EXIT_FILE")) {
            m_path = named;
            _putenv("NV_TEST_EXIT_FILE=");
        }
    }
    void Result(int result)
    {
        m_result = result;
        m_returned = true;
    }

private:
    std::string m_path;
    int m_result = 0;
    bool m_returned = false;
};

ExitFile g_exitFile __attribute__((init_priority(101)));

} // namespace

namespace nvtest {

void TakeExitFile() { g_exitFile.Take(); }

int ExitWith(int result)
{
    g_exitFile.Result(result);
    return result;
}

void WriteExitFileNow(int result) { g_exitFile.Write(result); }

} // namespace nvtest
