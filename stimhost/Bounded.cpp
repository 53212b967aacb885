#include "stimhost/Bounded.h"

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

namespace Stimhost {

namespace {

std::atomic<bool> s_threadsLeftBehind{false};

} // namespace

bool RunBounded(double timeoutMs, std::function<void()> function)
{
    return RunAllBounded(timeoutMs, {std::move(function)});
}

bool RunAllBounded(double timeoutMs, const std::vector<std::function<void()>>& functions)
{
    struct SRun
    {
        std::thread thread;
        std::future<void> ended;
    };
    std::vector<SRun> runs;
    std::vector<std::shared_ptr<std::packaged_task<void()>>> withoutThread;
    for (const std::function<void()>& function : functions)
    {
        const auto task = std::make_shared<std::packaged_task<void()>>(function);
        std::future<void> ended = task->get_future();
        try
        {
            std::thread thread([task] { (*task)(); });
            runs.push_back({std::move(thread), std::move(ended)});
        }
        catch (const std::system_error&)
        {
            withoutThread.push_back(task);
        }
    }
    for (const auto& task : withoutThread)
        (*task)();
    const auto until =
        std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                               std::chrono::duration<double, std::milli>(timeoutMs));
    bool inTime = true;
    for (SRun& run : runs)
    {
        const bool ended = run.ended.wait_until(until) == std::future_status::ready;
        if (!ended)
            LeaveThreadBehind();
        ended ? run.thread.join() : run.thread.detach();
        inTime = inTime && ended;
    }
    return inTime;
}

void LeaveThreadBehind()
{
    s_threadsLeftBehind = true;
}

bool ThreadsAreLeftBehind()
{
    return s_threadsLeftBehind;
}

} // namespace Stimhost
