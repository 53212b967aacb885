#include "stimhost/Report.h"

#include "standalone/Rig.h"
#include "stimhost/Text.h"

namespace Stimhost {

namespace {

constexpr int s_reportVersion = 2;
constexpr char s_withoutAreas[] = "there are no areas to fire patterns at, so no device was called";

const char* KindName(EKind kind)
{
    return kind == EKind::Continuous ? "continuous" : "timed";
}

std::string Signed(double value)
{
    return (value >= 0.0 ? "+" : "") + Number(value, 2);
}

// Columns of the table after the device.
std::string Row(const std::vector<std::string>& cells)
{
    constexpr std::size_t width = 10;
    std::string text;
    for (const std::string& cell : cells)
        text += Padded(cell, width, true);
    return text;
}

std::string Names(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : ", ") + name;
    return text;
}

void WriteNames(CJson& json, const char* key, const std::vector<std::string>& names)
{
    json.Array(key);
    for (const std::string& name : names)
        json.Element(name);
    json.EndArray();
}

void WriteLight(CJson& json, const SPhase& phase, const SMeasured& light)
{
    json.Object().Text("device", light.device);
    json.Time("beginMs", light.BeginMs()).Time("endMs", light.EndMs()).Time("durationMs", light.DurationMs());
    json.Time("litMs", light.LitMs());
    json.Time("beginErrorMs", light.BeginMs()).Time("endErrorMs", light.EndMs() - phase.DueMs());
    json.Time("durationErrorMs", phase.WasAborted() ? s_noTime : light.DurationMs() - phase.request.durationMs);
    json.Time("abortLatencyMs", phase.AbortLatencyMs(light));
    json.Array("pulsesMs");
    for (const SPulse& pulse : light.pulses)
        json.Array().Element(pulse.onMs).Element(pulse.offMs).EndArray();
    json.EndArray().EndObject();
}

void WriteTimes(CJson& json, const char* key, const std::vector<double>& times)
{
    json.Array(key);
    for (const double time : times)
        json.Element(time);
    json.EndArray();
}

std::string LaneText(const SLane& lane)
{
    return lane.device.empty() || lane.device == lane.name ? lane.name : lane.name + ": " + lane.device;
}

// The numbers of a lane, and what is to be said beside them.
std::string Cells(const SPhase& phase, const SLane& lane)
{
    const std::string state = lane.state.empty() ? "" : "  " + lane.state;
    if (lane.light == nullptr)
    {
        const int status = phase.startStatus != 0 ? phase.startStatus : phase.status;
        return Row({Number(phase.request.durationMs, 2)}) + state +
               (status != 0 ? ", status " + std::to_string(status) : "");
    }
    const SMeasured& light = *lane.light;
    return Row({Number(phase.DueMs(), 2), Number(light.BeginMs(), 2), Number(light.EndMs(), 2),
                Number(light.DurationMs(), 2), Number(light.LitMs(), 2), Signed(light.BeginMs()),
                Signed(light.EndMs() - phase.DueMs()), Number(phase.AbortLatencyMs(light), 2)}) +
           state;
}

void WriteBeampath(CJson& json, const SPhase& phase)
{
    json.Object("beampath").Text("name", phase.throughBeampath ? phase.device : "").Array("subbeampaths");
    for (const SPath& path : phase.paths)
    {
        const SMeasured* const light = phase.LightOf(path.light);
        json.Object().Integer("id", path.id).Text("name", path.name);
        json.Text("device", path.HasDevice() ? path.device : "no device").Text("light", path.light);
        json.Time("beginMs", light != nullptr ? light->BeginMs() : s_noTime);
        json.Time("endMs", light != nullptr ? light->EndMs() : s_noTime);
        json.Flag("failed", path.failed).Flag("late", path.late).EndObject();
    }
    json.EndArray().EndObject();
}

void WriteSignals(CJson& json, const SPhase& phase)
{
    json.Array("signals");
    for (const SSignal& signal : phase.signals)
        json.Object()
            .Time("timeMs", signal.timeMs)
            .Text("kind", signal.command ? "command" : "change")
            .Integer("code", signal.value)
            .EndObject();
    json.EndArray().Array("messages");
    for (const SMessage& message : phase.messages)
        json.Object().Time("timeMs", message.timeMs).Text("text", message.text).EndObject();
    json.EndArray();
}

void WritePhase(CJson& json, const SPhase& phase, double firstStartMs)
{
    const SRequest& request = phase.request;
    json.Object().Text("title", request.title).Text("activeDevice", phase.device);
    json.Time("startedMs", phase.startedMs - firstStartMs);
    json.Object("requested").Text("kind", KindName(request.kind));
    json.Time("beginMs", 0.0).Time("endMs", request.durationMs).Time("durationMs", request.durationMs);
    json.Integer("groupMask", request.groupMask).Time("abortAfterMs", request.abortAfterMs.value_or(s_noTime));
    json.EndObject();
    json.Integer("startStatus", phase.startStatus).Integer("status", phase.status);
    json.Flag("finished", phase.finished).Flag("gaveUp", phase.gaveUp).Flag("interrupted", phase.interrupted);
    json.Flag("succeeded", phase.Succeeded());
    json.Object("abort").Flag("aborted", phase.WasAborted()).Time("calledMs", phase.abortCalledMs);
    json.Integer("managerStatus", phase.abortStatus).Time("latencyMs", phase.AbortLatencyMs()).EndObject();
    json.Object("reportedByDevice");
    WriteTimes(json, "beginMs", phase.reportedBeginMs);
    WriteTimes(json, "endMs", phase.reportedEndMs);
    json.EndObject();
    json.Array("measured");
    for (const SMeasured& light : phase.lights)
        WriteLight(json, phase, light);
    json.EndArray().Time("startSkewMs", phase.StartSkewMs()).Time("endSkewMs", phase.EndSkewMs());
    WriteBeampath(json, phase);
    WriteSignals(json, phase);
    WriteNames(json, "withoutLight", phase.DarkDevices());
    WriteNames(json, "failed", phase.FailedDevices());
    WriteNames(json, "late", phase.LateDevices());
    WriteNames(json, "strayLights", phase.StrayLights());
    WriteNames(json, "lightLeftOn", phase.leftOn);
    WriteNames(json, "faults", phase.faults);
    json.EndObject();
}

void WriteFigures(CJson& json, const SCalibrationFigures& figures)
{
    json.Object().Text("title", figures.title).Text("camera", figures.camera).Text("refusal", figures.refusal);
    json.Integer("projected", figures.projected).Integer("found", figures.found).Integer("inliers", figures.inliers);
    json.Real("rmsPx", figures.rmsPx).Real("largestPx", figures.largestPx).Real("condition", figures.condition);
    json.EndObject();
}

void WriteLanding(CJson& json, const SLanding& landing)
{
    json.Object().Text("title", landing.title).Text("region", landing.roi).Text("camera", landing.camera);
    json.Text("calibration", landing.calibration).Integer("state", landing.state);
    json.Text("stateName", StateName(landing.state)).Text("refusal", landing.refusal);
    json.Integer("requestedPixels", static_cast<long long>(PixelCount(landing.requested)));
    json.Real("reach", landing.reach).Flag("lightSeen", landing.light.has_value());
    if (landing.light)
    {
        const SLitRegion& light = *landing.light;
        json.Integer("litPixels", light.pixels).Real("overlap", light.overlap).Real("centreErrorPx", landing.errorPx);
        json.Pair("requestedCentre", light.requestedCentre.x, light.requestedCentre.y);
        json.Pair("centre", light.centre.x, light.centre.y);
    }
    json.EndObject();
}

} // namespace

