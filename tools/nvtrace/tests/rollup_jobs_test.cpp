// The roll-up reading several files at once: the same rows, notes and exit code as
// one file at a time, in the walk's order; files in flight and memory bounded; the
// default number of jobs follows the CPUs the process may use; --jobs on the
// command line.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "nvtracelib.h"
#include "rollup.h"
#include "sample_trace.h"
#include "temp_folder.h"

using nvtrace_test::SampleTrace;

namespace {

namespace fs = std::filesystem;

std::vector<std::string> HeaderFor(std::size_t n)
{
    return {"trace3", "Compiled: Sep 15 2010 11:26:51", "OS: Windows7", "ServicePack: Service Pack 1",
            "Machine name: PC-" + std::to_string(n), "Trace Ver: 3.0.1", "FileVersion: 3.0.1.0",
            "No Palmera products found", "installation: NETWORK", "11/25/2026 08:00:00.000", "."};
}

// Trace n of a fleet: a conversion of 1 to 40 users (so the files' sizes, and the
// time each takes, differ a lot), some failing.
SampleTrace FleetTrace(std::size_t n)
{
    SampleTrace s(HeaderFor(n));
    s.ConversionStarts(7);
    const std::size_t users = 1 + (n * 7919) % 40;
    for (std::size_t u = 0; u < users; ++u) {
        const std::string sid = "S-1-5-21-" + std::to_string(n) + "-" + std::to_string(1000 + u);
        if ((n + u) % 9 == 4) {
            s.UserBegins(7, sid).Add(7, '>', "CNVSecret::GetContent").Add(7, 'E', "-2147024891 ").Add(7, '<');
            s.UserEnds(7, sid, "0x80070005");
        } else {
            s.UserMoved(7, sid);
        }
    }
    return s.Add(7, '<').Add(7, '<');
}

// A folder of `count` traces in three subfolders: most whole, every 7th cut short,
// every 19th with a date record that is no date, every 11th with a record of no
// known kind, every 13th empty, every 17th no trace at all; plus files that are no
// traces by name. Trace n lies in folder m<n % 3>. Returns which are damaged.
std::vector<bool> WriteFleet(const TempFolder& folder, std::size_t count)
{
    std::vector<bool> damagedAt;
    for (std::size_t n = 0; n < count; ++n) {
        const SampleTrace trace = FleetTrace(n);
        std::vector<std::uint8_t> bytes = trace.bytes();
        bool damaged = true;
        if (n % 17 == 5)
            bytes.assign({'M', 'Z', 0, 0});
        else if (n % 13 == 3)
            bytes.clear();
        else if (n % 19 == 8)
            bytes = SampleTrace(trace).Add(7, 't', "13/45/26").bytes(); // a text the library never writes
        else if (n % 11 == 2)
            bytes[bytes.size() - 3] = 'Z'; // the last record's kind
        else if (n % 7 == 1)
            bytes.resize(bytes.size() - 1 - n % 6); // inside the last record's head
        else
            damaged = false;
        damagedAt.push_back(damaged);
        char name[64];
        std::snprintf(name, sizeof(name), "m%zu/trace-%05zu.%s", n % 3, n, n % 10 == 9 ? "TRC3" : "trc3");
        folder.Write(name, bytes);
    }
    folder.Write("m0/readme.txt", {'h', 'i'});
    folder.Write("m1/trace.trc3.bak", FleetTrace(1).bytes());
    return damagedAt;
}

struct RollupResult {
    int code = -1;
    std::string out, err;
};

RollupResult Rollup(const std::vector<std::string>& paths, nvtrace::RollupFormat format, unsigned jobs,
                    nvtrace::RollupStats* stats = nullptr)
{
    std::ostringstream out, err;
    RollupResult r;
    r.code = nvtrace::RunRollup(paths, format, out, err, jobs, stats);
    r.out = out.str();
    r.err = err.str();
    return r;
}

std::size_t Lines(const std::string& text, const std::string& part)
{
    std::size_t count = 0;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        count += line.find(part) != std::string::npos ? 1 : 0;
    return count;
}

} // namespace

