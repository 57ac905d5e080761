// Progress of a 2.0 conversion, measured from outside the library: the converter
// deletes each user's key under Data\Users once the user is in the store, so the
// keys left tell how far it got. A second thread polls the count while the caller's
// thread sits in Convert, and hands each sample to a sink (the host draws a line).
//
// The poller knows nothing about the registry or the console: the counter and the
// sink are functions, so tests can drive it with their own.
#pragma once
#include <windows.h>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace nvdbconv {

struct ProgressSample {
    DWORD total = 0;     // user keys when the conversion started
    DWORD left = 0;      // user keys now (a missing key counts as none left)
    double seconds = 0;  // since the start
    bool final = false;  // the last sample, taken after Convert returned

    DWORD converted() const { return left < total ? total - left : 0; }
    // Users per second; 0 before any time has passed.
    double rate() const { return seconds > 0.0005 ? converted() / seconds : 0.0; }
};

// "users converted: 3 of 25 (12.5 users/s)"
std::string FormatProgress(const ProgressSample& sample);

class CProgressPoller {
public:
    // false: the count could not be read (the key is gone), which counts as 0 left.
    using Counter = std::function<bool(DWORD* left)>;
    using Sink = std::function<void(const ProgressSample&)>;
    using Clock = std::chrono::steady_clock;

    CProgressPoller(Counter counter, Sink sink, std::chrono::milliseconds interval);
    ~CProgressPoller();
    CProgressPoller(const CProgressPoller&) = delete;
    CProgressPoller& operator=(const CProgressPoller&) = delete;

    // Takes the total (the first count) and starts polling.
    void Start();
    // Stops and joins the poller, takes the final sample, hands it to the sink and
    // returns it. Safe to call once after Start; later calls return the same sample.
    ProgressSample Stop();

    DWORD total() const { return m_total; }
    // Samples handed to the sink so far (the final one included).
    unsigned samples() const { return m_samples; }

private:
    ProgressSample Take(bool final);
    void Run();

    Counter m_counter;
    Sink m_sink;
    std::chrono::milliseconds m_interval;
    DWORD m_total = 0;
    Clock::time_point m_start;
    std::thread m_thread;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stop = false;
    bool m_stopped = false;
    ProgressSample m_last;
    unsigned m_samples = 0;
};

} // namespace nvdbconv
