#include "support/trace_capture.h"

#include <atomic>
#include <sstream>

#include "trace/trace.h"

namespace nvtest {

namespace {

constexpr const wchar_t kTracingKey[] = L"SOFTWARE\\Norvane\\Tracing";

std::wstring NewTempPath()
{
    static std::atomic<unsigned> counter{0};
    wchar_t dir[MAX_PATH];
    DWORD n = ::GetTempPathW(MAX_PATH, dir);
    std::wstring base = (n > 0 && n < MAX_PATH) ? std::wstring(dir, n) : std::wstring(L".\\");
    return base + L"nvtrace_capture_" + std::to_wstring(::GetCurrentProcessId()) + L"_" +
           std::to_wstring(::GetTickCount()) + L"_" + std::to_wstring(counter++) + L".trc3";
}

} // namespace

TraceCapture::TraceCapture() : m_path(NewTempPath()) {}

TraceCapture::~TraceCapture()
{
    ResetInProcess();
    ::DeleteFileW(m_path.c_str());
}

void TraceCapture::ResetInProcess() { NVTraceNS::ResetForTesting(); }

void TraceCapture::Start(DWORD verbosity)
{
    ResetInProcess();
    ::DeleteFileW(m_path.c_str());
    CreateKeyPath(kTracingKey, kViewNative);
    SetDword(kTracingKey, L"DoTrace", 1, kViewNative);
    SetDword(kTracingKey, L"TraceToFile", 1, kViewNative);
    SetDword(kTracingKey, L"NewFileAlways", 1, kViewNative);
    SetDword(kTracingKey, L"Verbosity", verbosity, kViewNative);
    SetString(kTracingKey, L"FileName", m_path, kViewNative);
}

void TraceCapture::SetVerbosity(DWORD verbosity)
{
    SetDword(kTracingKey, L"Verbosity", verbosity, kViewNative);
    ResetInProcess();
}

bool TraceCapture::FileExists() const
{
    return ::GetFileAttributesW(m_path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::vector<std::uint8_t> TraceCapture::Bytes() const
{
    std::vector<std::uint8_t> data;
    // The writer keeps the file open, shared for reading and writing.
    HANDLE file = ::CreateFileW(m_path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return data;
    LARGE_INTEGER size = {};
    if (::GetFileSizeEx(file, &size) && size.QuadPart > 0 && size.QuadPart < (64 << 20)) {
        data.resize(static_cast<std::size_t>(size.QuadPart));
        DWORD read = 0;
        if (!::ReadFile(file, data.data(), static_cast<DWORD>(data.size()), &read, nullptr))
            read = 0;
        data.resize(read);
    }
    ::CloseHandle(file);
    return data;
}

nvtrace::DecodedTrace TraceCapture::Decode() const { return nvtrace::Decode(Bytes()); }

namespace {

nvtrace::DecodedTrace DecodeChecked(const TraceCapture& capture)
{
    nvtrace::DecodedTrace trace = capture.Decode();
    if (!trace.ok) {
        if (!capture.FileExists())
            ADD_FAILURE() << "trace file " << Narrow(capture.path()) << " was not written";
        else
            ADD_FAILURE() << "trace file " << Narrow(capture.path()) << ": " << trace.error;
    }
    return trace;
}

} // namespace

std::vector<nvtrace::Record> TraceCapture::Records() const { return DecodeChecked(*this).records; }

std::vector<std::string> TraceCapture::HeaderLines() const { return DecodeChecked(*this).header; }

std::vector<std::string> TraceCapture::Lines() const
{
    std::vector<std::string> lines;
    for (const nvtrace::Record& r : Records()) {
        if (r.kind != 't' && r.kind != 'T' && r.kind != 'N')
            lines.push_back(nvtrace::CanonicalLine(r));
    }
    return lines;
}

std::vector<std::string> TraceCapture::AllLines() const
{
    std::vector<std::string> lines;
    for (const nvtrace::Record& r : Records())
        lines.push_back(nvtrace::CanonicalLine(r));
    return lines;
}

bool TraceCapture::Contains(const std::string& line) const { return Count(line) > 0; }

std::size_t TraceCapture::Count(const std::string& line) const
{
    std::size_t n = 0;
    for (const std::string& l : Lines())
        n += (l == line) ? 1 : 0;
    return n;
}

std::vector<std::string> TraceCapture::LinesInScope(const std::string& scope, std::size_t occurrence) const
{
    const std::vector<nvtrace::Record> records = Records();
    const std::string enter = "> " + scope;
    std::size_t seen = 0;
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (nvtrace::CanonicalLine(records[i]) != enter || seen++ != occurrence)
            continue;
        const std::uint32_t thread = records[i].thread;
        std::vector<std::string> inside;
        int depth = 1;
        for (std::size_t j = i + 1; j < records.size(); ++j) {
            const nvtrace::Record& r = records[j];
            if (r.thread != thread || r.kind == 't' || r.kind == 'T' || r.kind == 'N')
                continue;
            if (r.kind == '>')
                ++depth;
            else if (r.kind == '<' && --depth == 0)
                return inside;
            inside.push_back(nvtrace::CanonicalLine(r));
        }
        return inside; // not closed (yet): everything after the enter
    }
    return {};
}

std::vector<std::string> TraceCapture::LinesOfThread(std::uint32_t thread) const
{
    std::vector<std::string> lines;
    for (const nvtrace::Record& r : Records()) {
        if (r.thread == thread && r.kind != 't' && r.kind != 'T' && r.kind != 'N')
            lines.push_back(nvtrace::CanonicalLine(r));
    }
    return lines;
}

std::string TraceCapture::Dump() const
{
    const nvtrace::DecodedTrace trace = Decode();
    std::ostringstream out;
    out << "trace file " << Narrow(m_path) << ":\n";
    nvtrace::WriteListing(trace, nvtrace::FormatOptions{}, out);
    if (!trace.ok)
        out << "(" << trace.error << ")\n";
    return out.str();
}

void TraceCaptureTest::SetUp()
{
    RegistrySandbox::SetUp();
    trace.Start();
}

void TraceCaptureTest::TearDown()
{
    TraceCapture::ResetInProcess();
    RegistrySandbox::TearDown();
}

} // namespace nvtest
