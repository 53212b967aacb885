#include "stimhost/Bounded.h"

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <system_error>
#include <thread>

namespace Stimhost {

namespace {

std::atomic<bool> s_threadsLeftBehind{false};

} // namespace

bool RunBounded(double timeoutMs, std::function<void()> function)
{
    const auto task = std::make_shared<std::packaged_task<void()>>(std::move(function));
    std::future<void> ended = task->get_future();
    std::thread thread;
    try
    {
        thread = std::thread([task] { (*task)(); });
    }
    catch (const std::system_error&)
    {
        (*task)();
        return true;
    }
    const bool inTime =
        ended.wait_for(std::chrono::duration<double, std::milli>(timeoutMs)) == std::future_status::ready;
    if (!inTime)
        LeaveThreadBehind();
    inTime ? thread.join() : thread.detach();
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
