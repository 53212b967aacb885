// The host's time counter.
#include "standalone/HostControl.h"

#include <atomic>
#include <chrono>

namespace {

double MonotonicMs()
{
    using Clock = std::chrono::steady_clock;
    static const Clock::time_point zero = Clock::now();
    return std::chrono::duration<double, std::milli>(Clock::now() - zero).count();
}

std::atomic<double (*)()> s_source{&MonotonicMs};

} // namespace

double QS_GetTimeCounter()
{
    return s_source.load(std::memory_order_acquire)();
}

void QsStandalone::SetTimeCounter(double (*source)())
{
    s_source.store(source != nullptr ? source : &MonotonicMs, std::memory_order_release);
}
