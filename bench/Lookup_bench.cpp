// Finding a device by its name.
#include "bench/Devices.h"
#include "bench/Paired.h"

#include <map>

namespace {

using namespace QsBench;

constexpr unsigned deviceCount = 1000;

void Lookup(benchmark::State& state)
{
    const std::vector<CQsStringW> names = RandomNames(deviceCount);
    std::vector<std::unique_ptr<IQsStimulationDevice>> owned;
    std::vector<IQsStimulationDevice*> devices;
    for (const CQsStringW& name : names)
    {
        owned.push_back(MakeNamedDevice(name, 0));
        devices.push_back(owned.back().get());
    }
    const CRegistered registered(devices);
    if (!registered.IsListed())
        return Fail(state, "the manager does not list the devices");

    // The same entries under the same keys, made in the same order as the manager makes its own.
    struct SEntry
    {
        CQsStimulationDeviceManager::SQsInfoEx info;
    };
    std::map<CQsStringW, SEntry> bare;
    for (IQsStimulationDevice* const device : std::set<IQsStimulationDevice*>(devices.begin(), devices.end()))
    {
        const CQsStringW name = device->GetUniqueName();
        bare.try_emplace(name, SEntry{CQsStimulationDeviceManager::SQsInfoEx(name.c_str(), device)});
    }

    CQsStimulationDeviceManager& manager = *CQsStimulationDeviceManager::GetInstance();
    bool bFound = true;
    const auto ours = [&]
    {
        const double t0 = NowNs();
        for (unsigned i = 0; i < deviceCount; ++i)
            bFound &= manager.GetDevice(names[i].c_str()) == devices[i];
        return (NowNs() - t0) / deviceCount;
    };
    const auto limit = [&]
    {
        const double t0 = NowNs();
        for (unsigned i = 0; i < deviceCount; ++i)
        {
            IQsStimulationDevice* found = nullptr;
            for (const auto& entry : bare)
            {
                if (entry.first.Compare(names[i]) == 0)
                {
                    found = entry.second.info.pDevice;
                    break;
                }
            }
            bFound &= found == devices[i];
        }
        return (NowNs() - t0) / deviceCount;
    };
    const SSamples samples = MeasurePairs(state, ours, limit);
    if (!bFound)
        return Fail(state, "a device was not found by its name");
    ReportMedians(samples, "GetDevice by name among 1000", "walk over a map", 1.3);
}
BENCHMARK(Lookup)->Iterations(200)->UseManualTime();

} // namespace
