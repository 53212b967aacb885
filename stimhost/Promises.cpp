#include "stimhost/Promises.h"

#include "device/StimulationDevice.h"
#include "standalone/DeviceManager.h"
#include "stimhost/Text.h"

#include <algorithm>

namespace Stimhost {

namespace {

// What a busy machine may add to any wait; light that is too long by more than this is the product's fault.
constexpr double s_schedulingMs = 150.0;
// Journal and device read the clock one after the other.
constexpr double s_clockMs = 0.5;

// The setup of the host's shutter behind the device; without one, a shutter that needs no time.
QsStandalone::SShutterSetup SetupOf(IQsStimulationDevice& device)
{
    SQsStimulationDeviceInfo info;
    if (device.GetStimulationDeviceInfo(info) == QS_OK && !info.vecLogDevIds.empty())
        for (const QsStandalone::SShutterSetup& setup : QsStandalone::CQsDeviceManager::Shutters())
            if (setup.logDevId == info.vecLogDevIds.front())
                return setup;
    return {};
}

std::string Ms(double value)
{
    return Number(value, 1) + " ms";
}

} // namespace

void CPromises::Check(bool kept, const std::string& text, const std::string& found)
{
    m_promises.push_back({text, kept, found});
    Say(std::string(kept ? "  ok      " : "  BROKEN  ") + text + " (" + found + ")\n");
}

void CPromises::CheckPhase(const SPhase& phase)
{
    Check(phase.startStatus == 0, "the stimulation starts", "status " + std::to_string(phase.startStatus));
    Check(phase.finished && !phase.gaveUp, "it reports its end in time", phase.finished ? "it did" : "it did not");
    Check(phase.status == 0, "it reports success", "status " + std::to_string(phase.status));
    Check(phase.leftOn.empty(), "no light is on afterwards",
          phase.leftOn.empty() ? "all dark" : phase.leftOn.front() + " is on");
    Check(phase.faults.empty(), "no device has a fault", phase.faults.empty() ? "none" : phase.faults.front());
    for (const SMeasured& light : phase.lights)
        Check(light.BeginMs() >= 0.0, "no light before the start call", "on at " + Ms(light.BeginMs()));
}

void CPromises::CheckSingleLight(const SPhase& phase, IQsStimulationDevice& shutter)
{
    const bool one = phase.lights.size() == 1 && phase.lights.front().pulses.size() == 1;
    Check(one, "one device lights once", std::to_string(phase.lights.size()) + " devices lit");
    if (!one)
        return;
    const QsStandalone::SShutterSetup setup = SetupOf(shutter);
    const SMeasured& light = phase.lights.front();
    const double asked = phase.request.durationMs;
    const double longest =
        asked + 1.0 + setup.openLatencyMs + setup.closeLatencyMs + 2.0 * setup.jitterMs + s_schedulingMs;
    Check(light.DurationMs() >= asked - 1.0 && light.DurationMs() <= longest,
          "the light lasts " + Ms(asked) + ", at most " + Ms(longest), Ms(light.DurationMs()));
    const bool reported = phase.reportedBeginMs.size() == 1 && phase.reportedEndMs.size() == 1;
    Check(reported && phase.reportedBeginMs[0] <= light.BeginMs() + s_clockMs, "no light before the reported begin",
          reported ? Ms(light.BeginMs() - phase.reportedBeginMs[0]) + " after it" : "no time reported");
    Check(reported && phase.reportedEndMs[0] >= light.EndMs() - s_clockMs, "no light after the reported end",
          reported ? Ms(phase.reportedEndMs[0] - light.EndMs()) + " before it" : "no time reported");
}

void CPromises::CheckAborted(const SPhase& phase, IQsStimulationDevice& shutter)
{
    const QsStandalone::SShutterSetup setup = SetupOf(shutter);
    const double longest = setup.closeLatencyMs + setup.jitterMs + s_schedulingMs;
    Check(phase.WasAborted(), "the abort is called while it runs", "at " + Ms(phase.abortCalledMs));
    Check(!phase.lights.empty(), "there was light to abort", std::to_string(phase.lights.size()) + " devices lit");
    Check(phase.AbortLatencyMs() <= longest, "dark at most " + Ms(longest) + " after the abort call",
          Ms(phase.AbortLatencyMs()));
}

void CPromises::CheckPatterns(const SPhase& phase, double exposureMs)
{
    const bool lit = !phase.lights.empty();
    const std::size_t pulses = lit ? phase.lights.front().pulses.size() : 0;
    const auto most = static_cast<std::size_t>(phase.request.durationMs / exposureMs + 0.5);
    Check(pulses >= 1 && pulses <= most, "it fires at most " + std::to_string(most) + " patterns of " + Ms(exposureMs),
          std::to_string(pulses) + " fired");
    if (!lit)
        return;
    const SMeasured& light = phase.lights.front();
    const double latest = phase.request.durationMs + exposureMs + s_schedulingMs;
    Check(light.EndMs() <= latest, "the last pattern ends by " + Ms(latest), Ms(light.EndMs()));
    Check(phase.reportedBeginMs.size() == most, "it has room for the times of every pattern",
          std::to_string(phase.reportedBeginMs.size()) + " times");
}

bool CPromises::AllKept() const
{
    return std::all_of(m_promises.begin(), m_promises.end(), [](const SPromise& promise) { return promise.kept; });
}

} // namespace Stimhost
