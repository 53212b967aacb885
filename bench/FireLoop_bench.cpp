// Fires back to back, as a device in mode 7 gets them from the stimulation's worker.
#include "bench/Devices.h"
#include "bench/Paired.h"

namespace {

using namespace QsBench;

constexpr unsigned fireCount = 1000000;
constexpr double exposureMs = 1.0; // far longer than a fire takes, so that the count ends the run and not the time

void FireLoop(benchmark::State& state)
{
    SFireRecord record;
    const std::unique_ptr<IQsStimulationDevice> device = MakeFireDevice(record, exposureMs);
    const CRegistered registered({device.get()});
    CQsStimulationDeviceManager& manager = *CQsStimulationDeviceManager::GetInstance();
    const CQsStringW name = device->GetUniqueName();
    if (!registered.IsListed() || manager.SetActive(name.c_str(), false) != QS_OK)
        return Fail(state, "the device could not be activated");

    IQsStimulationDevice::SQsStimulationType request;
    request.uiType = IQsStimulationDevice::eStimTimed;
    request.dDurationMs = fireCount * exposureMs;

    bool bComplete = true;
    const auto ours = [&]
    {
        bComplete = bComplete && manager.StimulateTimedWithActiveAsync(request, nullptr, nullptr) == QS_OK &&
                    manager.SetActive(name.c_str(), true) == QS_OK && // returns when the stimulation has ended
                    record.fires == fireCount;
        return (record.dEndNs - record.dBegunNs) / fireCount;
    };
    const auto limit = [&]
    {
        IQsStimulationDevice* const bare = device.get();
        return TimeEach(fireCount,
                        [bare, &request]
                        {
                            bare->StimulationFire(request, nullptr, nullptr);
                            benchmark::DoNotOptimize(QS_GetTimeCounter());
                        });
    };
    const SSamples samples = MeasurePairs(state, ours, limit);
    if (!bComplete)
        return Fail(state, "a run was refused or fired another number of times");
    ReportMedians(samples, "mode-7 fire loop, each fire", "clock read + virtual call", 1.3);
}
BENCHMARK(FireLoop)->Iterations(21)->UseManualTime();

} // namespace
