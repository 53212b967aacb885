// Runs one stimulation of the active device and measures what its light did.
//
// Measured times are those of the host's journal, taken where light came on and went off; nothing is derived from what
// was asked. All times of a phase count from the start call.
#pragma once

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

class CQsStimulationDeviceManager;

namespace Stimhost {

constexpr double s_noTime = std::numeric_limits<double>::quiet_NaN();

enum class EKind
{
    Continuous, // begun and ended from here: light until the end call
    Timed       // by the manager's worker; also drives devices that fire patterns
};

struct SRequest
{
    std::string title;
    EKind kind = EKind::Timed;
    double durationMs = 0.0;
    std::uint32_t groupMask = 1;
    std::optional<double> abortAfterMs;
    double graceMs = 10000.0;           // a device is given up that long after its time
    std::function<void()> whileRunning; // called once, after the first light or a tenth of the duration
};

struct SPulse
{
    double onMs = s_noTime;
    double offMs = s_noTime; // not a number while the light is on
};

// What one device's light did during a phase.
struct SMeasured
{
    std::string device;
    std::vector<SPulse> pulses; // at least one

    double BeginMs() const { return pulses.front().onMs; }
    double EndMs() const { return pulses.back().offMs; }
    double DurationMs() const { return EndMs() - BeginMs(); }
    double LitMs() const; // light alone, without the gaps
};

struct SPhase
{
    SRequest request;
    std::string device;          // unique name of the active device; empty when there was none
    double startedMs = s_noTime; // start call [ms of the host's clock]
    int startStatus = 0;         // what the start answered
    int status = 0;              // what the stimulation reported at its end
    bool finished = false;       // false: refused, or the device never answered
    bool gaveUp = false;         // the device did not answer in time
    bool interrupted = false;    // Ctrl-C
    double abortCalledMs = s_noTime;
    int abortStatus = 0;                 // what the manager's abort answered first
    std::vector<double> reportedBeginMs; // as the device reported them, from the start call
    std::vector<double> reportedEndMs;
    std::vector<SMeasured> lights;
    std::vector<std::string> leftOn; // lights that were on when the phase was over
    std::vector<std::string> faults; // of the host's devices, in words

    bool WasAborted() const { return !std::isnan(abortCalledMs); }
    // From the abort call until the last light was off; not a number without an abort, or when no light was on at it.
    double AbortLatencyMs() const;
    // Between the first and the last device's begin; not a number for fewer than two.
    double SkewMs() const;
    // No light although some was asked for: devices do not say when their shutter refused to open.
    bool WasDark() const { return lights.empty() && request.durationMs > 0.0 && !WasAborted(); }
    // Where the light should have ended: at the abort, or after its duration.
    double DueMs() const { return WasAborted() ? abortCalledMs : request.durationMs; }
    bool Succeeded() const
    {
        return startStatus == 0 && finished && !gaveUp && leftOn.empty() && faults.empty() && !WasDark() &&
               (status == 0 || WasAborted());
    }
};

// An interrupt aborts the stimulation. Ends within the duration and the grace time and three seconds, whatever the
// device does; a phase that was not finished leaves threads behind that may still be inside the device. [blocks]
SPhase RunStimulation(CQsStimulationDeviceManager& manager, const SRequest& request);

} // namespace Stimhost
