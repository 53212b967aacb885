// Rebuilding the device map.
#include "bench/Devices.h"
#include "bench/Paired.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>

namespace {

using namespace QsBench;

struct SBareRecord
{
    std::array<unsigned char, sizeof(CQsStimulationDeviceManager::SQsInfoEx)> bytes;
};

using BareMap = std::map<CQsStringW, SBareRecord>;

struct SSize
{
    unsigned count = 0;
    double dOursNs = 0.0; // whole rebuild
    double dLimitNs = 0.0;
};

// How the time of a whole rebuild grows from one measured size to the next: beside n log n, and beside what the bare
// map does on this machine, whose caches the larger sizes leave.
void ReportGrowth(const std::string& what, const SSize& size)
{
    static std::map<std::string, SSize> lasts;
    const SSize last = lasts[what];
    lasts[what] = size;
    if (last.count == 0 || last.count >= size.count)
        return;
    const double n0 = last.count;
    const double n1 = size.count;
    SRow row;
    row.what = what + ", growth from " + std::to_string(last.count) + " to " + std::to_string(size.count);
    row.limit = "growth of n log n";
    row.dOurs = size.dOursNs / last.dOursNs;
    row.dLimit = n1 * std::log(n1) / (n0 * std::log(n0));
    row.dReach = 1.0;
    row.unit = "x";
    AddRow(row);
    row.limit = "growth of the bare map inserts";
    row.dLimit = size.dLimitNs / last.dLimitNs;
    AddRow(row);
}

// The second argument: whether the devices have an identity in the host's device database, which Update enters into two
// more maps.
void Update(benchmark::State& state)
{
    const auto count = static_cast<unsigned>(state.range(0));
    const bool bWithIds = state.range(1) != 0;
    const std::vector<CQsStringW> names = RandomNames(count);
    std::vector<std::unique_ptr<IQsStimulationDevice>> owned;
    std::vector<IQsStimulationDevice*> devices;
    for (unsigned i = 0; i < count; ++i)
    {
        owned.push_back(MakeNamedDevice(names[i], bWithIds ? i + 1 : 0));
        devices.push_back(owned.back().get());
    }
    const CRegistered registered(devices);
    if (!registered.IsListed())
        return Fail(state, "the manager does not list the devices");

    // In the order in which the manager goes through them.
    std::sort(devices.begin(), devices.end(), std::less<IQsStimulationDevice*>());
    std::vector<CQsStringW> keys;
    for (const IQsStimulationDevice* const device : devices)
        keys.push_back(device->GetUniqueName());

    CQsStimulationDeviceManager& manager = *CQsStimulationDeviceManager::GetInstance();
    const unsigned rounds = std::max(1u, 1000 / count);
    bool bUpdated = true;
    const auto ours = [&]
    { return TimeEach(rounds, [&] { bUpdated = manager.Update() == QS_OK && bUpdated; }) / count; };
    std::vector<BareMap> maps(rounds);
    const auto limit = [&]
    {
        unsigned round = 0;
        const double time = TimeEach(rounds,
                                     [&]
                                     {
                                         BareMap& map = maps[round++];
                                         for (const CQsStringW& key : keys)
                                             map.try_emplace(key, SBareRecord());
                                     });
        for (BareMap& map : maps)
            map.clear();
        return time / count;
    };
    const SSamples samples = MeasurePairs(state, ours, limit);
    if (!bUpdated)
        return Fail(state, "an update failed");
    const std::string what = bWithIds ? "Update of devices with ids" : "Update of devices";
    ReportMedians(samples, what + ", each of " + std::to_string(count), "map insert of the same key", 3.0);
    ReportGrowth(what, {count, Median(samples.ours) * count, Median(samples.limit) * count});
}
BENCHMARK(Update)->ArgsProduct({{10, 100, 1000}, {0}})->Iterations(500)->UseManualTime();
BENCHMARK(Update)->ArgsProduct({{10, 100, 1000}, {1}})->Iterations(500)->UseManualTime();

} // namespace
