#include "stimhost/Phase.h"

#include "standalone/DiagnosticLog.h"
#include "standalone/Journal.h"
#include "stimhost/Text.h"

#include <algorithm>

namespace Stimhost {

namespace {

using QsStandalone::EJournalKind;
using QsStandalone::SLogLine;

constexpr char s_timeout[] =
    "CQsStimulationDeviceAggregator::StimulationBegin: Timeout while waiting for devices to finish their tasks.";
constexpr char s_refusedKind[] =
    "CQsStimulationDeviceProxy::StimulationBegin: Entered default case for Stimulation Begin...";

bool Contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// Of the stimulation and not of its bookkeeping.
bool IsMessage(const SLogLine& line, const std::string& text)
{
    return (line.unit == L"StimulationDeviceAggregator" || line.unit == L"StimulationDeviceProxy" ||
            line.unit == L"StimulationManager") &&
           !Contains(text, " - begin") && !Contains(text, " - end") && !Contains(text, " procedure has ");
}

// The device that a message complains of; empty when it names none.
std::string DeviceNamedIn(const std::string& message)
{
    struct SForm
    {
        const char* before;
        const char* after;
    };
    constexpr SForm forms[] = {
        {"CQsStimulationDeviceAggregator::StimulationBeginAsync: Failed to call StimulationROIPrepare on device ",
         ", thread ("},
        {"CQsStimulationDeviceAggregator::StimulationBegin: Unable to make a task for device ", "."},
        {"CQsStimulationDeviceAggregator::StimulationBegin: Unable to queue the task of device ", "."},
        {"CQsStimulationDeviceAggregator::StimulationEndAsync: Async call to StimulationEnd of ", " failed."},
    };
    for (const SForm& form : forms)
    {
        const std::string before = form.before;
        const std::size_t end = message.rfind(form.after);
        if (message.compare(0, before.size(), before) == 0 && end != std::string::npos && end >= before.size())
            return message.substr(before.size(), end - before.size());
    }
    return {};
}

template <class Time>
double Spread(const std::vector<SMeasured>& lights, Time time)
{
    if (lights.size() < 2)
        return s_noTime;
    const auto [first, last] = std::minmax_element(
        lights.begin(), lights.end(), [&](const SMeasured& a, const SMeasured& b) { return time(a) < time(b); });
    return time(*last) - time(*first);
}

template <class Filter>
std::vector<std::string> DevicesThat(const std::vector<SPath>& paths, Filter filter)
{
    std::vector<std::string> devices;
    for (const SPath& path : paths)
        if (path.HasDevice() && filter(path) && std::find(devices.begin(), devices.end(), path.device) == devices.end())
            devices.push_back(path.device);
    return devices;
}

} // namespace

double SMeasured::LitMs() const
{
    double lit = 0.0;
    for (const SPulse& pulse : pulses)
        lit += pulse.offMs - pulse.onMs;
    return lit;
}

void SPhase::Evaluate(const std::vector<SLogLine>& log)
{
    double gaveUpWaitingMs = s_noTime;
    for (const SLogLine& line : log)
    {
        const std::string text = ToUtf8(line.text);
        if (!IsMessage(line, text))
            continue;
        messages.push_back({line.timeMs - startedMs, text});
        if (text == s_timeout)
            gaveUpWaitingMs = messages.back().timeMs;
        // A device whose preparation an abort cuts short says so; that is no failure.
        const bool afterAbort = WasAborted() && messages.back().timeMs >= abortCalledMs;
        const std::string named = afterAbort ? std::string() : DeviceNamedIn(text);
        for (SPath& path : paths)
            path.failed = path.failed || (path.HasDevice() && path.device == named);
    }
    for (SPath& path : paths)
    {
        const SMeasured* const light = LightOf(path.light);
        const bool through = light != nullptr && light->EndMs() <= gaveUpWaitingMs;
        const bool onlyBegins = request.kind == EKind::Continuous && light != nullptr &&
                                light->BeginMs() <= gaveUpWaitingMs; // its begin does not wait for the end
        path.late = !std::isnan(gaveUpWaitingMs) && path.HasDevice() && !path.failed && !through && !onlyBegins;
    }
}

std::vector<SLane> SPhase::Lanes() const
{
    std::vector<SLane> lanes;
    for (const SPath& path : paths)
    {
        SLane lane{path.name, path.device, LightOf(path.light), {}, path.failed || path.late};
        if (!path.HasDevice())
            lane.state = "no device, no light";
        else if (lane.light == nullptr)
        {
            lane.state = path.failed ? "failed, no light" : "no light";
            lane.wrong = lane.wrong || !DarkDevices().empty();
        }
        else if (path.failed || path.late)
            lane.state = path.failed ? "failed" : "late";
        lanes.push_back(lane);
    }
    for (const SMeasured& light : lights)
    {
        const std::vector<std::string> stray = StrayLights();
        const bool isStray = std::find(stray.begin(), stray.end(), light.device) != stray.end();
        if (isStray || !throughBeampath)
            lanes.push_back({light.device, {}, &light, isStray ? "not of the beampath" : "", isStray});
    }
    if (lanes.empty())
        lanes.push_back({device, {}, nullptr, refusal.empty() ? "no light" : "not started", true});
    return lanes;
}

const SMeasured* SPhase::LightOf(const std::string& light) const
{
    for (const SMeasured& measured : lights)
        if (!light.empty() && measured.device == light)
            return &measured;
    return nullptr;
}

double SPhase::AbortLatencyMs(const SMeasured& light) const
{
    for (const SPulse& pulse : light.pulses)
        if (pulse.onMs <= abortCalledMs && pulse.offMs >= abortCalledMs)
            return pulse.offMs - abortCalledMs;
    return s_noTime;
}

double SPhase::AbortLatencyMs() const
{
    double latest = s_noTime;
    for (const SMeasured& light : lights)
        latest = std::fmax(latest, AbortLatencyMs(light)); // the other one where one is no number
    return latest;
}

double SPhase::StartSkewMs() const
{
    return Spread(lights, [](const SMeasured& light) { return light.BeginMs(); });
}

double SPhase::EndSkewMs() const
{
    return Spread(lights, [](const SMeasured& light) { return light.EndMs(); });
}

std::vector<std::string> SPhase::DarkDevices() const
{
    if (request.durationMs <= 0.0 || WasAborted())
        return {};
    if (!throughBeampath)
        return lights.empty() ? std::vector<std::string>{device} : std::vector<std::string>();
    // Where devices light together, those start that have a group of the request.
    constexpr std::uint32_t allGroups = 7;
    if (paths.size() > 1 && (request.groupMask & allGroups) == 0)
        return {};
    return DevicesThat(paths, [this](const SPath& path) { return LightOf(path.light) == nullptr; });
}

std::vector<std::string> SPhase::FailedDevices() const
{
    return DevicesThat(paths, [](const SPath& path) { return path.failed; });
}

std::vector<std::string> SPhase::LateDevices() const
{
    return DevicesThat(paths, [](const SPath& path) { return path.late; });
}

std::vector<std::string> SPhase::StrayLights() const
{
    std::vector<std::string> stray;
    for (const SMeasured& light : lights)
        if (throughBeampath && std::none_of(paths.begin(), paths.end(),
                                            [&light](const SPath& path) { return path.light == light.device; }))
            stray.push_back(light.device);
    return stray;
}

bool SPhase::RefusedPatterns() const
{
    return std::any_of(messages.begin(), messages.end(),
                       [](const SMessage& message) { return message.text == s_refusedKind; });
}

bool SPhase::Succeeded() const
{
    return startStatus == 0 && finished && !gaveUp && leftOn.empty() && faults.empty() && DarkDevices().empty() &&
           FailedDevices().empty() && LateDevices().empty() && StrayLights().empty() && (status == 0 || WasAborted());
}

std::vector<SMeasured> MeasuredLights(std::size_t firstEntry, double startedMs)
{
    std::vector<SMeasured> lights;
    for (const QsStandalone::SJournalEntry& entry : QsStandalone::CQsJournal::EntriesFrom(firstEntry))
    {
        auto light = std::find_if(lights.begin(), lights.end(),
                                  [&entry](const SMeasured& known) { return known.device == entry.device; });
        if (entry.kind == EJournalKind::LightOn)
        {
            if (light == lights.end())
                light = lights.insert(lights.end(), SMeasured{entry.device, {}});
            if (light->pulses.empty() || !std::isnan(light->pulses.back().offMs))
                light->pulses.push_back({entry.timeMs - startedMs, s_noTime});
        }
        else if (entry.kind == EJournalKind::LightOff && light != lights.end() &&
                 std::isnan(light->pulses.back().offMs))
            light->pulses.back().offMs = entry.timeMs - startedMs;
    }
    return lights;
}

} // namespace Stimhost
