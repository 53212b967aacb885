#include "stimhost/Bounded.h"

#include <chrono>
#include <future>
#include <memory>
#include <thread>

namespace Stimhost {

bool RunBounded(double timeoutMs, std::function<void()> function)
{
    const auto task = std::make_shared<std::packaged_task<void()>>(std::move(function));
    std::future<void> ended = task->get_future();
    std::thread thread([task] { (*task)(); });
    const bool inTime =
        ended.wait_for(std::chrono::duration<double, std::milli>(timeoutMs)) == std::future_status::ready;
    inTime ? thread.join() : thread.detach();
    return inTime;
}

} // namespace Stimhost
