#include "progress.h"

#include <cstdio>

namespace nvdbconv {

std::string FormatProgress(const ProgressSample& sample)
{
    char line[128];
    std::snprintf(line, sizeof(line), "users converted: %lu of %lu (%.1f users/s)",
                  static_cast<unsigned long>(sample.converted()), static_cast<unsigned long>(sample.total),
                  sample.rate());
    return line;
}

CProgressPoller::CProgressPoller(Counter counter, Sink sink, std::chrono::milliseconds interval)
    : m_counter(std::move(counter)), m_sink(std::move(sink)), m_interval(interval)
{
}

CProgressPoller::~CProgressPoller()
{
    if (m_thread.joinable())
        Stop();
}

void CProgressPoller::Start()
{
    DWORD left = 0;
    m_total = m_counter(&left) ? left : 0;
    m_start = Clock::now();
    m_thread = std::thread([this] { Run(); });
}

ProgressSample CProgressPoller::Take(bool final)
{
    ProgressSample sample;
    sample.total = m_total;
    DWORD left = 0;
    sample.left = m_counter(&left) ? left : 0;
    sample.seconds = std::chrono::duration<double>(Clock::now() - m_start).count();
    sample.final = final;
    return sample;
}

void CProgressPoller::Run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_wake.wait_for(lock, m_interval, [this] { return m_stop; })) {
        lock.unlock();
        const ProgressSample sample = Take(false);
        lock.lock();
        if (m_stop)
            break; // the final sample supersedes this one
        m_sink(sample);
        ++m_samples;
    }
}

ProgressSample CProgressPoller::Stop()
{
    if (m_stopped)
        return m_last;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable())
        m_thread.join();
    m_last = Take(true);
    m_sink(m_last);
    ++m_samples;
    m_stopped = true;
    return m_last;
}

} // namespace nvdbconv
