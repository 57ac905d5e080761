// Helpers shared by the benchmarks: timing, medians, the library loaded the way an
// installer loads it, and the result rows that scripts/bench collects.
//
// Every benchmark prints human-readable lines and, for each figure, one row
//   ROW,<figure>,<ours>,<floor or anchor>,<ratio>,<goal>,<unit>
// that scripts/bench gathers into its table and CSV file. Nothing is asserted: the
// figures are for reading, ratios are measured side by side in one run.
#pragma once
#include <windows.h>
#include <psapi.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/handles.h"
#include "common/procaddress.h"
#include "common/regkey.h"
#include "trace/traceoutput.h"
#include "support/text_util.h"

namespace nvbench {

class Stopwatch {
public:
    Stopwatch() noexcept { ::QueryPerformanceCounter(&m_start); }
    double Seconds() const noexcept
    {
        LARGE_INTEGER now, freq;
        ::QueryPerformanceCounter(&now);
        ::QueryPerformanceFrequency(&freq);
        return static_cast<double>(now.QuadPart - m_start.QuadPart) / static_cast<double>(freq.QuadPart);
    }

private:
    LARGE_INTEGER m_start;
};

inline double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    if (v.empty())
        return 0.0;
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2.0;
}

inline std::wstring ExeDirectory()
{
    wchar_t buf[MAX_PATH];
    DWORD n = ::GetModuleFileNameW(nullptr, buf, MAX_PATH);
    std::wstring p(buf, n);
    size_t slash = p.find_last_of(L"\\/");
    return slash == std::wstring::npos ? std::wstring() : p.substr(0, slash + 1);
}

// NVDBConv.dll from the benchmark's folder, freshly loaded: the library reads the
// database version (and its trace settings) on load, as in an installer.
class Library {
public:
    Library() : m_dll(::LoadLibraryW((ExeDirectory() + L"NVDBConv.dll").c_str()))
    {
        if (!m_dll)
            std::fprintf(stderr, "cannot load NVDBConv.dll: %lu\n", ::GetLastError());
    }
    explicit operator bool() const noexcept { return static_cast<bool>(m_dll); }
    HMODULE module() const noexcept { return m_dll.get(); }
    // Convert's result; E_FAIL when the export is missing.
    HRESULT Convert()
    {
        using ConvertFn = HRESULT(__stdcall*)();
        auto fn = nv::GetProcAs<ConvertFn>(m_dll.get(), "Convert");
        return fn ? fn() : E_FAIL;
    }

private:
    nv::unique_hmodule m_dll;
};

// One figure whose ratio is measured pair by pair: the median of the ratios of
// conversions that ran next to each other, which a slow drift of the machine over
// the run moves less than a ratio of two medians. ours and floor are the medians.
inline void PairedRow(const char* figure, double ours, double floor, double ratio, const char* goal,
                      const char* unit)
{
    std::printf("ROW,%s,%.3f,%.3f,%.3f,%s,%s\n", figure, ours, floor, ratio, goal, unit);
    std::fflush(stdout);
}

// One figure of the table, its ratio ours / floor. floor 0 means "no floor" (the
// ratio column stays empty).
inline void Row(const char* figure, double ours, double floor, const char* goal, const char* unit)
{
    if (floor > 0) {
        PairedRow(figure, ours, floor, ours / floor, goal, unit);
        return;
    }
    std::printf("ROW,%s,%.3f,,,%s,%s\n", figure, ours, goal, unit);
    std::fflush(stdout);
}

// A file of the host's /proc, read whole through Wine's Z: drive; empty when it
// cannot be read.
inline std::string ReadHostProcFile(const std::string& pid, const char* name)
{
    const std::string path = "Z:\\proc\\" + pid + "\\" + name; // ASCII: digits and a name
    return nvtest::ReadFileBytes(std::wstring(path.begin(), path.end()));
}

// The CPU time the wineserver has used so far, in seconds, the pid taken from the
// environment variable NV_BENCH_WINESERVER_PID, which scripts/bench sets. Registry
// requests are served there, and so is Wine's periodic rewrite of a changed hive into
// its .reg file, which costs time in proportion to everything the hive holds.
//
// Read from the scheduler's count (/proc/PID/schedstat, in nanoseconds; the server
// runs one thread), and only where the kernel keeps none (no file, or one that reads
// 0, as with its scheduler statistics off) from the stat file's user and system time,
// which counts in ticks of 10 ms: a few users' conversion costs the server about that
// much, so in ticks it would now and then read as none at all. <0 when the pid is not
// given or neither file can be read.
inline double WineserverCpuSeconds()
{
    char pid[32] = {};
    const DWORD n = ::GetEnvironmentVariableA("NV_BENCH_WINESERVER_PID", pid, sizeof(pid));
    if (n == 0 || n >= sizeof(pid))
        return -1;
    // sum_exec_runtime run_delay timeslices
    unsigned long long runNs = 0;
    if (std::sscanf(ReadHostProcFile(pid, "schedstat").c_str(), "%llu", &runNs) == 1 && runNs > 0)
        return static_cast<double>(runNs) / 1e9;
    // pid (comm) state ppid pgrp session tty tpgid flags minflt cminflt majflt cmajflt
    // utime stime ...: the two times are the 12th and 13th fields after the name.
    const std::string text = ReadHostProcFile(pid, "stat");
    const size_t close = text.rfind(')');
    if (close == std::string::npos)
        return -1;
    unsigned long long utime = 0, stime = 0;
    if (std::sscanf(text.c_str() + close + 1, " %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %llu %llu", &utime,
                    &stime) != 2)
        return -1;
    constexpr double kTicksPerSecond = 100.0; // USER_HZ on Linux
    return static_cast<double>(utime + stime) / kTicksPerSecond;
}

