// Error of a timed pulse, light on to light off.
#include "bench/Devices.h"
#include "bench/Paired.h"
#include "standalone/Journal.h"

#include <condition_variable>
#include <mutex>

#include <sys/prctl.h>

namespace {

using namespace QsBench;

void Pulse(benchmark::State& state)
{
    const CShutters shutters(1);
    if (!shutters.IsComplete())
        return Fail(state, "the shutter could not be made");
    // The bare wait gets the finest timer that the system has, whatever the shutter's wait asks for.
    if (prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL) != 0)
        return Fail(state, "the system does not set the timer slack");

    const auto length = std::chrono::milliseconds(state.range(0));
    const double dLengthNs = std::chrono::duration<double, std::nano>(length).count();
    IQsStimulationDevice::SQsStimulationType request;
    request.uiType = IQsStimulationDevice::eStimTimed;
    request.dDurationMs = static_cast<double>(length.count());

    bool bOnePulse = true;
    const auto ours = [&]
    {
        QsStandalone::CQsJournal::Clear();
        shutters.Devices()[0]->StimulationBegin(request);
        unsigned ons = 0;
        unsigned offs = 0;
        double dLitMs = 0.0;
        for (const QsStandalone::SJournalEntry& entry : QsStandalone::CQsJournal::Entries())
        {
            if (entry.kind == QsStandalone::EJournalKind::LightOn)
            {
                ++ons;
                dLitMs -= entry.timeMs;
            }
            else if (entry.kind == QsStandalone::EJournalKind::LightOff)
            {
                ++offs;
                dLitMs += entry.timeMs;
            }
        }
        shutters.Devices()[0]->StimulationEnd(nullptr, nullptr, 0);
        bOnePulse = bOnePulse && ons == 1 && offs == 1;
        return dLitMs * 1e6 - dLengthNs;
    };
    std::mutex mutex;
    std::condition_variable never;
    const auto limit = [&]
    {
        std::unique_lock<std::mutex> lock(mutex);
        const auto t0 = std::chrono::steady_clock::now();
        while (never.wait_until(lock, t0 + length) != std::cv_status::timeout)
        {}
        return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count() - dLengthNs;
    };
    const SSamples samples = MeasurePairs(state, ours, limit);
    QsStandalone::CQsJournal::Clear();
    if (!bOnePulse)
        return Fail(state, "a pulse did not put the light on and off once");
    const std::string what = "error of a pulse of " + std::to_string(state.range(0)) + " ms";
    ReportMedians(samples, what + ", median", "error of a bare timed wait", 1.1);
    constexpr double most = 0.99;
    AddRow({what + ", p99", "error of a bare timed wait", Percentile(samples.ours, most),
            Percentile(samples.limit, most), 1.1});
}
BENCHMARK(Pulse)->Arg(1)->Iterations(200)->UseManualTime();
BENCHMARK(Pulse)->Arg(10)->Iterations(100)->UseManualTime();
BENCHMARK(Pulse)->Arg(50)->Iterations(60)->UseManualTime();

} // namespace
