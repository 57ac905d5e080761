// One long trace, read by one nvtrace: the summary, and the page with the timeline
// file, for four shapes of trace at a size and at four times that size. A reader
// that keeps to one pass over the records takes about four times as long and as
// much memory at four times the size; one that searches its lists for every user,
// process or thread takes sixteen. Prints human-readable lines and, per figure,
//   ROW,<figure>,<ours>,<anchor>,<ratio>,,<unit>
// for scripts/bench's table (no goal: 4 is linear). Nothing is asserted.
//
//   nvtrace_long_trace_bench --nvtrace PATH --dir SCRATCH [--size N] [--runs R]
//
// The shapes, at size N:
//   users:     one conversion of N users, every third kept with a failing result;
//   processes: N users in processes of 6 (the file appended to by each run);
//   threads:   N records' worth of threads, each named once (a damaged or crafted
//              file: the library's own traces have a few threads a process);
//   nesting:   N scopes each inside the one before, and a failing result at every
//              level on the way out (crafted too: the library nests a few levels).
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "child_run.h"
#include "nvtracelib.h"

namespace {

namespace fs = std::filesystem;

class TraceWriter {
public:
    TraceWriter()
    {
        for (const char* line : {"trace3", "Compiled: Sep 15 2010 11:26:51", "OS: Windows10", "ServicePack: ",
                                 "Machine name: LONG", "Trace Ver: 3.0.1", "FileVersion: 3.0.1.0",
                                 "No Palmera products found", "installation: LOCAL", "11/25/2026 08:00:00.000", "."}) {
            const std::string text = std::string(line) + "\r\n";
            m_bytes.insert(m_bytes.end(), text.begin(), text.end());
        }
    }

    TraceWriter& Add(std::uint32_t thread, char kind, const std::string& text = "")
    {
        const std::vector<std::uint8_t> record = nvtrace::EncodeRecord(thread, kind, text);
        m_bytes.insert(m_bytes.end(), record.begin(), record.end());
        return *this;
    }

    // A user's conversion as the library traces it: moved, or kept by a failure.
    TraceWriter& User(std::uint32_t thread, std::size_t n)
    {
        const std::string sid = "S-1-5-21-1-2-3-" + std::to_string(1000 + n);
        Add(thread, 'U', "Conversion process began for '" + sid + "'");
        Add(thread, '>', "CLocalDBUserExtractor::InternalLoadSecretsToMap").Add(thread, '<');
        if (n % 3 == 0) {
            Add(thread, '>', "CNVSecret::GetContent").Add(thread, 'E', "-2146893819 ").Add(thread, '<');
            return Add(thread, 'U', "Conversion process is over for '" + sid + "', 0x80090005");
        }
        Add(thread, 'U', "Retrieve payload").Add(thread, 'U', "DeleteKey('" + sid + "'), 0x00000000");
        return Add(thread, 'U', "Conversion process is over for '" + sid + "', 0x8009000D");
    }

    std::size_t Write(const fs::path& path) const
    {
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(m_bytes.data()), static_cast<std::streamsize>(m_bytes.size()));
        return m_bytes.size();
    }

private:
    std::vector<std::uint8_t> m_bytes;
};

TraceWriter Users(std::size_t n)
{
    TraceWriter w;
    w.Add(7, 't', "11/25/26").Add(7, 'T', "08:00:00.010");
    w.Add(7, '>', "CBaseConverter::Convert").Add(7, '>', "CConverter3::do_Convert");
    for (std::size_t u = 0; u < n; ++u)
        w.User(7, u);
    w.Add(7, '<').Add(7, '<');
    return w;
}

TraceWriter Processes(std::size_t n)
{
    TraceWriter w;
    for (std::size_t p = 0; p < n / 6; ++p) {
        const std::uint32_t thread = 100 + static_cast<std::uint32_t>(p % 7);
        if (p > 0)
            w.Add(0, 'N', "11-25-2026");
        w.Add(thread, 'T', "08:00:00.010").Add(thread, '>', "CBaseConverter::Convert");
        for (std::size_t u = 0; u < 6; ++u)
            w.User(thread, p * 6 + u);
        w.Add(thread, '<');
    }
    return w;
}