SReport ReportOf(const QsStandalone::SRig& rig)
{
    SReport report;
    report.rigName = rig.name;
    report.rigPath = rig.path;
    return report;
}

std::string Table(const std::vector<SPhase>& phases)
{
    std::size_t width = 6;
    for (const SPhase& phase : phases)
        for (const SLane& lane : phase.Lanes())
            width = std::max(width, LaneText(lane).size());
    std::string text =
        std::string(width + 4, ' ') + Row({"requested", "measured", "", "", "", "begin", "end", "abort"}) + "\n";
    text += Padded("  device", width + 4) +
            Row({"end", "begin", "end", "duration", "lit", "error", "error", "latency"}) + "  [ms]\n";
    for (const SPhase& phase : phases)
    {
        text += phase.request.title + "\n";
        for (const SLane& lane : phase.Lanes())
            text += "  " + Padded(LaneText(lane), width + 2) + Cells(phase, lane) + "\n";
        for (const std::string& note : Notes(phase))
            text += "    " + note + "\n";
    }
    return text;
}

std::vector<std::string> Notes(const SPhase& phase)
{
    std::vector<std::string> notes;
    if (!phase.refusal.empty())
        notes.push_back("not started: " + phase.refusal);
    if (phase.withoutAreas)
        notes.push_back(s_withoutAreas);
    if (phase.throughBeampath && phase.lights.size() > 1)
        notes.push_back("start skew " + Number(phase.StartSkewMs(), 2) + " ms, end skew " +
                        Number(phase.EndSkewMs(), 2) + " ms");
    std::string signals;
    for (const SSignal& signal : phase.signals)
        signals += (signals.empty() ? "codes and OC commands: " : ", ") + SignalText(signal) + " at " +
                   Number(signal.timeMs, 1);
    if (!signals.empty())
        notes.push_back(signals);
    for (const SMessage& message : phase.messages)
        notes.push_back("log at " + Number(message.timeMs, 1) + ": " + message.text);
    if (phase.RefusedPatterns())
        notes.push_back("sub-beampaths take no repeated patterns: status " + std::to_string(phase.status) +
                        (phase.lights.empty() ? ", nothing was fired" : ""));
    return notes;
}

