// The fleet roll-up's cost: nvtrace --csv over a folder of generated traces, against
// a floor measured in the same run, reading the same files (the same folder walk,
// every byte read with the decoder's own file reader, nothing decoded) with as many
// threads as nvtrace is given CPUs.
// Beside it, on one CPU, the same walk with every file decoded and nothing more (no
// rows): the share of the time that decoding itself takes, damage checks included.
// Prints human-readable lines and, per figure,
//   ROW,<figure>,<ours>,<floor or anchor>,<ratio>,<goal>,<unit>
// for scripts/bench's table. Nothing is asserted.
//
//   nvtrace_rollup_bench --nvtrace PATH --dir SCRATCH [--traces N] [--runs R] [--cpus A[,B]]
//
// Each run measures twice, the floor and nvtrace alike: first both pinned to CPU A,
// then both allowed CPUs A and B. nvtrace is given no --jobs, so it reads as many
// files at once as it has CPUs (one, then two), and the floor reads with one thread,
// then two: the second figure shows whether the extra CPU serves the roll-up as well
// as it serves plain reading, and nvtrace's CPU time (user + system) beside its wall
// time shows what it costs. The CPUs default to the first two this program may run
// on; with only one, the second measurement is left out.
//
// nvtrace runs as a child process (as a support engineer runs it), so its peak
// memory is its own: the resident high-water mark from wait4. The same figure for a
// tenth of the traces is the anchor that shows memory does not grow with their number.
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "child_run.h"
#include "nvtracelib.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kTracesPerFolder = 1000;

struct Options : nvbench::BenchOptions {
    std::size_t traces = 10000;
    std::vector<int> cpus; // A, then B when there is a second
};

void Append(std::vector<std::uint8_t>& out, std::uint32_t thread, char kind, const std::string& text = "")
{
    const std::vector<std::uint8_t> record = nvtrace::EncodeRecord(thread, kind, text);
    out.insert(out.end(), record.begin(), record.end());
}

// One machine's trace: a status query, then a 2.0 -> 3.0 conversion of a few users
// with the outcomes a fleet shows (most moved, some with gaps, held or failed), the
// scopes and lines of the library's own trace around them.
std::vector<std::uint8_t> GeneratedTrace(std::size_t n)
{
    std::vector<std::uint8_t> out;
    char machine[32];
    std::snprintf(machine, sizeof(machine), "PC-%05zu", n);
    for (const std::string& line :
         {std::string("trace3"), std::string("Compiled: Sep 15 2010 11:26:51"), std::string("OS: Windows10"),
          std::string("ServicePack: "), std::string("Machine name: ") + machine, std::string("Trace Ver: 3.0.1"),
          std::string("FileVersion: 3.0.1.0"), std::string("No Palmera products found"),
          std::string("installation: LOCAL"), std::string("11/25/2026 08:00:00.000"), std::string(".")}) {
        out.insert(out.end(), line.begin(), line.end());
        out.push_back('\r');
        out.push_back('\n');
    }
    const std::uint32_t t = 1000 + static_cast<std::uint32_t>(n % 5000);
    Append(out, t, 't', "11/25/26");
    Append(out, t, 'T', "08:00:00.010");
    Append(out, t, '>', "CDBConverter::FinalConstruct");
    Append(out, t, 'U', "wszVersion = 2.0");
    Append(out, t, 'U', "m_dwVersion = 0x20000");
    Append(out, t, '<');
    Append(out, 0, 'N', "11-25-2026");
    Append(out, t + 1, 'T', "08:01:00.000");
    Append(out, t + 1, '>', "CDBConverter::FinalConstruct");
    Append(out, t + 1, 'U', "wszVersion = 2.0");
    Append(out, t + 1, '<');
    Append(out, t + 1, '>', "CBaseConverter::Convert");
    Append(out, t + 1, '>', "CBaseConverter::Backup");
    Append(out, t + 1, '>', "CBaseConverter::CopyKey");
    Append(out, t + 1, '<');
    Append(out, t + 1, 'U', "backup key created, name stored");
    Append(out, t + 1, '<');
    Append(out, t + 1, '>', "CConverter3::do_Convert");
    for (std::size_t u = 0; u < 6; ++u) {
        char sid[128];
        std::snprintf(sid, sizeof(sid), "S-1-5-21-%zu-%zu-%zu-%zu", 1000 + n, 2000 + n % 97, 3000 + n % 13, 1001 + u);
        Append(out, t + 1, 'T', "08:01:0" + std::to_string(u) + ".250");
        Append(out, t + 1, 'U', std::string("Conversion process began for '") + sid + "'");
        Append(out, t + 1, '>', "CLocalDBUserExtractor::InternalLoadSecretsToMap");
        Append(out, t + 1, '>', "CNVDBRegSet::ReadAnyField");
        Append(out, t + 1, '<');
        Append(out, t + 1, '<');
        Append(out, t + 1, 'U', "Read password secret from old DB");
        const std::size_t kind = (n + u) % 10;
        if (kind == 7) {
            Append(out, t + 1, '>', "CNVSecret::GetContent");
            Append(out, t + 1, 'E', "-2146893819 ");
            Append(out, t + 1, '<');
            Append(out, t + 1, 'U', std::string("Conversion process is over for '") + sid + "', 0x80090005");
            continue;
        }
        if (kind == 8) {
            Append(out, t + 1, 'U', std::string("Incomplete user '") + sid +
                                        "' moved with gaps: secret not stored 'SystemLogonInfo' (0x80004005)");
        }
        Append(out, t + 1, 'U', "Retrieve payload");
        Append(out, t + 1, 'U', std::string("DeleteKey('") + sid + "'), 0x00000000");
        Append(out, t + 1, 'U', std::string("Conversion process is over for '") + sid + "', 0x8009000D");
    }
    Append(out, t + 1, '<');
    Append(out, t + 1, '<');
    return out;
}