// Many files of very different sizes, damaged ones among them, a missing file and an
// empty folder between the folders: every format gives the one-thread output byte for
// byte, with the same messages in the same order and the same exit code.
TEST(NvtraceRollupJobsTest, SeveralJobsWriteExactlyTheOneThreadOutputInOrder)
{
    const TempFolder fleet, empty;
    constexpr std::size_t kTraces = 1200; // several times the window
    const std::vector<bool> damagedAt = WriteFleet(fleet, kTraces);
    const std::vector<std::string> paths = {fleet.path() + "/m2", "/nonexistent/x.trc3", empty.path(),
                                            fleet.path() + "/m0", fleet.path() + "/m1/trace-00001.trc3",
                                            fleet.path()};
    // The rows the paths give: the traces of m2, the missing file, those of m0, trace
    // 1, then every trace again.
    std::size_t rows = 1 + 1 + kTraces, damaged = (damagedAt[1] ? 1 : 0);
    for (std::size_t n = 0; n < kTraces; ++n) {
        const std::size_t times = 1 + (n % 3 != 1 ? 1 : 0);
        rows += n % 3 != 1 ? 1 : 0;
        damaged += damagedAt[n] ? times : 0;
    }
    const std::string totals = "\"" + std::to_string(rows) + " traces, " + std::to_string(damaged) +
                               " damaged, 1 unreadable\"";
    for (const nvtrace::RollupFormat format :
         {nvtrace::RollupFormat::Csv, nvtrace::RollupFormat::Json, nvtrace::RollupFormat::Summary}) {
        const RollupResult serial = Rollup(paths, format, 1);
        EXPECT_EQ(3, serial.code);
        EXPECT_EQ(1u, Lines(serial.err, "nvtrace: cannot open '/nonexistent/x.trc3'"));
        EXPECT_EQ(1u, Lines(serial.err, "nvtrace: no .trc3 file in '" + empty.path() + "'"));
        EXPECT_EQ(damaged + 1 + 1, Lines(serial.err, "nvtrace: ")) << "one line per damaged file";
        if (format == nvtrace::RollupFormat::Csv) {
            EXPECT_EQ(1 + rows + 1, Lines(serial.out, ","));
            EXPECT_EQ(1u, Lines(serial.out, totals)) << totals;
        }
        for (const unsigned jobs : {2u, 3u, 8u}) {
            const RollupResult parallel = Rollup(paths, format, jobs);
            EXPECT_EQ(serial.code, parallel.code) << jobs;
            EXPECT_TRUE(serial.out == parallel.out) << "jobs " << jobs << ": the rows differ";
            EXPECT_TRUE(serial.err == parallel.err) << "jobs " << jobs << ": the messages differ";
        }
    }
}

// Three windows' worth of files, eight jobs: the files handed out but not yet written
// never exceed the window, whatever the pace of the workers and the writer.
TEST(NvtraceRollupJobsTest, FilesInFlightStayWithinTheWindow)
{
    const TempFolder fleet;
    WriteFleet(fleet, 3 * nvtrace::kRollupWindow);
    nvtrace::RollupStats stats;
    const RollupResult r = Rollup({fleet.path()}, nvtrace::RollupFormat::Csv, 8, &stats);
    EXPECT_EQ(3, r.code);
    EXPECT_EQ(1 + 3 * nvtrace::kRollupWindow + 1, Lines(r.out, ","));
    EXPECT_LE(stats.peakInFlight, nvtrace::kRollupWindow);
    EXPECT_GT(stats.peakInFlight, 8u) << "the walk runs ahead of the workers";
}

namespace {

// The built program's exit code and peak resident memory in MB (from wait4).
std::pair<int, double> RunMeasured(const std::vector<std::string>& args)
{
    std::vector<char*> argv;
    std::string exe = NVTRACE_EXE;
    argv.push_back(exe.data());
    std::vector<std::string> copies = args;
    for (std::string& a : copies)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        std::FILE* null = std::freopen("/dev/null", "w", stdout);
        (void)null;
        ::execv(exe.c_str(), argv.data());
        ::_exit(127);
    }
    int status = 0;
    struct rusage usage {};
    ::wait4(pid, &status, 0, &usage);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, static_cast<double>(usage.ru_maxrss) / 1024.0};
}

} // namespace

