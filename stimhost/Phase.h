// One stimulation: what was asked and what was measured.
//
// Measured times are those of the host's journal, taken where light came on and went off; nothing is derived from what
// was asked. All times of a phase count from the start call.
#pragma once

#include "stimhost/Beampaths.h"
#include "stimhost/Signals.h"

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace QsStandalone {
struct SLogLine;
}

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
    std::string device;         // its name in the journal
    std::vector<SPulse> pulses; // at least one

    double BeginMs() const { return pulses.front().onMs; }
    double EndMs() const { return pulses.back().offMs; }
    double DurationMs() const { return EndMs() - BeginMs(); }
    double LitMs() const; // light alone, without the gaps
};

// A sub-beampath of the beampath that was stimulated with.
struct SPath : SSubbeampath
{
    bool failed = false; // the log says that its device failed
    bool late = false;   // not through with its light when the beampath gave up waiting

    bool HasDevice() const { return !device.empty(); }
};

// One line of a report: a sub-beampath with its device's light, or a light by itself.
struct SLane
{
    std::string name;
    std::string device;               // unique name; empty: none, or the name says it
    const SMeasured* light = nullptr; // of the phase; null: none
    std::string state;                // what is to be said beside or in place of the light; empty: nothing
    bool wrong = false;               // the state is a failure
};

// What the devices of a beampath logged.
struct SMessage
{
    double timeMs = s_noTime;
    std::string text;
};

struct SPhase
{
    SRequest request;
    bool throughBeampath = false; // with a device database; then the next two are the beampath's
    std::string device;           // unique name of what stimulated; empty when there was nothing
    std::vector<SPath> paths;
    bool withoutAreas = false;   // patterns were to be fired and there are none: no device is called
    double startedMs = s_noTime; // start call [ms of the host's clock]
    int startStatus = 0;         // what the start answered
    std::string refusal;         // why nothing was started; empty: it was, or the manager refused
    int status = 0;              // what the stimulation reported at its end
    bool finished = false;       // false: refused, or the device never answered
    bool gaveUp = false;         // the device did not answer in time
    bool interrupted = false;    // Ctrl-C
    double abortCalledMs = s_noTime;
    int abortStatus = 0;                 // what the manager's abort answered first
    std::vector<double> reportedBeginMs; // as the device reported them
    std::vector<double> reportedEndMs;
    std::vector<SMeasured> lights;
    std::vector<SSignal> signals;
    std::vector<SMessage> messages;
    std::vector<std::string> leftOn; // lights that were on when the phase was over
    std::vector<std::string> faults; // of the host's devices, in words

    // Fills the paths' findings and the messages.
    void Evaluate(const std::vector<QsStandalone::SLogLine>& log);

    std::vector<SLane> Lanes() const; // at least one

    const SMeasured* LightOf(const std::string& light) const; // by its name in the journal; null: none
    bool WasAborted() const { return !std::isnan(abortCalledMs); }
    // From the abort call until the light, or the last of all, was off; not a number without an abort, or when it was
    // not on then.
    double AbortLatencyMs(const SMeasured& light) const;
    double AbortLatencyMs() const;
    // Between the first and the last device's begin, or end; not a number for fewer than two.
    double StartSkewMs() const;
    double EndSkewMs() const;
    // Those that should have lit and did not: devices do not say when their shutter refused to open.
    std::vector<std::string> DarkDevices() const;
    std::vector<std::string> FailedDevices() const; // of a beampath, as it logged them
    std::vector<std::string> LateDevices() const;
    // Lights that are none of the beampath's.
    std::vector<std::string> StrayLights() const;
    bool RefusedPatterns() const; // a sub-beampath was asked for repeated patterns, which it does not take
    // Where the light should have ended: at the abort, or after its duration.
    double DueMs() const { return WasAborted() ? abortCalledMs : request.durationMs; }
    bool Succeeded() const;
};

// Pairs of on and off of each light in the journal from that entry on, in order of first light.
std::vector<SMeasured> MeasuredLights(std::size_t firstEntry, double startedMs);

} // namespace Stimhost