std::string CalibrationTable(const std::vector<SCalibrationFigures>& calibrations)
{
    std::size_t width = 11;
    for (const SCalibrationFigures& figures : calibrations)
        width = std::max(width, figures.title.size());
    std::string text = Padded("  calibration", width + 4) +
                       Row({"projected", "found", "fit", "rms", "largest", "condition"}) + "  [camera px]\n";
    for (const SCalibrationFigures& figures : calibrations)
        text += "  " + Padded(figures.title, width + 2) +
                Row({std::to_string(figures.projected), std::to_string(figures.found), std::to_string(figures.inliers),
                     Number(figures.rmsPx, 3), Number(figures.largestPx, 3), Number(figures.condition, 2)}) +
                (figures.refusal.empty() ? "" : "  refused: " + figures.refusal) + "\n";
    return text;
}

std::string LandingTable(const std::vector<SLanding>& landings)
{
    std::size_t width = 8;
    for (const SLanding& landing : landings)
        width = std::max(width, landing.title.size());
    std::string text = Padded("  region", width + 4) + Padded("calibration state", 22) +
                       Row({"error", "overlap", "on chip"}) + "  [camera px, intersection by union, part]\n";
    for (const SLanding& landing : landings)
    {
        text += "  " + Padded(landing.title, width + 2) +
                Padded(std::to_string(landing.state) + " " + StateName(landing.state), 22);
        if (landing.light)
            text += Row({Number(landing.errorPx, 3), Number(landing.light->overlap, 3), Number(landing.reach, 3)});
        else
            text += Row({"-", "-", Number(landing.reach, 3)}) + "  " +
                    (landing.refusal.empty() ? "the camera saw no light" : "refused, nothing lit");
        text += "\n";
    }
    return text;
}

std::string ReportJson(const SReport& report)
{
    CJson json;
    json.Object().Integer("version", s_reportVersion).Text("program", "stimhost");
    json.Object("rig").Text("name", report.rigName).Text("file", report.rigPath).EndObject();
    json.Array("phases");
    for (const SPhase& phase : report.phases)
        WritePhase(json, phase, report.phases.front().startedMs);
    json.EndArray().Array("calibrations");
    for (const SCalibrationFigures& figures : report.calibrations)
        WriteFigures(json, figures);
    json.EndArray().Array("landings");
    for (const SLanding& landing : report.landings)
        WriteLanding(json, landing);
    json.EndArray().Array("promises");
    for (const SPromise& promise : report.promises)
        json.Object()
            .Text("promise", promise.text)
            .Flag("kept", promise.kept)
            .Text("found", promise.detail)
            .EndObject();
    json.EndArray();
    WriteNames(json, "lightOnAtEnd", report.lightOnAtEnd);
    json.EndObject();
    return json.Take();
}

std::string WhyFailed(const SPhase& phase)
{
    const std::string what = phase.request.title + ": ";
    if (!phase.refusal.empty())
        return what + phase.refusal;
    if (phase.startStatus != 0)
        return what + phase.device + " was not started, status " + std::to_string(phase.startStatus);
    if (!phase.leftOn.empty())
        return what + "the light of " + Names(phase.leftOn) + " is still on";
    if (!phase.StrayLights().empty())
        return what + Names(phase.StrayLights()) + " lit, which the beampath does not have";
    if (phase.gaveUp)
        return what + phase.device + " did not answer in time and was given up";
    if (phase.withoutAreas)
        return what + phase.device + ": " + s_withoutAreas;
    if (phase.RefusedPatterns())
        return what + "sub-beampaths take no repeated patterns, status " + std::to_string(phase.status);
    if (!phase.faults.empty())
        return what + phase.faults.front();
    if (!phase.FailedDevices().empty())
        return what + Names(phase.FailedDevices()) + " failed, as the log says";
    if (!phase.LateDevices().empty())
        return what + Names(phase.LateDevices()) + " was late";
    if (phase.status == 0 && !phase.DarkDevices().empty())
        return what + Names(phase.DarkDevices()) + " gave no light";
    if (!phase.Succeeded())
        return what + phase.device + " failed, status " + std::to_string(phase.status);
    return {};
}

} // namespace Stimhost
