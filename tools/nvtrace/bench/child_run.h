// What the nvtrace benchmarks share: their common options, nvtrace run as a child
// process, as a support engineer runs it, with its wall time, CPU time and peak memory
// (its own resident high-water mark, from wait4), and the median of a series.
#pragma once
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace nvbench {

// The options every nvtrace benchmark takes.
struct BenchOptions {
    std::string nvtrace; // --nvtrace PATH
    std::string dir;     // --dir SCRATCH
    int runs = 3;        // --runs R
};

// "--name value" pairs: the common ones into `common`, any other to `other(name,
// value)`, which says whether it knew it. False for an odd count, an option nobody
// knows, or no nvtrace, folder or run.
template <class Other>
bool ParseBenchOptions(int argc, char** argv, BenchOptions& common, Other other)
{
    if (argc % 2 != 1)
        return false;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i], v = argv[i + 1];
        if (a == "--nvtrace")
            common.nvtrace = v;
        else if (a == "--dir")
            common.dir = v;
        else if (a == "--runs")
            common.runs = std::atoi(v.c_str());
        else if (!other(a, v))
            return false;
    }
    return !common.nvtrace.empty() && !common.dir.empty() && common.runs >= 1;
}

struct ChildRun {
    double seconds = 0;
    double cpuSeconds = 0; // user + system
    double peakMb = 0;
    int exitCode = -1;
};

inline double Seconds(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline double SecondsOf(const struct timeval& t)
{
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
}

// The program with these arguments, its standard output discarded.
inline ChildRun RunChild(const std::vector<std::string>& args)
{
    ChildRun run;
    std::vector<char*> argv;
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::fflush(stdout); // or the child's stdout would write it again
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = ::fork();
    if (pid == 0) {
        std::FILE* null = std::freopen("/dev/null", "w", stdout);
        (void)null;
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    int status = 0;
    struct rusage usage {};
    ::wait4(pid, &status, 0, &usage);
    run.seconds = Seconds(start);
    run.cpuSeconds = SecondsOf(usage.ru_utime) + SecondsOf(usage.ru_stime);
    run.peakMb = static_cast<double>(usage.ru_maxrss) / 1024.0; // kilobytes on Linux
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

inline double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    if (v.empty())
        return 0;
    const std::size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

} // namespace nvbench