void Generate(const Options& o)
{
    fs::remove_all(o.dir);
    for (std::size_t n = 0; n < o.traces; ++n) {
        char folder[32], name[64];
        std::snprintf(folder, sizeof(folder), "m%03zu", n / kTracesPerFolder);
        std::snprintf(name, sizeof(name), "setup.NVDBConv.dll.x64.%05zu.trc3", n);
        const fs::path dir = fs::path(o.dir) / folder;
        fs::create_directories(dir);
        const std::vector<std::uint8_t> bytes = GeneratedTrace(n);
        std::ofstream out(dir / name, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
}

// The floor: the same walk over the same files, each read whole into memory (as the
// decoder reads it) and let go. With a decoder, each file is also decoded (heads,
// unscrambling and the checks that find damage) and nothing more: no row, no output.
// That is the part of nvtrace's time that no roll-up of these traces can skip.
std::vector<fs::directory_entry> SortedEntries(const fs::path& dir)
{
    std::vector<fs::directory_entry> entries;
    for (const fs::directory_entry& e : fs::directory_iterator(dir))
        entries.push_back(e);
    std::sort(entries.begin(), entries.end(),
              [](const fs::directory_entry& a, const fs::directory_entry& b) { return a.path() < b.path(); });
    return entries;
}

std::uint64_t ReadAll(const fs::path& dir, nvtrace::TraceDecoder* decoder = nullptr);

std::uint64_t ReadEntry(const fs::directory_entry& e, nvtrace::TraceDecoder* decoder)
{
    if (e.is_directory())
        return ReadAll(e.path(), decoder);
    std::vector<std::uint8_t> data;
    std::string error;
    if (!nvtrace::ReadWholeFile(e.path().string(), data, error))
        return 0;
    if (decoder && !decoder->Decode(data.data(), data.size()).ok)
        std::fprintf(stderr, "%s does not decode\n", e.path().c_str());
    return data.size();
}

std::uint64_t ReadAll(const fs::path& dir, nvtrace::TraceDecoder* decoder)
{
    std::uint64_t bytes = 0;
    for (const fs::directory_entry& e : SortedEntries(dir))
        bytes += ReadEntry(e, decoder);
    return bytes;
}

// The floor on several CPUs: the same walk and reads by as many threads, each taking
// the next entry of the top folder (the generated traces lie in folders of a
// thousand; a top folder that holds one folder alone, as a small run's does, is
// passed for the one inside) and reading it as ReadAll does. nvtrace on two CPUs
// reads with two threads, so its floor there is the same bytes read with two:
// against one thread's, a second CPU would seem to leave room for the roll-up that
// plain reading would use as well.
std::uint64_t ReadAllThreaded(const fs::path& dir, std::size_t threads)
{
    std::vector<fs::directory_entry> entries = SortedEntries(dir);
    while (threads > 1 && entries.size() == 1 && entries.front().is_directory())
        entries = SortedEntries(entries.front().path());
    std::atomic<std::size_t> next{0};
    std::atomic<std::uint64_t> bytes{0};
    const auto work = [&] {
        for (std::size_t i = next++; i < entries.size(); i = next++)
            bytes += ReadEntry(entries[i], nullptr);
    };
    std::vector<std::thread> others;
    for (std::size_t t = 1; t < threads; ++t)
        others.emplace_back(work);
    work();
    for (std::thread& t : others)
        t.join();
    return bytes;
}

const char* ThreadsWord(std::size_t threads) { return threads == 1 ? "one thread" : "two threads"; }

using nvbench::ChildRun;
using nvbench::Median;
using nvbench::Seconds;

// This process, and the children it starts from now on, on these CPUs only.
bool RunOn(const std::vector<int>& cpus)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    for (const int cpu : cpus)
        CPU_SET(cpu, &set);
    return ::sched_setaffinity(0, sizeof(set), &set) == 0;
}

// The first two CPUs this process may run on (one when it has only one).
std::vector<int> OwnCpus()
{
    std::vector<int> cpus;
    cpu_set_t set;
    if (::sched_getaffinity(0, sizeof(set), &set) != 0)
        return cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE && cpus.size() < 2; ++cpu)
        if (CPU_ISSET(cpu, &set))
            cpus.push_back(cpu);
    return cpus;
}