// Large traces (1.5 MB each, 60 of them) read 4 at a time: the program's peak memory
// stays near what 4 files' buffers take, far below what holding every file in flight
// would (over 180 MB: each file's bytes and text).
TEST(NvtraceRollupJobsTest, PeakMemoryHoldsAFewFilesNotAllInFlight)
{
    const TempFolder fleet;
    SampleTrace big(HeaderFor(1));
    big.ConversionStarts(7);
    const std::string line(390, 'x');
    while (big.size() < 1500 * 1024)
        big.Add(7, 'U', line);
    big.Add(7, '<').Add(7, '<');
    for (int n = 0; n < 60; ++n)
        fleet.Write("big-" + std::to_string(n) + ".trc3", big.bytes());
    const auto [code, peakMb] = RunMeasured({"--csv", "--jobs", "4", fleet.path()});
    EXPECT_EQ(0, code);
    EXPECT_LT(peakMb, 48.0);
}

// The default follows the CPUs this process may run on: one when pinned to one, so
// a roll-up pinned to a CPU reads in its own thread.
TEST(NvtraceRollupJobsTest, DefaultJobsAreTheCpusTheProcessMayUse)
{
    cpu_set_t saved;
    ASSERT_EQ(0, ::sched_getaffinity(0, sizeof(saved), &saved));
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
        if (CPU_ISSET(cpu, &saved))
            cpus.push_back(cpu);
    ASSERT_FALSE(cpus.empty());
    const auto runOn = [](const std::vector<int>& on) {
        cpu_set_t set;
        CPU_ZERO(&set);
        for (const int cpu : on)
            CPU_SET(cpu, &set);
        return ::sched_setaffinity(0, sizeof(set), &set) == 0;
    };
    ASSERT_TRUE(runOn({cpus[0]}));
    EXPECT_EQ(1u, nvtrace::DefaultRollupJobs());
    if (cpus.size() > 1) {
        ASSERT_TRUE(runOn({cpus[0], cpus[1]}));
        EXPECT_EQ(2u, nvtrace::DefaultRollupJobs());
    }
    ASSERT_EQ(0, ::sched_setaffinity(0, sizeof(saved), &saved));
    EXPECT_EQ(std::min<std::size_t>(cpus.size(), nvtrace::kMaxRollupJobs), nvtrace::DefaultRollupJobs());
}

TEST(NvtraceRollupJobsTest, JobsOptionTakesOneToSixteenWithARollupOnly)
{
    const TempFolder fleet;
    const std::string one = fleet.Write("a.trc3", FleetTrace(3).bytes());
    fleet.Write("b.trc3", FleetTrace(4).bytes());
    std::ostringstream out1, err1, out2, err2;
    EXPECT_EQ(0, nvtrace::RunCli({"--csv", "--jobs", "1", fleet.path()}, out1, err1));
    EXPECT_EQ(0, nvtrace::RunCli({"--jobs", "16", "--csv", fleet.path()}, out2, err2));
    EXPECT_EQ(out1.str(), out2.str());
    EXPECT_EQ(4u, Lines(out1.str(), ","));
    EXPECT_EQ("", err1.str() + err2.str());
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"--csv", "--jobs", "0", one}, {"--csv", "--jobs", "17", one}, {"--csv", "--jobs", "0x2", one},
             {"--csv", "--jobs", "-1", one}, {"--csv", one, "--jobs"}}) {
        std::ostringstream out, err;
        EXPECT_EQ(1, nvtrace::RunCli(args, out, err)) << args[2];
        EXPECT_EQ(0u, err.str().find("nvtrace: --jobs needs a number of files to read at once, 1 to 16\n")) << err.str();
    }
    std::ostringstream out, err;
    EXPECT_EQ(1, nvtrace::RunCli({"--jobs", "2", one}, out, err));
    EXPECT_EQ(0u, err.str().find("nvtrace: --jobs takes several files, a folder or --csv\n")) << err.str();
    EXPECT_EQ("", out.str());
}
