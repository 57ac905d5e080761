// Builds trace file images the way the library writes them, for the decoder tests.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "nvtracelib.h"

namespace nvtrace_test {

inline std::vector<std::uint8_t> HeaderBytes(const std::vector<std::string>& lines)
{
    std::vector<std::uint8_t> out;
    for (const std::string& line : lines) {
        out.insert(out.end(), line.begin(), line.end());
        out.push_back('\r');
        out.push_back('\n');
    }
    return out;
}

inline const std::vector<std::string>& StandardHeader()
{
    static const std::vector<std::string> lines = {
        "trace3",
        "Compiled: Sep 15 2010 11:26:51",
        "OS: Windows7",
        "ServicePack: Service Pack 1",
        "Machine name: BUILD01",
        "Trace Ver: 3.0.1",
        "FileVersion: 3.0.1.0",
        "No Palmera products found",
        "installation: NETWORK",
        "11/15/2026 09:30:00.125",
        ".",
    };
    return lines;
}

class SampleTrace {
public:
    SampleTrace() : m_bytes(HeaderBytes(StandardHeader())) {}
    explicit SampleTrace(const std::vector<std::string>& header) : m_bytes(HeaderBytes(header)) {}

    SampleTrace& Add(std::uint32_t thread, char kind, const std::string& text = "")
    {
        const std::vector<std::uint8_t> record = nvtrace::EncodeRecord(thread, kind, text);
        m_bytes.insert(m_bytes.end(), record.begin(), record.end());
        return *this;
    }
    SampleTrace& AddRaw(const std::vector<std::uint8_t>& bytes)
    {
        m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
        return *this;
    }
    std::size_t size() const { return m_bytes.size(); }
    const std::vector<std::uint8_t>& bytes() const { return m_bytes; }
    std::vector<std::uint8_t> Truncated(std::size_t size) const
    {
        return std::vector<std::uint8_t>(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(size));
    }

private:
    std::vector<std::uint8_t> m_bytes;
};

} // namespace nvtrace_test
