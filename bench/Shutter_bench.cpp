// Opening a shutter.
#include "bench/Devices.h"
#include "bench/Paired.h"
#include "standalone/DeviceManager.h"
#include "standalone/Journal.h"

#include <mutex>

namespace {

using namespace QsBench;

constexpr unsigned shutterCount = 16;
constexpr unsigned rounds = 64;

class IBareShutter
{
public:
    virtual ~IBareShutter() = default;
    virtual int Open() = 0;
};

// Two classes, so that the compiler cannot guess which one is called.
class CBareShutter : public IBareShutter
{
public:
    int Open() override
    {
        m_bOpen = true;
        return 0;
    }

private:
    bool m_bOpen = false;
};

class CCountingBareShutter : public IBareShutter
{
public:
    int Open() override
    {
        ++m_opened;
        return 0;
    }

private:
    int m_opened = 0;
};

std::unique_ptr<IBareShutter> MakeBareShutter(bool bCounting)
{
    if (bCounting)
        return std::make_unique<CCountingBareShutter>();
    return std::make_unique<CBareShutter>();
}

// What reading the clock at both ends adds to a measured time [ns].
double ClockCostNs()
{
    std::vector<double> costs;
    for (int i = 0; i < 1001; ++i)
    {
        const double t0 = NowNs();
        costs.push_back(NowNs() - t0);
    }
    return Median(costs);
}

// A shutter can be opened only once before it is closed again, so all of them are opened in a row, and closed outside
// the measured time. The argument: whether the limit reads the clock too, as every begin must, to know when it began.
void ShutterOpened(benchmark::State& state)
{
    const CShutters shutters(shutterCount);
    if (!shutters.IsComplete())
        return Fail(state, "the shutters could not be made");
    QsStandalone::CQsJournal::SetRecording(false);

    IQsStimulationDevice::SQsStimulationType request;
    request.uiType = IQsStimulationDevice::eStimContinuous;
    std::mutex mutex;
    std::vector<std::unique_ptr<IBareShutter>> bareShutters;
    for (unsigned i = 0; i < shutterCount; ++i)
        bareShutters.push_back(MakeBareShutter(i % 2 != 0));
    const double dClockNs = ClockCostNs();

    const bool bWithClock = state.range(0) != 0;

    bool bOpened = true;
    const auto ours = [&]
    {
        double total = 0.0;
        for (unsigned round = 0; round < rounds; ++round)
        {
            const double t0 = NowNs();
            for (IQsStimulationDevice* const device : shutters.Devices())
                device->StimulationBegin(request);
            total += NowNs() - t0 - dClockNs;
            for (unsigned i = 0; i < shutterCount; ++i)
            {
                bOpened = bOpened && QsStandalone::CQsDeviceManager::IsShutterOpen(CShutters::IdOf(i));
                shutters.Devices()[i]->StimulationEnd(nullptr, nullptr, 0);
            }
        }
        return total / (rounds * shutterCount);
    };
    const auto limit = [&]
    {
        double total = 0.0;
        for (unsigned round = 0; round < rounds; ++round)
        {
            const double t0 = NowNs();
            for (const auto& shutter : bareShutters)
            {
                if (bWithClock)
                    benchmark::DoNotOptimize(QS_GetTimeCounter());
                const std::lock_guard<std::mutex> lock(mutex);
                shutter->Open();
            }
            total += NowNs() - t0 - dClockNs;
        }
        return total / (rounds * shutterCount);
    };
    const SSamples samples = MeasurePairs(state, ours, limit);
    QsStandalone::CQsJournal::SetRecording(true);
    if (!bOpened)
        return Fail(state, "a shutter stayed closed");
    ReportMedians(samples, "shutter opened through the device interface",
                  bWithClock ? "clock read + lock + virtual call" : "lock + virtual call", 2.0);
}
BENCHMARK(ShutterOpened)->Arg(0)->Arg(1)->Iterations(1000)->UseManualTime();

} // namespace