// This process's private bytes now; on Windows also their peak so far.
inline PROCESS_MEMORY_COUNTERS_EX MemoryNow()
{
    PROCESS_MEMORY_COUNTERS_EX mem{};
    mem.cb = sizeof(mem);
    ::GetProcessMemoryInfo(::GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&mem), sizeof(mem));
    return mem;
}

// This process's peak private bytes from now until Stop, as a conversion's are
// measured. Windows keeps that peak itself (PeakPagefileUsage). Wine does not: it
// fills the field with the host's count of the moment (RssAnon plus VmSwap: the
// private pages touched, not those merely committed), which after Convert has
// returned and the library is gone is no peak at all. So a thread looks every 50 ms,
// and the caller may look at a moment of its own choosing (Look); the figure is the
// largest seen, or the system's own peak where it is larger. Under Wine a look costs
// about 26 us in the process and 35 us in the wineserver: every 50 ms, about 0.1% of
// the CPU a conversion is timed on, and under 1% of the server's CPU time a user
// costs. Under Wine a peak shorter than 50 ms between two looks can be missed.
class PrivatePeak {
public:
    PrivatePeak()
        : m_sampler([this] {
              std::unique_lock<std::mutex> lock(m_mutex);
              do
                  Look();
              while (!m_wake.wait_for(lock, std::chrono::milliseconds(50), [this] { return m_stop; }));
          })
    {
    }
    ~PrivatePeak() { Stop(); }
    PrivatePeak(const PrivatePeak&) = delete;
    PrivatePeak& operator=(const PrivatePeak&) = delete;

    // How many looks have been taken so far.
    std::size_t Looks() const { return m_looks; }

    // Looks now, besides the thread's looks.
    void Look()
    {
        const PROCESS_MEMORY_COUNTERS_EX mem = MemoryNow();
        ULONGLONG seen = m_peak.load();
        const ULONGLONG now = std::max<ULONGLONG>(mem.PrivateUsage, mem.PeakPagefileUsage);
        while (now > seen && !m_peak.compare_exchange_weak(seen, now)) {
        }
        ++m_looks;
    }

    // Ends the sampling, looks once more, and gives the peak.
    ULONGLONG Stop()
    {
        if (m_sampler.joinable()) {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_stop = true;
            }
            m_wake.notify_one();
            m_sampler.join();
            Look();
        }
        return m_peak;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stop = false;
    std::atomic<ULONGLONG> m_peak{0};
    std::atomic<std::size_t> m_looks{0};
    std::thread m_sampler; // last: it starts once the rest is ready
};

// The library's trace settings as the benchmarks use them: the Tracing key (native
// view) with DoTrace on or off, verbosity 10 and the file given; or, with no file, no
// Tracing key at all. Whatever was there before is removed first.
inline bool SetTracing(bool on, const wchar_t* file)
{
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, NVTraceNS::kTracingKeyPath);
    ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, NVTraceNS::kTracingKeyPath);
    if (!file)
        return true;
    nv::CNVRegKey key;
    if (key.Create(HKEY_LOCAL_MACHINE, NVTraceNS::kTracingKeyPath, KEY_ALL_ACCESS) != ERROR_SUCCESS)
        return false;
    const DWORD doTrace = on ? 1 : 0;
    const DWORD verbosity = 10;
    return ::RegSetValueExW(key, L"DoTrace", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&doTrace),
                            sizeof(doTrace)) == ERROR_SUCCESS &&
           ::RegSetValueExW(key, L"Verbosity", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&verbosity),
                            sizeof(verbosity)) == ERROR_SUCCESS &&
           nv::SetStringValue(key, L"FileName", file) == ERROR_SUCCESS;
}

// A point of a scaling curve: users, then named per-user figures in ms.
inline void CurvePoint(unsigned users, double total, double library, double floor, double store)
{
    std::printf("CURVE,%u,%.3f,%.3f,%.3f,%.3f\n", users, total, library, floor, store);
    std::fflush(stdout);
}

} // namespace nvbench
