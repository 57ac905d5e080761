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
    // How the sample conversions start: thread 7 on 11/15/26 at 09:30:00.125 enters
    // Convert and do_Convert, and the first user's conversion begins.
    SampleTrace& ConversionBegins()
    {
        return Add(7, 't', "11/15/26")
            .Add(7, 'T', "09:30:00.125")
            .Add(7, '>', "CBaseConverter::Convert")
            .Add(7, '>', "CConverter3::do_Convert")
            .Add(7, 'U', "Conversion process began for 'S-1-5-21-1-2-3-1001'");
    }

    // A user the conversion moves: began, its old key deleted, over with the status.
    SampleTrace& UserMoved(std::uint32_t thread, const std::string& sid, const std::string& status)
    {
        return Add(thread, 'U', "Conversion process began for '" + sid + "'")
            .Add(thread, 'U', "DeleteKey('" + sid + "'), 0x00000000")
            .Add(thread, 'U', "Conversion process is over for '" + sid + "', " + status);
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
