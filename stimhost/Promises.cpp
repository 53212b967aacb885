#include "stimhost/Promises.h"

#include "standalone/Rig.h"
#include "stimhost/Text.h"

#include <rapidjson/document.h>

#include <algorithm>
#include <cmath>

namespace Stimhost {

namespace {

// What a busy machine may add to any wait; light that is too long by more than this is the product's fault.
constexpr double s_schedulingMs = 150.0;
// Journal and device read the clock one after the other.
constexpr double s_clockMs = 0.5;

std::string Ms(double value)
{
    return Number(value, 1) + " ms";
}

} // namespace

SLatency CPromises::LatencyOf(const std::string& light) const
{
    for (const QsStandalone::SShutterSetup& shutter : m_rig.shutters)
        if (shutter.name == light)
            return {shutter.openLatencyMs, shutter.closeLatencyMs, shutter.jitterMs};
    for (const QsStandalone::SRigDevice& device : m_rig.devices)
    {
        rapidjson::Document settings;
        settings.Parse(device.settings.c_str());
        if (device.name == light && settings.IsObject() && settings.HasMember("beginMs") &&
            settings["beginMs"].IsNumber())
            return {settings["beginMs"].GetDouble(), 0.0, 0.0};
    }
    return {};
}

void CPromises::Check(bool kept, const std::string& text, const std::string& found)
{
    m_promises.push_back({text, kept, found});
    Say(std::string(kept ? "  ok      " : "  BROKEN  ") + text + " (" + found + ")\n");
}

void CPromises::CheckPhase(const SPhase& phase)
{
    Check(phase.startStatus == 0, "the stimulation starts",
          phase.refusal.empty() ? StatusText(phase.startStatus) : phase.refusal);
    Check(phase.finished && !phase.gaveUp, "it reports its end in time", phase.finished ? "it did" : "it did not");
    Check(phase.status == 0, "it reports success", StatusText(phase.status));
    Check(phase.leftOn.empty(), "no light is on afterwards",
          phase.leftOn.empty() ? "all dark" : phase.leftOn.front() + " is on");
    Check(phase.faults.empty(), "no device has a fault", phase.faults.empty() ? "none" : phase.faults.front());
    for (const SMeasured& light : phase.lights)
        Check(light.BeginMs() >= 0.0, "no light of " + light.device + " before the start call",
              "on at " + Ms(light.BeginMs()));
}

void CPromises::CheckLength(const SPhase& phase, const SMeasured& light)
{
    const SLatency latency = LatencyOf(light.device);
    const double asked = phase.request.durationMs;
    const double longest = asked + 1.0 + latency.beginMs + latency.endMs + 2.0 * latency.jitterMs + s_schedulingMs;
    Check(light.DurationMs() >= asked - 1.0 && light.DurationMs() <= longest,
          "the light of " + light.device + " lasts " + Ms(asked) + ", at most " + Ms(longest), Ms(light.DurationMs()));
}

void CPromises::CheckSingleLight(const SPhase& phase)
{
    const bool one = phase.lights.size() == 1 && phase.lights.front().pulses.size() == 1;
    Check(one, "one device lights once", std::to_string(phase.lights.size()) + " devices lit");
    if (!one)
        return;
    const SMeasured& light = phase.lights.front();
    CheckLength(phase, light);
    const bool reported = phase.reportedBeginMs.size() == 1 && phase.reportedEndMs.size() == 1;
    Check(reported && phase.reportedBeginMs[0] <= light.BeginMs() + s_clockMs, "no light before the reported begin",
          reported ? Ms(light.BeginMs() - phase.reportedBeginMs[0]) + " after it" : "no time reported");
    Check(reported && phase.reportedEndMs[0] >= light.EndMs() - s_clockMs, "no light after the reported end",
          reported ? Ms(phase.reportedEndMs[0] - light.EndMs()) + " before it" : "no time reported");
}

void CPromises::CheckAborted(const SPhase& phase)
{
    double longest = s_schedulingMs;
    for (const SMeasured& light : phase.lights)
        longest = std::max(longest, LatencyOf(light.device).endMs + LatencyOf(light.device).jitterMs + s_schedulingMs);
    Check(phase.WasAborted(), "the abort is called while it runs", "at " + Ms(phase.abortCalledMs));
    Check(!phase.lights.empty(), "there was light to abort", std::to_string(phase.lights.size()) + " devices lit");
    Check(phase.AbortLatencyMs() <= longest, "dark at most " + Ms(longest) + " after the abort call",
          Ms(phase.AbortLatencyMs()));
}

void CPromises::CheckBeampath(const SPhase& phase)
{
    double lastBegin = s_noTime;
    double firstEnd = s_noTime;
    for (const SPath& path : phase.paths)
    {
        const SMeasured* const light = phase.LightOf(path.light);
        if (!path.HasDevice())
        {
            Check(light == nullptr, path.name + ", a path without a device, gives no light",
                  light == nullptr ? "none" : light->device + " lit");
            continue;
        }
        const bool once = light != nullptr && light->pulses.size() == 1;
        Check(once, path.device + " on " + path.name + " lights once",
              light == nullptr ? "no light" : std::to_string(light->pulses.size()) + " times");
        if (!once)
            continue;
        const SLatency latency = LatencyOf(light->device);
        const double earliest = latency.beginMs - latency.jitterMs;
        Check(light->BeginMs() >= earliest, "it needs at least " + Ms(earliest) + " to light", Ms(light->BeginMs()));
        CheckLength(phase, *light);
        // fmin and fmax leave out what is no number yet.
        lastBegin = std::fmax(lastBegin, light->BeginMs());
        firstEnd = std::fmin(firstEnd, light->EndMs());
    }
    // How close together they start is the machine's business; that one waits for another would be ours.
    if (phase.lights.size() > 1)
        Check(lastBegin < firstEnd, "all devices are lit at the same time",
              "from " + Ms(lastBegin) + " to " + Ms(firstEnd) + ", start skew " + Ms(phase.StartSkewMs()) +
                  ", end skew " + Ms(phase.EndSkewMs()));
    const std::vector<std::string> stray = phase.StrayLights();
    Check(stray.empty(), "no other device lights", stray.empty() ? "none" : stray.front() + " lit");
}

void CPromises::CheckSignals(const SPhase& phase, const std::vector<std::string>& expected)
{
    std::vector<std::string> told;
    for (const SSignal& signal : phase.signals)
        told.push_back(SignalText(signal));
    std::string text;
    for (const std::string& signal : expected)
        text += (text.empty() ? "" : ", ") + signal;
    Check(told == expected, "the host is told " + text, SignalsText(phase.signals));
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

std::string StatusText(int status)
{
    return "status " + std::to_string(status);
}

bool CPromises::AllKept() const
{
    return std::all_of(m_promises.begin(), m_promises.end(), [](const SPromise& promise) { return promise.kept; });
}

} // namespace Stimhost