TraceWriter Threads(std::size_t n)
{
    TraceWriter w;
    for (std::size_t t = 0; t < n; ++t)
        w.Add(static_cast<std::uint32_t>(t), '>', "CBaseConverter::Convert").Add(static_cast<std::uint32_t>(t), 'E', "-2147467259 ");
    return w;
}

TraceWriter Nesting(std::size_t n)
{
    TraceWriter w;
    for (std::size_t level = 0; level < n; ++level)
        w.Add(9, '>', "Scope" + std::to_string(level));
    for (std::size_t level = 0; level < n; ++level)
        w.Add(9, 'E', "-2147467259 ").Add(9, '<');
    return w;
}

struct Options : nvbench::BenchOptions {
    std::size_t size = 10000;
};

bool ParseOptions(int argc, char** argv, Options& o)
{
    const bool known = nvbench::ParseBenchOptions(argc, argv, o, [&o](const std::string& a, const std::string& v) {
        if (a != "--size")
            return false;
        o.size = static_cast<std::size_t>(std::strtoul(v.c_str(), nullptr, 10));
        return true;
    });
    return known && o.size >= 20;
}

struct Measured {
    double ms = 0, peakMb = 0;
};

// The median time and the highest peak of `runs` runs; false when nvtrace failed.
bool Measure(const std::vector<std::string>& args, int runs, Measured& m)
{
    std::vector<double> times;
    for (int r = 0; r < runs; ++r) {
        const nvbench::ChildRun run = nvbench::RunChild(args);
        if (run.exitCode != 0) {
            std::fprintf(stderr, "%s failed (exit %d)\n", args[1].c_str(), run.exitCode);
            return false;
        }
        times.push_back(run.seconds * 1e3);
        m.peakMb = std::max(m.peakMb, run.peakMb);
    }
    m.ms = nvbench::Median(times);
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    Options o;
    if (!ParseOptions(argc, argv, o)) {
        std::fprintf(stderr, "usage: nvtrace_long_trace_bench --nvtrace PATH --dir SCRATCH [--size N] [--runs R]\n");
        return 2;
    }
    fs::remove_all(o.dir);
    fs::create_directories(o.dir);
    struct Shape {
        const char* name;
        const char* what;
        TraceWriter (*make)(std::size_t);
    };
    const Shape shapes[] = {{"users", "users in one conversion", Users},
                            {"processes", "users in processes of 6", Processes},
                            {"threads", "threads named once each", Threads},
                            {"nesting", "scopes nested in each other", Nesting}};
    const fs::path page = fs::path(o.dir) / "page.html", events = fs::path(o.dir) / "events.json";
    for (const Shape& shape : shapes) {
        Measured summary[2], timeline[2];
        double mb[2] = {0, 0};
        for (int big = 0; big < 2; ++big) {
            const std::size_t n = big ? 4 * o.size : o.size;
            const fs::path trace = fs::path(o.dir) / (std::string(shape.name) + std::to_string(n) + ".trc3");
            mb[big] = static_cast<double>(shape.make(n).Write(trace)) / 1048576.0;
            if (!Measure({o.nvtrace, "--summary", trace.string()}, o.runs, summary[big]) ||
                !Measure({o.nvtrace, "--html", page.string(), "--chrome-trace", events.string(), trace.string()}, o.runs,
                         timeline[big]))
                return 1;
            std::printf("  %zu %s (%.1f MB): --summary %.1f ms, %.1f MB; --html and --chrome-trace %.1f ms, %.1f MB\n", n,
                        shape.what, mb[big], summary[big].ms, summary[big].peakMb, timeline[big].ms,
                        timeline[big].peakMb);
        }
        const std::size_t n = 4 * o.size;
        char figure[200];
        auto row = [&](const char* output, const Measured (&m)[2]) {
            std::snprintf(figure, sizeof(figure), "nvtrace %s of one trace of %zu %s (anchor %zu)", output, n, shape.what,
                          o.size);
            std::printf("ROW,%s: time,%.3f,%.3f,%.3f,,ms\n", figure, m[1].ms, m[0].ms, m[1].ms / m[0].ms);
            std::printf("ROW,%s: peak memory,%.1f,%.1f,%.3f,,MB\n", figure, m[1].peakMb, m[0].peakMb,
                        m[1].peakMb / m[0].peakMb);
        };
        row("--summary", summary);
        row("--html and --chrome-trace", timeline);
    }
    fs::remove_all(o.dir);
    std::fflush(stdout);
    return 0;
}
