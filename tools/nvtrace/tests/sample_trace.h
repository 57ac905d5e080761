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
    // The opening of a 2.0 -> 3.0 conversion: the file's date and time, then the
    // scopes CBaseConverter::Convert and CConverter3::do_Convert.
    SampleTrace& ConversionStarts(std::uint32_t thread)
    {
        return Add(thread, 't', "11/15/26").Add(thread, 'T', "09:30:00.125").Add(thread, '>', "CBaseConverter::Convert")
            .Add(thread, '>', "CConverter3::do_Convert");
    }
    // The lines CConverter3 writes for one user: its start, the deletion of its old
    // key, and its end with the user's status.
    SampleTrace& UserBegins(std::uint32_t thread, const std::string& sid)
    {
        return Add(thread, 'U', "Conversion process began for '" + sid + "'");
    }
    SampleTrace& OldKeyDeleted(std::uint32_t thread, const std::string& sid)
    {
        return Add(thread, 'U', "DeleteKey('" + sid + "'), 0x00000000");
    }
    SampleTrace& UserEnds(std::uint32_t thread, const std::string& sid, const std::string& status)
    {
        return Add(thread, 'U', "Conversion process is over for '" + sid + "', " + status);
    }
    // A user moved whole: begins, old key deleted, ends with the status.
    SampleTrace& UserMoved(std::uint32_t thread, const std::string& sid, const std::string& status = "0x00000000")
    {
        return UserBegins(thread, sid).OldKeyDeleted(thread, sid).UserEnds(thread, sid, status);
    }
    // A second process (after its 'N' record) whose backup fails three scopes deep
    // with ERROR_NOT_ENOUGH_MEMORY.
    SampleTrace& NextProcessFailsItsBackup(std::uint32_t thread)
    {
        const std::string outOfMemory = "-2147024888 ";
        Add(0, 'N', "11-15-2026").Add(thread, 'T', "10:00:00.000").Add(thread, '>', "CBaseConverter::Convert");
        Add(thread, '>', "CBaseConverter::Backup").Add(thread, '>', "CBaseConverter::CopyKey");
        Add(thread, 'E', outOfMemory).Add(thread, '<').Add(thread, 'E', outOfMemory).Add(thread, '<');
        return Add(thread, 'E', outOfMemory).Add(thread, 'T', "10:00:00.040").Add(thread, '<');
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