// nvtrace --csv <dir>, its output discarded.
ChildRun RunNvtrace(const std::string& nvtrace, const std::string& dir) { return nvbench::RunChild({nvtrace, "--csv", dir}); }

bool ParseOptions(int argc, char** argv, Options& o)
{
    const bool known = nvbench::ParseBenchOptions(argc, argv, o, [&o](const std::string& a, const std::string& v) {
        if (a == "--traces") {
            o.traces = static_cast<std::size_t>(std::strtoul(v.c_str(), nullptr, 10));
        } else if (a == "--cpus") {
            const std::size_t comma = v.find(',');
            o.cpus.push_back(std::atoi(v.substr(0, comma).c_str()));
            if (comma != std::string::npos)
                o.cpus.push_back(std::atoi(v.substr(comma + 1).c_str()));
        } else {
            return false;
        }
        return true;
    });
    if (o.cpus.empty())
        o.cpus = OwnCpus();
    return known && o.traces >= 10 && !o.cpus.empty() && (o.cpus.size() == 1 || o.cpus[0] != o.cpus[1]);
}

} // namespace

int main(int argc, char** argv)
{
    Options o;
    if (!ParseOptions(argc, argv, o)) {
        std::fprintf(stderr, "usage: nvtrace_rollup_bench --nvtrace PATH --dir SCRATCH [--traces N] [--runs R] "
                             "[--cpus A[,B]]\n");
        return 2;
    }
    Generate(o);
    // A tenth of the traces, for the memory anchor: the first folders, copied by link.
    const std::string tenth = o.dir + "-tenth";
    fs::remove_all(tenth);
    fs::create_directories(tenth);
    std::size_t linked = 0;
    for (std::size_t f = 0; linked < o.traces / 10; ++f) {
        char folder[32];
        std::snprintf(folder, sizeof(folder), "m%03zu", f);
        for (const fs::directory_entry& e : fs::directory_iterator(fs::path(o.dir) / folder)) {
            if (linked == o.traces / 10)
                break;
            fs::create_hard_link(e.path(), fs::path(tenth) / e.path().filename());
            ++linked;
        }
    }
    const std::uint64_t bytes = ReadAll(o.dir); // warms the page cache for both
    std::printf("nvtrace roll-up: %zu traces, %.1f MB, in %s\n", o.traces, static_cast<double>(bytes) / 1048576.0,
                o.dir.c_str());

    // One series per CPU set: on A alone, then on A and B.
    struct Series {
        std::vector<int> cpus;
        std::string name;
        std::vector<double> ours, floors, ratios, cpu;
        std::vector<double> decodes, decodeRatios; // one CPU only
    };
    std::vector<Series> series;
    // The names go into scripts/bench's CSV table: no commas.
    series.push_back({{o.cpus[0]}, "one CPU", {}, {}, {}, {}, {}, {}});
    if (o.cpus.size() > 1)
        series.push_back({o.cpus, "two CPUs", {}, {}, {}, {}, {}, {}});
    for (const Series& s : series) {
        std::printf("  %s: CPU %d%s\n", s.name.c_str(), s.cpus[0],
                    s.cpus.size() > 1 ? (" and " + std::to_string(s.cpus[1])).c_str() : "");
    }
    std::vector<double> peaks;
    nvtrace::TraceDecoder decoder;
    for (int run = 0; run < o.runs; ++run) {
        for (Series& s : series) {
            if (!RunOn(s.cpus)) {
                std::fprintf(stderr, "cannot run on %s\n", s.name.c_str());
                return 1;
            }
            // The floor reads with as many threads as nvtrace has CPUs.
            auto start = std::chrono::steady_clock::now();
            ReadAllThreaded(o.dir, s.cpus.size());
            const double floor = Seconds(start);
            const ChildRun r = RunNvtrace(o.nvtrace, o.dir);
            if (r.exitCode != 0) {
                std::fprintf(stderr, "nvtrace --csv failed (exit %d)\n", r.exitCode);
                return 1;
            }
            s.ours.push_back(r.seconds);
            s.floors.push_back(floor);
            s.ratios.push_back(r.seconds / floor);
            s.cpu.push_back(r.cpuSeconds);
            peaks.push_back(r.peakMb);
            std::printf("  run %d, %s: nvtrace --csv %.3f s (CPU %.3f s), reading the files with %s %.3f s, ratio "
                        "%.2f, peak %.1f MB\n",
                        run + 1, s.name.c_str(), r.seconds, r.cpuSeconds, ThreadsWord(s.cpus.size()), floor,
                        r.seconds / floor, r.peakMb);
            if (s.cpus.size() == 1) {
                start = std::chrono::steady_clock::now();
                ReadAll(o.dir, &decoder);
                const double decode = Seconds(start);
                s.decodes.push_back(decode);
                s.decodeRatios.push_back(decode / floor);
                std::printf("  run %d, %s: reading and decoding the files (no rows) %.3f s, ratio %.2f\n", run + 1,
                            s.name.c_str(), decode, decode / floor);
            }
        }
    }
    // The anchor where nvtrace reads the most files at once.
    RunOn(series.back().cpus);
    const ChildRun small = RunNvtrace(o.nvtrace, tenth);
    fs::remove_all(tenth);

    const double peak = *std::max_element(peaks.begin(), peaks.end());
    char figure[240];
    for (const Series& s : series) {
        const double oursMs = Median(s.ours) * 1e3, floorMs = Median(s.floors) * 1e3;
        std::snprintf(figure, sizeof(figure),
                      "nvtrace --csv %zu traces on %s (floor reading the same files with %s; median of %d runs' "
                      "ratios)",
                      o.traces, s.name.c_str(), ThreadsWord(s.cpus.size()), o.runs);
        std::printf("ROW,%s,%.3f,%.3f,%.3f,<=1.5,ms\n", figure, oursMs, floorMs, Median(s.ratios));
        std::snprintf(figure, sizeof(figure), "nvtrace --csv %zu traces on %s: CPU time (user+system) against wall time",
                      o.traces, s.name.c_str());
        std::printf("ROW,%s,%.3f,%.3f,%.3f,,ms\n", figure, Median(s.cpu) * 1e3, oursMs, Median(s.cpu) * 1e3 / oursMs);
        if (!s.decodes.empty()) {
            std::snprintf(figure, sizeof(figure),
                          "reading and decoding the same %zu traces on %s (no rows; floor reading them)", o.traces,
                          s.name.c_str());
            std::printf("ROW,%s,%.3f,%.3f,%.3f,,ms\n", figure, Median(s.decodes) * 1e3, floorMs,
                        Median(s.decodeRatios));
        }
        std::snprintf(figure, sizeof(figure), "nvtrace --csv %zu traces on %s: traces per second", o.traces,
                      s.name.c_str());
        std::printf("ROW,%s,%.1f,,,,traces/s\n", figure, static_cast<double>(o.traces) / Median(s.ours));
    }
    std::snprintf(figure, sizeof(figure), "nvtrace --csv %zu traces: peak memory (anchor %zu traces)", o.traces,
                  o.traces / 10);
    std::printf("ROW,%s,%.1f,%.1f,%.3f,<=64,MB\n", figure, peak, small.peakMb, peak / small.peakMb);
    std::fflush(stdout);
    return 0;
}
