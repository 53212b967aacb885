// Rebuilding the beampaths from the device database.
#include "beampath/DeviceQuery.h"
#include "bench/Beampaths.h"
#include "bench/Devices.h"
#include "bench/Paired.h"

namespace {

using namespace QsBench;

constexpr unsigned beampathCount = 20;
constexpr unsigned subbeampathCount = 4;

// Prepares, runs and reads one statement as anybody must; returns the number of its rows.
unsigned RunBare(const QSqlDatabase& database, const SQsDeviceStatement& statement,
                 std::initializer_list<QsDeviceBinding> bindings)
{
    QSqlQuery query(database);
    query.prepare(QString::fromLatin1(statement.sql));
    for (const QsDeviceBinding& binding : bindings)
        query.bindValue(QString::fromLatin1(binding.first), binding.second);
    unsigned rows = 0;
    for (query.exec(); query.next(); ++rows)
        benchmark::DoNotOptimize(query.value(0));
    return rows;
}

// The devices stay: what a rebuild must ask is which beampaths there are, for each of them its sub-beampaths and what
// was saved for it, and for each sub-beampath its devices and its name.
unsigned RunBareRebuild(const CBeampaths& beampaths)
{
    const DeviceDBApi::CQsAutoDeviceDB scope(L"bench", 0);
    const QSqlDatabase& database = scope.GetDatabase();
    unsigned rows = RunBare(
        database, QsDeviceStatements::stimulationBeampaths,
        {{":iSetupID", DeviceDBApi::GetCurrentSetupID()}, {":iHWConfigID", DeviceDBApi::GetCurrentHWConfigID()}});
    for (const QsStandalone::SDatabaseContent::SBeampath& beampath : beampaths.Content().beampaths)
    {
        if (beampath.merged)
        {
            rows += RunBare(database, QsDeviceStatements::mergedBeampaths, {{":iBeamPathID", beampath.id}});
            CQsStringW text; // the host's own statement
            DeviceDBAppHelper::LoadParam(L"bench", text, nullptr, DeviceDBApi::GetCurrentSetupID(),
                                         DeviceDBApi::GetCurrentUserID());
            continue;
        }
        rows += RunBare(database, QsDeviceStatements::devicesOfSubbeampath, {{":iBeamPathID", beampath.id}});
        rows += RunBare(database, QsDeviceStatements::nameOfSubbeampath, {{":iBeamPathID", beampath.id}});
    }
    return rows;
}

void Rebuild(benchmark::State& state)
{
    std::vector<std::unique_ptr<IQsStimulationDevice>> owned;
    std::vector<IQsStimulationDevice*> devices;
    std::vector<std::vector<std::uint32_t>> ids(beampathCount);
    for (unsigned i = 0; i < beampathCount * subbeampathCount; ++i)
    {
        ids[i / subbeampathCount].push_back(i + 1);
        owned.push_back(MakeNamedDevice(CQsStringW::Format(L"Laser_%04d", static_cast<int>(i)), i + 1));
        devices.push_back(owned.back().get());
    }
    const CBeampaths beampaths(ids);
    const CRegistered registered(devices);
    CQsStimulationDeviceManager& manager = *CQsStimulationDeviceManager::GetInstance();
    if (!beampaths.Error().empty() || !registered.IsListed() || manager.GetStimulationBeampathCount() != beampathCount)
        return Fail(state, "the beampaths could not be made: " + beampaths.Error());

    bool bComplete = true;
    const auto ours = [&]
    {
        manager.SetStimulationBeampathsDirty();
        const double t0 = NowNs();
        bComplete = manager.GetStimulationBeampathCount() == beampathCount && bComplete;
        return NowNs() - t0;
    };
    const auto limit = [&]
    {
        const double t0 = NowNs();
        const unsigned rows = RunBareRebuild(beampaths);
        const double time = NowNs() - t0;
        // The beampaths, the list of each, and two rows for each sub-beampath.
        bComplete = rows == beampathCount * 2 + beampathCount * subbeampathCount * 2 && bComplete;
        return time;
    };
    const SSamples samples = MeasurePairs(state, ours, limit);
    if (!bComplete)
        return Fail(state, "a rebuild or a query found something else");
    ReportMedians(samples, "rebuild of 20 beampaths of 4", "its bare queries", 1.15);
}
BENCHMARK(Rebuild)->Iterations(200)->UseManualTime();

} // namespace
