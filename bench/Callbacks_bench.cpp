// Change callbacks.
#include "bench/Paired.h"
#include "manager/StimulationManager.h"

#include <algorithm>
#include <array>
#include <functional>
#include <utility>

namespace {

using namespace QsBench;

constexpr std::size_t callbackCount = 100;

std::array<std::uint64_t, callbackCount> s_called;

template <std::size_t index>
void Called(unsigned code)
{
    s_called[index] += code;
}

using Callback = CQsStimulationDeviceManager::ChangeCallback;

template <std::size_t... indices>
std::vector<Callback> MakeCallbacks(std::index_sequence<indices...>)
{
    return {&Called<indices>...};
}

void Callbacks(benchmark::State& state)
{
    const auto count = static_cast<std::size_t>(state.range(0));
    std::vector<Callback> functions = MakeCallbacks(std::make_index_sequence<callbackCount>());
    functions.resize(count);
    std::sort(functions.begin(), functions.end(), std::less<Callback>());
    CQsStimulationDeviceManager& manager = *CQsStimulationDeviceManager::GetInstance();
    for (const Callback function : functions)
        manager.AddCallbackForChange(function);

    s_called = {};
    std::uint64_t fired = 0;
    const auto operations = static_cast<unsigned>(20000 / count);
    const auto ours = [&]
    {
        fired += operations;
        return TimeEach(operations,
                        [&manager] { manager.FireCallbackForChange(CQsStimulationDeviceManager::eChangeDeviceList); });
    };
    const auto limit = [&]
    {
        fired += operations;
        return TimeEach(operations,
                        [&functions]
                        {
                            const std::vector<Callback>* bare = &functions;
                            benchmark::DoNotOptimize(bare);
                            for (const Callback function : *bare)
                                function(CQsStimulationDeviceManager::eChangeDeviceList);
                        });
    };
    const SSamples samples = MeasurePairs(state, ours, limit);
    for (const Callback function : functions)
        manager.RemoveCallbackForChange(function);
    if (std::count(s_called.begin(), s_called.end(), fired) != static_cast<std::ptrdiff_t>(count))
        return Fail(state, "a callback was called another number of times");
    ReportMedians(samples, "FireCallbackForChange to " + std::to_string(count), "loop over function pointers", 1.3);
}
BENCHMARK(Callbacks)->Arg(1)->Arg(10)->Arg(100)->Iterations(2000)->UseManualTime();

} // namespace
